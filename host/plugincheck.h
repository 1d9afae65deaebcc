#pragma once

#include <string>

#include "problem.h"
#include "xconfigoptions.h"

// Why an engine's plug-in library cannot be used, found step by step. Each step answers what it found, or throws the
// Problem. The options' environment variables have to be in place already (making the engine does that).
namespace plugincheck {

// Whether the engine takes its library name and home from the Java preferences.
bool UsesPreferences(const XConfigOptions& options);

// The file of the Java preferences.
std::string PreferencesPath();

// REQUIRES: an engine that uses preferences.
void RequireJava(XConfigOptions& options);

std::string LibraryName(XConfigOptions& options);
std::string LibraryFile(XConfigOptions& options, const std::string& libraryName);
void RequireEntryPoints(const XConfigOptions& options, const std::string& libraryFile);

// The program that a plug-in library has in a process of its own, and the library's file there: for R it is the same,
// for others startx takes its name from the section of the configuration first.
void RequireProgram();
std::string ProcessLibraryFile(XConfigOptions& options);

// What is wrong when the system could not execute it all the same.
Problem NotAProgram();

// All steps of the library, for the first that fails.
void RequireUsable(XConfigOptions& options);

}  // namespace plugincheck
