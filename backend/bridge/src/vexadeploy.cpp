#include "vexadeploy.h"

#include <cstdlib>
#include <string_view>

namespace {

bool isDeployment(std::string_view name) {
  const char* value = std::getenv("VEXA_DEPLOYMENT");
  return value && value == name;
}

}  // namespace

bool IsApplicationOnCloud() { return isDeployment("cloud"); }

bool IsApplicationOnThinClient() { return isDeployment("thinclient"); }
