#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <span>

#include "boundary.h"
#include "host.h"
#include "language.h"
#include "output.h"
#include "vexadx_export.h"
#include "vexadx_plugin.h"

namespace {

constexpr int kFailed = 1;

std::atomic<bool> gStarted{false};
std::mutex gStarting;  // held while the language is started or brought to rest. Outer to the language's own locks
std::atomic<plugin::ErrorFunction> gErrors{nullptr};
std::atomic<bool> gIsProcessOfLanguage{false};

// The forks that led to this process since the library was loaded. To ask for the process's number instead costs more
// than a short block has to spare.
std::atomic<unsigned> gForks{0};
[[maybe_unused]] const int kAreForksCounted = ::pthread_atfork(nullptr, nullptr, [] { ++gForks; });

int start(std::span<char* const> arguments) {
  if (plugin::IsInBlockHere()) return kFailed;  // another thread may hold the lock and wait for the block
  const std::lock_guard guard(gStarting);
  if (!plugin::Start(arguments)) return kFailed;  // what was started before goes on
  gStarted = true;
  return 0;
}

int stop() {
  if (plugin::IsInBlockHere()) return kFailed;
  const std::lock_guard guard(gStarting);
  if (gStarted.exchange(false)) plugin::Rest();
  return 0;
}

// An older host has a table that ends earlier, a newer one a longer one.
template <typename Member>
bool has(const vexadx::HostCallback& host, const Member& member) {
  const auto* const begin = reinterpret_cast<const char*>(&host);
  return reinterpret_cast<const char*>(&member + 1) - begin <= static_cast<std::ptrdiff_t>(host.size);
}

void meetHost(const vexadx::HostCallback* host) {
  if (!host || std::memcmp(host->tag, vexadx::kHostCallbackTag, sizeof host->tag) != 0) return;
  if (has(*host, host->noteError)) gErrors = host->noteError;
  if (has(*host, host->isProcessOfLanguage)) gIsProcessOfLanguage = host->isProcessOfLanguage;
  if (!has(*host, host->setInterrupt) || !host->setInterrupt) return;
  plugin::ExpectInterrupts();
  host->setInterrupt(&plugin::InterruptBlocks);
}

}  // namespace

plugin::ErrorFunction plugin::HostErrors() { return gErrors; }

bool plugin::IsProcessOfLanguage() { return gIsProcessOfLanguage; }

extern "C" {

VEXADX_API void setup_dxcallback(void* callback) {
  (void)plugin::Contained(kFailed, [&] {
    meetHost(static_cast<const vexadx::HostCallback*>(callback));
    return 0;
  });
}

VEXADX_API int init_embedded_x(int argc, char** argv) {
  const std::span<char* const> arguments(argv, argv ? static_cast<std::size_t>(std::max(argc, 0)) : 0);
  return plugin::Contained(kFailed, [&] { return start(arguments); });
}

VEXADX_API int execute_x(char* syntax) {
  if (!gStarted || !syntax) return kFailed;
  const unsigned forks = gForks;
  const int code = plugin::Contained(kFailed, [&] { return plugin::RunBlock(syntax); });
  // A process that the block has forked ends with it, for the host's work is the parent's. What the host has not yet
  // written is the parent's too, so nothing is flushed.
  if (gForks != forks && !plugin::IsProcessOfLanguage()) ::_exit(code);
  return code;
}

VEXADX_API int stop_embedded_x() { return plugin::Contained(kFailed, stop); }

VEXADX_API void set_post_vexa_output(int (*output)(const char* text, int length)) { plugin::SetOutputFunction(output); }

VEXADX_API int pre_action() { return 0; }

VEXADX_API int post_action() { return 0; }

}  // extern "C"
