#pragma once

#include "commandline.h"
#include "report.h"

// The commands. Each answers the exit status, or throws the Problem that ended it.
int Run(const CommandLine& commandLine, Report& report);
int Engines(Report& report);
int Doctor(const CommandLine& commandLine, Report& report);
int Certify(const CommandLine& commandLine, Report& report);
