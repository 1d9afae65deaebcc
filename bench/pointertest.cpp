#include "pointertest.h"

#include <atomic>

namespace {

std::atomic<std::string*> gTarget{nullptr};

}  // namespace

void testPointer(const std::string& text) {
  if (std::string* target = gTarget) *target = text;
}
