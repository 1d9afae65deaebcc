// A program in the place of an engine's: writes what it was started with into the file that PROCESS_REPORT names, and
// ends. Each text is followed by a NUL byte: the number of arguments, the arguments, and the environment as it came,
// of which no entry is left out or looked up.

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#ifdef __APPLE__
#include <crt_externs.h>
#define environ (*_NSGetEnviron())
#else
#include <unistd.h>
#endif

int main(int argc, char** argv) {
  const char* const path = std::getenv("PROCESS_REPORT");
  std::FILE* const report = path ? std::fopen(path, "wb") : nullptr;
  if (!report) return 1;
  (void)std::fprintf(report, "%d%c", argc, '\0');
  for (char** texts : {argv, environ}) {
    for (; *texts; ++texts) (void)std::fprintf(report, "%s%c", *texts, '\0');
  }
  return std::fclose(report);
}
