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
      return "a data-step cell holds no number, or the variable has no cell";
    case kNotAStringCell:
      return "a data-step cell was read or written as the wrong type";
    case kPipeBroken:
      return "nobody reads the pipe any more";
    case kPipeClosed:
      return "the other end has closed the connection";
    case kPipeFailed:
      return "a pipe could not be made, opened, read or written";
    case kPipeUnnamed:
      return "a pipe has no name";
    case kProcessNotAlive:
      return "the engine's process could not be started, or ended at once";
    case kLibraryNotLoaded:
      return "the plug-in library could not be loaded, or an entry point it must export is missing";
    case kNotInitialized:
      return "the engine is not initialised";
    case kThreadNotStarted:
      return "the thread of the run could not be started";
    case kNoLibraryName:
      return "no plug-in library is configured for the engine";
    case kSocketNotAccepted:
      return "the socket could not be created, or no connection was accepted on it";
    case kSocketFailed:
      return "the socket could not be bound, sent or received on";
    case kJavaNotAlive:
      return "the Java extension's process ended before it could be used";
    case kPythonNotPrepared:
      return "the pre-action of the Python engine answered 1 and nothing was executed";
    default:
      return nullptr;
  }
}

}  // namespace vexadx
