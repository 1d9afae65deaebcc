#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

// What a library must leave to the process that it lives in, and what it must give back.

int OpenDescriptors();
int Threads();  // 0 where nobody counts

// Whether the process has children, also such as have ended and were not reaped.
bool HasChildren();

// The memory of a process. 0 where nobody counts, and under a sanitizer, which keeps what is released.
long ResidentBytes(pid_t process);

// The same of children other than this one; false where nobody tells.
bool HasChildrenBeside(pid_t child);

// Memory that is the process's own, without what the allocator only keeps. 0 where nobody counts, and under a
// sanitizer, which keeps what is released.
long OwnBytes();

// Whether the broken-pipe signal would end the process, and of each signal whether the thread blocks it and it waits.
std::vector<bool> SignalState();

// Descriptors, signals, locale, floating-point control, working directory and file-creation mask, in words.
std::string ProcessState();
