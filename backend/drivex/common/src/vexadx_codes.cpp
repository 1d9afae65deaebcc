#include "vexadx_codes.h"

namespace vexadx {

const char* ResultText(int code) {
  switch (code) {
    case kSuccess:
      return "success";
    case kLibraryNotLoaded:
      return "the plug-in library could not be loaded, or an entry point it must export is missing";
    case kNotInitialized:
      return "the engine is not initialised";
    case kNoLibraryName:
      return "no plug-in library is configured for the engine";
    default:
      return nullptr;
  }
}

}  // namespace vexadx
