// A small host: runs one block of Python in process and exits with its code.
#include <vexadxcom.h>

#include <cstdio>
#include <string>
#include <vector>

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
  std::vector<std::string> lines{argv[2]};
  DriveX driver("PYTHON", &engine, options);
  driver.setSyntax(lines);
  const int code = driver.invokeX();
  if (code != 0) std::fprintf(stderr, "code %d\n", code);
  return code == 0 ? 0 : 1;
}
