#include <unistd.h>

#include "language.h"
#include "stopunless.h"

// A process with nothing but an embedded language in it, which does nothing once it has told that by a byte.
int main() {
  IDLE_LANGUAGE.start();
  stopUnless(::write(STDOUT_FILENO, "", 1) == 1, "nobody waits");
  for (;;) ::pause();
}
