#pragma once

#include "vexadx_export.h"

class CleXDSmb;
class JavaExtensionSmb;
class JavaPlugInSocket;
class VexaPipe;

// Move one message at a time through a pipe or the socket. They answer 0 or a code and keep nothing between calls; one
// thread at a time in each direction of a pipe or socket.
//
// A message that was sent is gone from its block, which can be filled again; after a failure the block is as before.
// The codes are those of the pipe or socket, and vexadx::kFailed (1) when there is no memory for the message.
//
// A message that was received is parsed into the block, behind the lists that the block has; the answer is then the
// error code that it carries. The block is unchanged after any failure: vexadx::kPipeClosed (99103) when the other end
// closes before the message is whole, vexadx::kPipeFailed (99104) from a pipe and vexadx::kSocketFailed (99122) from
// the socket when what comes is not one message and nothing else, or there is no memory for it.

VEXADX_API int SendData(VexaPipe* pipe, CleXDSmb& block);
VEXADX_API int ReceiveData(VexaPipe* pipe, CleXDSmb& block);

// The same through a pipe that they open first if need be, waiting for the other end. The bool is not used.
VEXADX_API int SendData(VexaPipe* pipe, CleXDSmb& block, bool);
VEXADX_API int ReceiveData(VexaPipe* pipe, CleXDSmb& block, bool);

VEXADX_API int SendData(JavaPlugInSocket* socket, CleXDSmb& block);
VEXADX_API int ReceiveData(JavaPlugInSocket* socket, CleXDSmb& block);

// The data of the Java extension message, as they are. Nothing ever comes back: receiving does nothing and answers 0.
VEXADX_API int SendData(JavaPlugInSocket* socket, JavaExtensionSmb& message);
VEXADX_API int ReceiveData(JavaPlugInSocket* socket, JavaExtensionSmb& message);
