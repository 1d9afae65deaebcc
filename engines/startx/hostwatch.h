#pragma once

#include <sys/types.h>

// Waits until the process that started this one has gone, however that ended. REQUIRES: `host` is what getppid answered
// at the start.
void AwaitHostsEnd(pid_t host);
