#pragma once

#include "xconfigoptions.h"

// Puts what the preferences say about a language's runtime where it looks for it, into the environment: the directory
// of R's packages and, for a runtime inside this process, its home. The engine of a process of its own gets its home
// from the library. Before the engine is made, whose section has the last word.
void TakeRuntimePaths(XConfigOptions& options, bool isInThisProcess);
