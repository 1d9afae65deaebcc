#pragma once

#include "vexadx_export.h"

// What the host sets once for the whole process and every part of the library reads.
//
// The host creates, owns and destroys the objects it registers here; the library only keeps the pointers. The host
// sets everything before its first run, from one thread; afterwards any thread may read.

class DxTracer;
class JavaPlugInSocket;
class XManager;
class XPipeManager;

// Whether the host has finished the library's global initialisation; false until it says so.
VEXADX_API bool IsDXGlobalInit();
VEXADX_API void SetDXGlobalInitFin(bool finished);

// A flag kept for the host; the library itself never consults it.
VEXADX_API bool IsInStat();
VEXADX_API void SetInStat(bool inStat);

// Each getter answers what the setter was last given, null before. A setter never deletes an earlier object.
VEXADX_API XManager* GetXManager();
VEXADX_API void SetXManager(XManager* manager);
VEXADX_API XPipeManager* GetXPipeManager();
VEXADX_API void SetXPipeManager(XPipeManager* manager);
VEXADX_API JavaPlugInSocket* GetJavaExtSocket();
VEXADX_API void SetavaExtSocket(JavaPlugInSocket* socket);  // exported spelling: the host links against it

// The trace writer; null turns tracing off.
VEXADX_API DxTracer* GetDxTracer();
VEXADX_API void SetDxTracer(DxTracer* tracer);

// The host's home directory without a trailing "/", or empty text. While none has been taken yet, the environment
// variable VEXA_HOME is looked at; a value once taken stays, whatever the environment does later. The text belongs to
// the library and is valid until the next SetVEXAHOME.
VEXADX_API const char* GetVEXAHOME();

// Takes the home directory, less one trailing "/". Null or empty text changes nothing.
VEXADX_API void SetVEXAHOME(const char* home);
