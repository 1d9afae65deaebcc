#include "dxglobals.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "dxassert.h"

TEST(Home, ComesFromTheSetterLessOneSlash) {
  const struct {
    const char* set;
    const char* want;
  } kSteps[] = {{"/opt/app/", "/opt/app"}, {"", "/opt/app"},     {nullptr, "/opt/app"},
                {"/opt/b//", "/opt/b/"},   {"/srv/c", "/srv/c"}, {"/srv/d", "/srv/d"}};
  for (const auto& step : kSteps) {
    SetVEXAHOME(step.set);
    EXPECT_STREQ(step.want, GetVEXAHOME()) << (step.set ? step.set : "null");
  }
  SetVEXAHOME(GetVEXAHOME());  // the library's own text
  EXPECT_STREQ("/srv/d", GetVEXAHOME());
}

TEST(Home, IsTakenFromTheEnvironmentOnce) {
  ::setenv("VEXA_HOME", "", 1);
  EXPECT_STREQ("", GetVEXAHOME());
  ::setenv("VEXA_HOME", "/opt/app/", 1);
  EXPECT_STREQ("/opt/app", GetVEXAHOME());
  ::setenv("VEXA_HOME", "/elsewhere", 1);
  EXPECT_STREQ("/opt/app", GetVEXAHOME());
}

TEST(Home, OfASlashIsTakenThoughEmpty) {
  SetVEXAHOME("/");
  ::setenv("VEXA_HOME", "/opt/app", 1);
  EXPECT_STREQ("", GetVEXAHOME());
}

TEST(Assertion, NamesCheckOperationAndSource) {
  DxAssert(true, "holds", "Operation", "backend/source");
  EXPECT_EXIT(DxAssert(false, "m_manager", "XPipeSuit", "backend/source"), testing::KilledBySignal(SIGABRT),
              "m_manager.*XPipeSuit.*backend/source");
}
