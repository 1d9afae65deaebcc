#include "vexadeploy.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(Deployment, IsWhatTheEnvironmentSaysAtTheCall) {
  const struct {
    const char* value;
    bool cloud;
    bool thinClient;
  } cases[] = {
      {"cloud", true, false},  {"thinclient", false, true}, {"", false, false},
      {"Cloud", false, false}, {"cloudy", false, false},    {"thin", false, false},
  };
  for (const auto& c : cases) {
    ::setenv("VEXA_DEPLOYMENT", c.value, 1);
    EXPECT_EQ(c.cloud, IsApplicationOnCloud()) << c.value;
    EXPECT_EQ(c.thinClient, IsApplicationOnThinClient()) << c.value;
  }
  ::unsetenv("VEXA_DEPLOYMENT");
  EXPECT_FALSE(IsApplicationOnCloud());
  EXPECT_FALSE(IsApplicationOnThinClient());
}

}  // namespace
