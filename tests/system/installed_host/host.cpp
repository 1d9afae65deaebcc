// A small host: runs one block of Python in process and exits with its code.
#include <vexadxcom.h>

#include <cstdio>
#include <string>

static int printOutput(const char* text, int length) {
  return static_cast<int>(std::fwrite(text, 1, static_cast<std::size_t>(length), stdout));
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: host HOME BLOCK\n");
    return 2;
  }
  SetVEXAHOME(argv[1]);
  XConfigOptions* options = VexaDXConfigReader::GetInstance("PYTHON");
  InpStatisticsX engine(options, true);
  engine.set_post_vexa_output(&printOutput);
  int code = engine.init_embedded_x(0, nullptr);
  if (code == 0) code = engine.pre_action();
  if (code == 0) {
    std::string block = std::string(argv[2]) + "\n";
    code = engine.execute_x(block.data());
    engine.post_action();
  }
  if (code != 0) std::fprintf(stderr, "code %d\n", code);
  return code == 0 ? 0 : 1;
}
