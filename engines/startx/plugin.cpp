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

// Of the block that runs on this thread; null while none does.
thread_local std::vector<std::string>* tError = nullptr;

void noteError(const char* type, const char* message, const char* traceback, int line) {
  if (tError) *tError = {type, message, traceback, std::to_string(line)};
}

vexadx::HostCallback gHostCallback = [] {
  vexadx::HostCallback callback{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), callback.tag);
  callback.size = sizeof callback;
  callback.setInterrupt = [](void (*interrupt)()) { gInterrupt = interrupt; };
  callback.noteError = &noteError;
  callback.isProcessOfLanguage = true;
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

int Plugin::Execute(char* text, std::vector<std::string>& error) {
  tError = &error;
  const int code = codeOf([&] { return m_execute(text); });
  tError = nullptr;
  return code;
}

int Plugin::call(int (*entry)()) { return entry ? codeOf(entry) : vexadx::kLibraryNotLoaded; }

void Plugin::Interrupt() {
  if (void (*const interrupt)() = gInterrupt) interrupt();
}
