#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dxglobals.h"
#include "environment.h"
#include "hostwatch.h"
#include "levels.h"
#include "plugin.h"
#include "quietthread.h"
#include "server.h"
#include "vexadx_plugin.h"
#include "vexadxconfigreader.h"
#include "xcmdargument.h"

namespace {

using namespace std::chrono_literals;

constexpr int kWrongUsage = 2;
constexpr auto kFirstCommand = 3s;  // a host that lives looks for the command pipe half a second after the start

// What the host says on the command line.
struct Arguments {
  std::string pipeDirectory;
  std::string pipeId;
  std::string xName;
  // Only for R.
  std::string home;
  std::string libraryName;
  std::string libraryDirectory;
};

// The host hands the home over in quotes.
std::string unquoted(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  return std::string(text);
}

bool read(int argc, char** argv, Arguments& arguments) {
  if (argc != 5 && argc != 8) return false;
  arguments.pipeDirectory = argv[2];
  arguments.pipeId = argv[3];
  arguments.xName = argv[4];
  if (argc == 8) {
    arguments.home = unquoted(argv[5]);
    arguments.libraryName = argv[6];
    arguments.libraryDirectory = argv[7];
  }
  return true;
}

// The environment usually has it already, and the section may have put another one there.
void setHome(const std::string& home) {
  const char* const known = std::getenv("R_HOME");
  if (!home.empty() && !(known && *known)) (void)::setenv("R_HOME", home.c_str(), 1);
}

// From the configuration itself, which needs no Java machine as the preferences do.
std::string libraryFile(const Arguments& arguments, XConfigOptions& options) {
  std::string name = arguments.libraryName;
  if (name.empty()) name = options.GetOption(XConfigOptions::KEY_LIB_NAME);
  if (name.empty()) name = options.GetXLibName();
  std::string directory = arguments.libraryDirectory;
  if (directory.empty()) directory = options.GetOption(XConfigOptions::KEY_LIB_PATH);
  return vexadx::PluginLibraryFile(directory, name);
}

int startPlugin(Plugin& plugin, const Arguments& arguments, XConfigOptions& options) {
  setHome(arguments.home);
  XCmdArgument start(vexadx::StartArguments(options));
  return plugin.Start(libraryFile(arguments, options), start.argc(), start.argv());
}

void interruptBlocks(int) { Plugin::Interrupt(); }

// System calls of a block are not restarted, so that it notices.
void takeInterrupts() {
  struct sigaction action {};
  action.sa_handler = &interruptBlocks;
  (void)::sigaction(SIGINT, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const pid_t host = ::getppid();
  StandAlone();
  ClearEnvironment();
  Arguments arguments;
  if (!read(argc, argv, arguments)) {
    (void)std::fprintf(
        stderr, "usage: %s LOCAL|REMOTE PIPE-DIRECTORY PIPE-ID X [HOME LIBRARY-NAME LIBRARY-DIRECTORY]\n", argv[0]);
    return kWrongUsage;
  }
  XConfigOptions& options = *VexaDXConfigReader::GetInstance()->GetOptions(arguments.xName);
  Plugin plugin;
  Levels levels(arguments.pipeDirectory, arguments.pipeId + arguments.xName);
  Server server(plugin, levels, arguments.pipeDirectory + arguments.pipeId + arguments.xName, options.IsNestable());
  takeInterrupts();
  server.ServeCommands();
  QuietThread([&server, host] {
    if (!MayBeAdopted(host) || server.HearsFromHost(kFirstCommand)) AwaitHostsEnd(host);
    server.LeaveHost();  // the pipes have been made, and are removed
  }).detach();
  server.NoteStart(startPlugin(plugin, arguments, options));
  server.RunBlocks();
}
