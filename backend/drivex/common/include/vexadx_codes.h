#pragma once

#include "vexadx_export.h"

// The library's own result codes. Codes of a plug-in library or an X process are passed through unchanged and may be
// any number.
namespace vexadx {

constexpr int kSuccess = 0;
constexpr int kFailed = 1;  // a plug-in let an exception out, or memory gave out; a plug-in may answer 1 itself
constexpr int kNoSuchVariable = 10;     // no variable of this index, or no cell of it in the case
constexpr int kOtherVariableType = 24;  // a number asked of a string variable, or a string of a numeric one
constexpr int kNotANumericCell = 56;    // a number read from a string cell, or a string written where there is no cell
constexpr int kNotAStringCell = 57;     // a string read from a numeric cell, or a number written to a string cell
constexpr int kPipeBroken = 109;        // a monitor wrote to a pipe that nobody reads any more
constexpr int kPipeClosed = 99103;      // the other end has closed the pipe or the connection
constexpr int kPipeFailed = 99104;   // a pipe could not be made, opened, read or written, or brought what is no message
constexpr int kPipeUnnamed = 99106;  // a pipe without a name
constexpr int kProcessNotAlive = 99107;    // the X process could not be started, or was gone half a second later
constexpr int kLibraryNotLoaded = 99114;   // the plug-in library could not be loaded, or lacks a mandatory entry point
constexpr int kNotInitialized = 99115;     // the engine has not been initialised, or its initialisation failed
constexpr int kThreadNotStarted = 99116;   // the thread of a run could not be started
constexpr int kNoLibraryName = 99118;      // no plug-in library is configured for the X
constexpr int kSocketNotAccepted = 99121;  // the socket could not be created, or no connection accepted on it
constexpr int kSocketFailed =
    99122;  // the socket could not be bound, sent or received on, or brought what is no message
constexpr int kJavaNotAlive = 99123;  // the Java extension process had ended half a second after it was to connect
constexpr int kPythonNotPrepared = 999988;  // the pre-action of the X named PYTHON answered 1; nothing was executed

// What one of these codes means, in one line without a full stop; null for any other code. The text is static.
VEXADX_API const char* ResultText(int code);

}  // namespace vexadx
