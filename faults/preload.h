#pragma once

// What a program that is preloaded with the library asks of it, by names that it looks up with dlsym.
extern "C" {

// From here on a call fails as the text says, in the words of VEXADX_FAIL, instead of what was to fail before. 0, or -1
// for a text that says nothing of the kind.
int faultpreload_arm(const char* failure);

// No call fails any more. Answers 1 when the one that was to fail was made, in a child that was to fail as well.
int faultpreload_disarm();

// The blocks of memory that the process has allocated since the library was loaded, and not released.
long faultpreload_blocks();

// Sets the system's clock by so many seconds, as far as this process can tell.
void faultpreload_step_clock(long seconds);
}
