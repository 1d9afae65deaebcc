#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vexadx_export.h"

// Small helpers shared by the library and its hosts. None keeps state except the expansion hook; any thread may call
// them.

// Splits at every exact occurrence of the delimiter. Pieces may be empty and are not trimmed; nothing follows a
// trailing delimiter, and an empty text gives no pieces. REQUIRES: a delimiter that is not empty (one that is empty
// splits nothing).
VEXADX_API std::vector<std::string> GetListFromDelims(const std::string& text, const std::string& delimiter);

// Makes a directory path end in "/"; an empty path stays empty.
VEXADX_API void DecoratePathEnd(std::string& path);

// Compares at most n characters without regard to case, by the process's locale. Negative, 0 or positive as `a` sorts
// before, with or after `b`; characters from 0x80 upwards sort before all others.
VEXADX_API int strincmp(const char* a, const char* b, std::size_t n);

// The text with every character upper-cased by the process's locale.
VEXADX_API std::string UpperString(const std::string& text);

// Suspends the calling thread. A signal ends the sleep early. The largest 32-bit value sleeps until a signal comes.
VEXADX_API void msleep(std::uint32_t milliseconds);

// The text without its leading and trailing blanks (0x20 only, tabs stay).
VEXADX_API std::string trimSpace(std::string text);

// The host's own expansion of environment references in configuration values: writes the expanded input to the
// output (both may be the same string) and answers whether it did.
using ExpandEnvStrHook = bool (*)(const std::string& input, std::string& output);

// Sets the hook, before any configuration is read; null removes it.
VEXADX_API void SetExpandEnvStr(ExpandEnvStrHook hook);

// Passes both strings to the hook and answers its result; without a hook the output becomes a copy of the input and
// the answer is false.
VEXADX_API bool ExpandEnvStr(const std::string& input, std::string& output);
