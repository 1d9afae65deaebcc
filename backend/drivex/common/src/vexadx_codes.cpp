#include "vexadx_codes.h"

namespace vexadx {

const char* ResultText(int code) {
  switch (code) {
    case kSuccess:
      return "success";
    case kNoSuchVariable:
      return "there is no variable of this index, or it has no cell in the case";
    case kOtherVariableType:
      return "the variable is of the other type";
    case kNotANumericCell:
    case kNotAStringCell:
      return "a data-step cell was read or written as the wrong type";
    case kLibraryNotLoaded:
      return "the plug-in library could not be loaded, or an entry point it must export is missing";
    case kNotInitialized:
      return "the engine is not initialised";
    case kThreadNotStarted:
      return "the thread of the run could not be started";
    case kNoLibraryName:
      return "no plug-in library is configured for the engine";
    case kPythonNotPrepared:
      return "the pre-action of the Python engine answered 1 and nothing was executed";
    default:
      return nullptr;
  }
}

}  // namespace vexadx
