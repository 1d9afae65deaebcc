#include "plugin.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "vexadx_codes.h"

namespace {

std::atomic<void (*)()> gInterrupt{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

vexadx::HostCallback gHostCallback = [] {
  vexadx::HostCallback callback{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), callback.tag);
  callback.size = sizeof callback;
  callback.setInterrupt = [](void (*interrupt)()) { gInterrupt = interrupt; };
  return callback;
}();

template <typename Entry>
int codeOf(Entry entry) {
  try {
    return entry();
  } catch (...) {
    return vexadx::kFailed;
  }
}

}  // namespace

template <typename Function>
bool Plugin::resolve(const char* name, Function& function) {
  void* const address = m_library->GetSymbolAddress(name);
  if (address) std::memcpy(&function, &address, sizeof function);
  return address != nullptr;
}

bool Plugin::load(const std::string& libraryFile) {
  m_library.emplace(libraryFile, 0);
  const bool complete = m_library->LoadLibraryNow() == 0 && resolve("init_embedded_x", m_init) &&
                        resolve("execute_x", m_execute) && resolve("stop_embedded_x", m_stop) &&
                        resolve("pre_action", m_preAction) && resolve("post_action", m_postAction);
  if (!complete) (void)std::fprintf(stderr, "startx: %s\n", m_library->GetErrorString().c_str());
  return complete;
}

int Plugin::Start(const std::string& libraryFile, int argc, char** argv) {
  if (!load(libraryFile)) return vexadx::kLibraryNotLoaded;
  void (*setupCallback)(void* callback) = nullptr;
  return codeOf([&] {
    if (resolve("setup_dxcallback", setupCallback)) setupCallback(&gHostCallback);
    return m_init(argc, argv);
  });
}

int Plugin::Execute(char* text) {
  return codeOf([&] { return m_execute(text); });
}

int Plugin::call(int (*entry)()) { return entry ? codeOf(entry) : vexadx::kLibraryNotLoaded; }

void Plugin::Interrupt() {
  if (void (*const interrupt)() = gInterrupt) interrupt();
}
