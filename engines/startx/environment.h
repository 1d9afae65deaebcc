#pragma once

// What a host leaves to its X process and a language cannot be started with.

// Takes default signal dispositions and an empty mask, a process group of its own, and standard input from nowhere: the
// terminal and its Ctrl-C are the host's.
void StandAlone();

// Makes the environment say one thing: of a name that is given twice the first counts, as a program would see it that
// looks from the beginning, and a search path has no empty element, which would be the current directory.
void ClearEnvironment();
