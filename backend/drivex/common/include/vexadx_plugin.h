#pragma once

#include <array>
#include <string>

#include "vexadx_export.h"

class XConfigOptions;

// What a host and a plug-in library need to know about each other beyond the classes.
namespace vexadx {

// An entry point of a plug-in library, a plain C function.
struct PluginEntryPoint {
  const char* name;
  bool mandatory;
};

// The seven entry points, in the order in which the library looks them up.
inline constexpr std::array<PluginEntryPoint, 7> kPluginEntryPoints{{{"setup_dxcallback", false},
                                                                     {"init_embedded_x", true},
                                                                     {"execute_x", true},
                                                                     {"stop_embedded_x", true},
                                                                     {"pre_action", true},
                                                                     {"post_action", true},
                                                                     {"set_post_vexa_output", false}}};

// The file that an in-process engine with these options loads for the library name, which is that of the options
// (GetXLibName). Asks the Java preferences for the directory.
VEXADX_API std::string PluginLibraryPath(XConfigOptions& options, const std::string& libName);

// The same in a directory; empty stands for that of the home. Asks nobody.
VEXADX_API std::string PluginLibraryFile(const std::string& directory, const std::string& libName);

// The arguments with which an X is started, separated by blanks: those of the options, or else the ones usual for it.
VEXADX_API std::string StartArguments(XConfigOptions& options);

constexpr char kHostCallbackTag[8] = {'V', 'X', 'D', 'X', 'H', 'C', 'B', '1'};

// The table that our hosts hand to a plug-in through setup_dxcallback. A plug-in looks at the tag first and ignores a
// table that does not carry it: other hosts have tables of their own. The table must outlive the engine's last run.
struct HostCallback {
  char tag[8];    // kHostCallbackTag
  unsigned size;  // sizeof(HostCallback) of the host; members are only ever added at the end

  // Called by the plug-in to say how its running block is interrupted. The host may call `interrupt` at any time, also
  // from a signal handler; while no block runs it does nothing.
  void (*setInterrupt)(void (*interrupt)());

  // Called by the plug-in when a block has failed, on the block's thread before execute_x answers: what the language
  // said, in UTF-8, and the line of the block, 0 when there is none. The host copies the texts. May be null.
  void (*noteError)(const char* type, const char* message, const char* traceback, int line);

  // Whether the process has been started for the language alone, which may then have it as it likes: its locale, say.
  bool isProcessOfLanguage;
};

}  // namespace vexadx
