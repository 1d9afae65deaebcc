// A host: startxhost X PIPE-DIRECTORY [BLOCK]... starts the X out of process, runs each block, says "idle" and waits to
// be killed. Before that it says "started", and "running" before the last block.

#include <unistd.h>

#include <cstdio>
#include <string>

#include "dxglobals.h"
#include "outpstatisticsx.h"
#include "xpipemanager.h"

namespace {

void say(const char* word) {
  (void)std::printf("%s\n", word);
  (void)std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  XPipeManager manager(std::string(argv[2]) + "/", "4711");
  SetXPipeManager(&manager);
  manager.getPipeSuit(argv[1])->increaseIndex();
  XConfigOptions options(argv[1]);
  OutpStatisticsX engine(&options, 1, true);
  say("starting");
  if (engine.init_embedded_x(0, nullptr) != 0) return 1;
  say("started");
  for (int i = 3; i < argc; ++i) {
    if (engine.pre_action() != 0) return 1;
    if (i == argc - 1) say("running");
    if (engine.execute_x(argv[i]) != 0 || engine.post_action() != 0) return 1;
  }
  say("idle");
  for (;;) ::pause();
}
