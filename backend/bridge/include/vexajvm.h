#pragma once

#include <jni.h>

#include <mutex>

// The Java virtual machine of the process. At most one is ever started and it lives as long as the process. Any thread
// may call; a call waits while another thread is starting the machine.
class __attribute__((visibility("default"))) VexaJVM {
 public:
  static VexaJVM* GetInstance();

  // Whether a machine runs, started here or by anybody else in the process.
  bool IsStarted();

  // Opens a Java runtime and starts a machine that leaves the host's signals alone, with bin/vexaprefs.jar of the home
  // as its class path and the home as the system property vexa.home. The home is VEXA_HOME, or the directory above this
  // library's own when that is not set. The runtime is the first one that can be opened of JRE under the home,
  // JAVA_HOME and those whose `java` is found in PATH; once one has been opened the process stays with it.
  //
  // False when there is no runtime or it does not start; the next call tries again, unless the machine was given up
  // half way, which it never recovers from. A start that fails prints nothing of its own accord and never ends the
  // process.
  bool StartJVM();

  // The JNI environment of the calling thread, null when no machine runs or the thread cannot be attached. The thread
  // is a daemon to the machine, and a thread that ends attached is detached.
  JNIEnv* AttachCurrentThread();

  // Undoes the thread's last AttachCurrentThread that succeeded: a thread that was attached before it stays attached.
  void DetachCurrentThread();

 private:
  VexaJVM() = default;
  JavaVM* Machine();
  JavaVM* MachineLocked();

  std::mutex m_guard;  // held while a machine is looked for or started; guards m_vm
  JavaVM* m_vm = nullptr;
};
