#include "vexajvm.h"

#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

#ifdef __APPLE__
constexpr const char* kMachineLibrary = "libjvm.dylib";
#else
constexpr const char* kMachineLibrary = "libjvm.so";
#endif

using CreateJavaVM = decltype(&JNI_CreateJavaVM);
using GetCreatedJavaVMs = decltype(&JNI_GetCreatedJavaVMs);

std::string environmentVariable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

fs::path directoryAboveThisLibrary() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<const void*>(&directoryAboveThisLibrary), &info) == 0) return {};
  std::error_code ignored;
  return fs::canonical(info.dli_fname, ignored).parent_path().parent_path();
}

fs::path vexaHome() {
  const std::string home = environmentVariable("VEXA_HOME");
  return home.empty() ? directoryAboveThisLibrary() : fs::path(home);
}

// The runtimes that the system offers, in the order of PATH.
void addSystemRuntimes(std::vector<fs::path>& runtimes) {
  std::istringstream directories(environmentVariable("PATH"));
  for (std::string directory; std::getline(directories, directory, ':');) {
    std::error_code missing;
    const fs::path java = fs::canonical(fs::path(directory) / "java", missing);
    if (!missing) runtimes.push_back(java.parent_path().parent_path());
  }
#ifdef __APPLE__
  // The java in PATH is the system's stand-in there, which only asks for this directory's contents.
  std::error_code missing;
  for (const fs::directory_entry& entry : fs::directory_iterator("/Library/Java/JavaVirtualMachines", missing)) {
    runtimes.push_back(entry.path() / "Contents/Home");
  }
#endif
}

std::vector<fs::path> runtimesInOrder() {
  std::vector<fs::path> runtimes{vexaHome() / "JRE"};
  const std::string javaHome = environmentVariable("JAVA_HOME");
  if (!javaHome.empty()) runtimes.emplace_back(javaHome);
  addSystemRuntimes(runtimes);
  return runtimes;
}

// The machine's library, if some part of the process has loaded it; the handle counts as one more load.
void* loadedMachineLibrary() { return ::dlopen(kMachineLibrary, RTLD_LAZY | RTLD_NOLOAD); }

// A machine that finds its runtime's class files missing ends the process before it can be asked not to, so it is not
// even opened.
bool hasClassFiles(const fs::path& machineLibrary) {
  std::error_code missing;
  return fs::exists(fs::canonical(machineLibrary, missing).parent_path().parent_path() / "modules", missing);
}

// A library that is loaded already comes before every other: the libraries of a second runtime would find the first
// one's machine under its name.
void* openMachineLibrary() {
  if (void* loaded = loadedMachineLibrary()) return loaded;
  for (const fs::path& runtime : runtimesInOrder()) {
    const fs::path path = runtime / "lib/server" / kMachineLibrary;
    if (!hasClassFiles(path)) continue;
    if (void* library = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL)) return library;
  }
  return nullptr;
}

// Null while no machine runs in the process.
JavaVM* runningMachine() {
  const std::unique_ptr<void, int (*)(void*)> library(loadedMachineLibrary(), &::dlclose);
  if (!library) return nullptr;
  const auto created = reinterpret_cast<GetCreatedJavaVMs>(::dlsym(library.get(), "JNI_GetCreatedJavaVMs"));
  JavaVM* vm = nullptr;
  jsize count = 0;
  if (!created || created(&vm, 1, &count) != JNI_OK || count == 0) return nullptr;
  return vm;
}

// The start under way, null when there is none. Whoever takes it out answers it.
std::atomic<std::promise<JavaVM*>*> gStart{nullptr};

// A machine was given up half way; it occupies the process, and what it says of itself is not to be trusted.
std::atomic<bool> gGivenUp{false};

void answerStart(JavaVM* vm) {
  const std::unique_ptr<std::promise<JavaVM*>> start(gStart.exchange(nullptr));
  if (start) start->set_value(vm);
}

// The machine's "abort" hook. A machine that fails late in its start ends the process as soon as this returns, so it
// does not return: the thread, which belongs to the machine or to its start, waits for the end of the process.
void JNICALL onAbort() {
  if (!gStart.load()) return;
  gGivenUp = true;
  answerStart(nullptr);
  for (;;) ::pause();
}

// The machine's "vfprintf" hook: the reasons of a failed start are not the host's output.
jint JNICALL onPrint(FILE* stream, const char* format, va_list arguments) {
  return gStart.load() ? 0 : std::vfprintf(stream, format, arguments);
}

// Refers to the text.
JavaVMOption option(const char* text, void* extra = nullptr) {
  JavaVMOption result{};
  result.optionString = const_cast<char*>(text);  // only read, however it is declared
  result.extraInfo = extra;
  return result;
}

// Runs on a thread of its own and answers the start.
void createMachine(CreateJavaVM create, const std::string& home) {
  const std::string classPath = "-Djava.class.path=" + home + "/bin/vexaprefs.jar";
  const std::string homeProperty = "-Dvexa.home=" + home;
  std::array options{
      option("abort", reinterpret_cast<void*>(&onAbort)),
      option("vfprintf", reinterpret_cast<void*>(&onPrint)),
      option("-Xrs"),
      // Without signals the machine would wait for tools at once, at a socket file that outlives a host that is killed.
      option("-XX:+DisableAttachMechanism"),
      option("-Xlog:disable"),     // warnings of the machine would go to the host's standard output
      option("-XX:-UsePerfData"),  // its file would outlive a host that is killed
      option(classPath.c_str()),
      option(homeProperty.c_str()),
  };
  JavaVMInitArgs arguments{};
  arguments.version = JNI_VERSION_1_8;
  arguments.nOptions = static_cast<jint>(options.size());
  arguments.options = options.data();
  arguments.ignoreUnrecognized = JNI_TRUE;

  JavaVM* vm = nullptr;
  void* env = nullptr;
  if (create(&vm, &env, &arguments) != JNI_OK) vm = nullptr;
  if (vm) vm->DetachCurrentThread();
  answerStart(vm);
}

// Blocks all signals but the synchronous ones in the calling thread, so that a thread made meanwhile, and all threads
// that it makes, leave the host's signals to the host's threads.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&blocked, fault);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &m_before);
  }
  ~BlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t m_before;
};

// Null when the machine does not start. A thread of its own takes the start, because a failing machine may keep it.
JavaVM* startMachine(CreateJavaVM create) {
  auto start = std::make_unique<std::promise<JavaVM*>>();
  std::future<JavaVM*> answer = start->get_future();
  gStart = start.release();
  std::thread starter;
  try {
    const BlockedSignals blocked;
    starter = std::thread(createMachine, create, vexaHome().string());
  } catch (const std::system_error&) {  // no thread to be had
    answerStart(nullptr);
    return nullptr;
  }
  JavaVM* vm = answer.get();
  if (gGivenUp) {
    starter.detach();
  } else {
    starter.join();
  }
  return vm;
}

// The calling thread's AttachCurrentThread calls that have not been undone.
class ThreadAttachments {
 public:
  ThreadAttachments() = default;
  ~ThreadAttachments() {
    if (m_attachedAt != 0) m_vm->DetachCurrentThread();
  }
  ThreadAttachments(const ThreadAttachments&) = delete;
  ThreadAttachments& operator=(const ThreadAttachments&) = delete;

  JNIEnv* Add(JavaVM* vm) {
    void* env = nullptr;
    if (vm->GetEnv(&env, JNI_VERSION_1_8) != JNI_OK) {
      if (vm->AttachCurrentThreadAsDaemon(&env, nullptr) != JNI_OK) return nullptr;
      m_vm = vm;
      m_attachedAt = m_depth + 1;
    }
    ++m_depth;
    return static_cast<JNIEnv*>(env);
  }

  void RemoveLast() {
    if (m_depth == 0) return;
    if (m_depth == m_attachedAt) {
      m_vm->DetachCurrentThread();
      m_attachedAt = 0;
    }
    --m_depth;
  }

 private:
  JavaVM* m_vm = nullptr;
  int m_depth = 0;
  int m_attachedAt = 0;  // the depth whose call really attached the thread, 0 when none did
};

thread_local ThreadAttachments tAttachments;

}  // namespace

VexaJVM* VexaJVM::GetInstance() {
  static VexaJVM instance;
  return &instance;
}

JavaVM* VexaJVM::MachineLocked() {
  if (!m_vm && !gGivenUp) m_vm = runningMachine();
  return m_vm;
}

JavaVM* VexaJVM::Machine() {
  const std::lock_guard guard(m_guard);
  return MachineLocked();
}

bool VexaJVM::IsStarted() { return Machine() != nullptr; }

bool VexaJVM::StartJVM() {
  const std::lock_guard guard(m_guard);
  if (MachineLocked()) return true;
  if (gGivenUp) return false;
  void* library = openMachineLibrary();
  if (!library) return false;
  const auto create = reinterpret_cast<CreateJavaVM>(::dlsym(library, "JNI_CreateJavaVM"));
  if (!create) return false;
  m_vm = startMachine(create);
  return MachineLocked() != nullptr;  // another part of the process may have been quicker
}

JNIEnv* VexaJVM::AttachCurrentThread() {
  JavaVM* vm = Machine();
  return vm ? tAttachments.Add(vm) : nullptr;
}

void VexaJVM::DetachCurrentThread() { tAttachments.RemoveLast(); }
