#include <unistd.h>

#include <string_view>

#include "vexadx_export.h"

// A plug-in library that does nothing, so that only the way to it counts. The block "wait" does nothing for ever.

extern "C" {

VEXADX_API int init_embedded_x(int /*argc*/, char** /*argv*/) { return 0; }
VEXADX_API int execute_x(char* syntax) {
  while (std::string_view(syntax) == "wait") ::pause();
  return 0;
}
VEXADX_API int stop_embedded_x() { return 0; }
VEXADX_API int pre_action() { return 0; }
VEXADX_API int post_action() { return 0; }

}  // extern "C"
