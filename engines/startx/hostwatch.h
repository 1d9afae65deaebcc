#pragma once

#include <sys/types.h>

// Whether the parent is not the one that started this process but the one that the system gave it to since, as the
// starter had ended by the time that it was looked for. Also true of a starter that is the system's first process or
// of another session.
bool MayBeAdopted(pid_t parent);

// Waits until the process that started this one has gone, however that ended. REQUIRES: `host` is what getppid answered
// at the start.
void AwaitHostsEnd(pid_t host);
