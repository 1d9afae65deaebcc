#pragma once

#include <string>

// Does nothing while a pointer that never is set is null.
__attribute__((visibility("default"))) void testPointer(const std::string& text);
