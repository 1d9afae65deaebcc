#include <gtest/gtest.h>
#include <jni.h>
#include <signal.h>

#include <array>
#include <barrier>
#include <clocale>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "temphome.h"
#include "vexajvm.h"
#include "xconfigoptions.h"

namespace fs = std::filesystem;

namespace {

// A host home, in an environment that offers no Java runtime besides the home's own.
class JavaPreferences : public testing::Test {
 protected:
  JavaPreferences() {
    fs::create_directory(home.Path("empty"));
    ::setenv("JAVA_HOME", home.Path("empty").c_str(), 1);
    ::setenv("PATH", home.Path("empty").c_str(), 1);
    ::unsetenv("JAVA_TOOL_OPTIONS");
  }

  // Makes the home's Java runtime one that looks whole but has no machine library yet. Answers that library's path.
  std::string ReplaceRuntime() const {
    home.Remove("JRE");
    home.Write("JRE/lib/modules", "no class files");
    fs::create_directory(home.Path("JRE/lib/server"));
    return std::string("JRE/lib/server/") + kMachineLibrary;
  }

  // Asks for the home directory of R; both output streams stay empty meanwhile.
  static std::string AskQuietly() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::string answer = XConfigOptions("R").GetXHome();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    return answer;
  }

#ifdef __APPLE__
  static constexpr const char* kMachineLibrary = "libjvm.dylib";
#else
  static constexpr const char* kMachineLibrary = "libjvm.so";
#endif

  const fs::path runtime = fs::path(VEXADX_STAGED_HOME) / "JRE";
  TempHome home;
};

bool isAttached() {
  VexaJVM& jvm = *VexaJVM::GetInstance();
  JNIEnv* env = jvm.AttachCurrentThread();
  JavaVM* vm = nullptr;
  EXPECT_EQ(JNI_OK, env->GetJavaVM(&vm));
  jvm.DetachCurrentThread();
  void* current = nullptr;
  return vm->GetEnv(&current, JNI_VERSION_1_8) == JNI_OK;
}

void handler(int) {}

}  // namespace

TEST_F(JavaPreferences, AreReadAtEveryCall) {
  home.Prefer(
      "R.libName=vexar\nR.home=/opt/r \nR.packagePath=/opt/r/site\nR.libPath=/opt/lib\n"
      "PYTHON.libName=two\nPYTHON3.libName=three\nPYTHON3.home=/opt/py3\nPYTHON3.libPath=/not/asked\n");
  XConfigOptions r("R");
  EXPECT_EQ("vexar", r.GetXLibName());
  EXPECT_EQ("/opt/r", r.GetXHome());
  EXPECT_EQ("/opt/r/site", r.GetXPkgPath());
  EXPECT_EQ("/opt/lib", r.GetXLibPath());

  XConfigOptions python3("PYTHON3");
  python3.PutOption("LIB_NAME", "of the file");
  python3.PutOption("LIB_PATH", "of the file");
  EXPECT_EQ("three", python3.GetXLibName());
  EXPECT_EQ("/opt/py3", python3.GetXHome());
  EXPECT_EQ("", python3.GetXLibPath());
  EXPECT_EQ("", python3.GetXPkgPath());

  home.Prefer("PYTHON3.libName=changed\n");
  EXPECT_EQ("changed", python3.GetXLibName());
  EXPECT_EQ("", python3.GetXHome());
  home.Remove("bin/vexaprefs.properties");
  EXPECT_EQ("", python3.GetXLibName());

  XConfigOptions other("JAVAEXTENSION");
  other.PutOption("HOME", "of the file");
  EXPECT_EQ("of the file", other.GetXHome());
}

TEST_F(JavaPreferences, CarryEveryCharacterBothWays) {
  const struct {
    const char* xName;
    const char* line;  // of the preferences
    const char* want;
  } kRows[] = {
      {"PYTHON_Ä€\U0001D11E", "PYTHON_Ä€\U0001D11E.home=/opt/Ä€\U0001D11E/x", "/opt/Ä€\U0001D11E/x"},
      {"PYTHON", "PYTHON.home=a\\ud834\\udd1ez", "a\U0001D11Ez"},
      {"PYTHON", "PYTHON.home=a\\u0000z", nullptr},
      {"PYTHON", "PYTHON.home=\\ud834z", "\uFFFDz"},
      {"PYTHON\xFFZ", "PYTHON\uFFFDZ.home=odd byte", "odd byte"},
      {"PYTHON\xC0\xAF", "PYTHON\uFFFD.home=overlong", "overlong"},
  };
  for (const auto& row : kRows) {
    home.Prefer(row.line);
    const std::string want = row.want ? row.want : std::string("a\0z", 3);
    EXPECT_EQ(want, XConfigOptions(row.xName).GetXHome()) << row.line;
  }
}

TEST_F(JavaPreferences, AreEmptyWhereTheJavaSideGoesWrong) {
  fs::remove(home.Path("bin/vexaprefs.jar"));
  fs::create_symlink(VEXADX_WRONG_PREFERENCES, home.Path("bin/vexaprefs.jar"));
  home.Prefer("R.libName=a\nR.home=a\nR.packagePath=a\nPYTHON.home=a\n");
  for (int i = 0; i < 2; ++i) {
    XConfigOptions r("R");
    EXPECT_EQ("", r.GetXLibName());                      // throws
    EXPECT_EQ("", r.GetXHome());                         // null
    EXPECT_EQ("", r.GetXPkgPath());                      // no such method
    EXPECT_EQ("", XConfigOptions("PYTHON").GetXHome());  // no such class
    EXPECT_EQ("/works", r.GetXLibPath());
  }
}

TEST_F(JavaPreferences, AreEmptyWithoutARuntimeUntilThereIsOne) {
  home.Prefer("R.home=a\n");
  home.Remove("JRE");
  EXPECT_EQ("", AskQuietly());
  EXPECT_FALSE(VexaJVM::GetInstance()->IsStarted());
  EXPECT_EQ(nullptr, VexaJVM::GetInstance()->AttachCurrentThread());
  VexaJVM::GetInstance()->DetachCurrentThread();

  fs::create_symlink(runtime, home.Path("JRE"));
  EXPECT_EQ("a", AskQuietly());
}

TEST_F(JavaPreferences, PassOverARuntimeThatCannotBeOpened) {
  home.Prefer("R.home=a\n");
  home.Write(ReplaceRuntime(), "no library");
  ::setenv("JAVA_HOME", runtime.c_str(), 1);
  EXPECT_EQ("a", AskQuietly());
}

// A machine that cannot start ends the process, unless it is kept from it.
TEST_F(JavaPreferences, AreEmptyWithARuntimeThatFailsHalfWay) {
  home.Prefer("R.home=a\n");
  fs::copy_file(runtime / "lib/server" / kMachineLibrary, home.Path(ReplaceRuntime()));
  for (const fs::directory_entry& entry : fs::directory_iterator(runtime / "lib")) {
    const fs::path link = home.Path("JRE/lib") / entry.path().filename();
    if (!fs::exists(link)) fs::create_symlink(entry.path(), link);
  }
  for (int i = 0; i < 2; ++i) EXPECT_EQ("", AskQuietly());
  EXPECT_FALSE(VexaJVM::GetInstance()->IsStarted());
}

TEST_F(JavaPreferences, LeaveTheHostsStateAlone) {
  constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGCHLD, SIGQUIT};
  struct sigaction own {};
  own.sa_flags = SA_RESTART;
  sigaddset(&own.sa_mask, SIGALRM);
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    own.sa_handler = i % 3 == 0 ? &handler : i % 3 == 1 ? SIG_IGN : SIG_DFL;
    ASSERT_EQ(0, ::sigaction(kSignals[i], &own, nullptr));
  }
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGUSR2);
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, &mask, nullptr));
  // The machine takes the environment's locale for the whole process.
  ::setenv("LC_ALL", "C.UTF-8", 1);
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) std::setlocale(LC_ALL, "C");
  const std::string locale = std::setlocale(LC_ALL, nullptr);
  DxTracer tracer;
  tracer.open(home.Path("trace").string());
  SetDxTracer(&tracer);

  home.Prefer("R.home=a\n");
  EXPECT_EQ("a", XConfigOptions("R").GetXHome());
  SetDxTracer(nullptr);

  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction now {};
    ::sigaction(kSignals[i], nullptr, &now);
    EXPECT_EQ(i % 3 == 0 ? &handler : i % 3 == 1 ? SIG_IGN : SIG_DFL, now.sa_handler) << kSignals[i];
    EXPECT_EQ(SA_RESTART, now.sa_flags & SA_RESTART) << kSignals[i];
    EXPECT_EQ(1, sigismember(&now.sa_mask, SIGALRM)) << kSignals[i];
  }
  sigset_t maskNow;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &maskNow);
  for (int signal = 1; signal < NSIG; ++signal) {
    EXPECT_EQ(sigismember(&mask, signal), sigismember(&maskNow, signal)) << signal;
  }
  EXPECT_EQ(locale, std::setlocale(LC_ALL, nullptr));
#ifdef __GLIBC__
  // Every one of them was changed, or this would show nothing.
  EXPECT_EQ(
      std::vector<std::string>{
          "HostStateGuard put back what the start of the Java machine changed: SIGUSR2, SIGPIPE, SIGXFSZ, locale"},
      TraceTexts(home.Path("trace")));
#endif
}

TEST_F(JavaPreferences, LeaveTheThreadAttachedOrNot) {
  home.Prefer("R.home=a\n");
  VexaJVM& jvm = *VexaJVM::GetInstance();
  EXPECT_EQ("a", XConfigOptions("R").GetXHome());
  EXPECT_FALSE(isAttached());

  JNIEnv* env = jvm.AttachCurrentThread();
  ASSERT_NE(nullptr, env);
  EXPECT_EQ("a", XConfigOptions("R").GetXHome());
  EXPECT_TRUE(isAttached());
  EXPECT_EQ(env, jvm.AttachCurrentThread());
  jvm.DetachCurrentThread();
  EXPECT_TRUE(isAttached());
  jvm.DetachCurrentThread();
  EXPECT_FALSE(isAttached());
  jvm.DetachCurrentThread();  // nothing to undo

  // A thread that the host attached itself is the host's to detach.
  JavaVM* vm = nullptr;
  jvm.AttachCurrentThread()->GetJavaVM(&vm);
  jvm.DetachCurrentThread();
  void* own = nullptr;
  ASSERT_EQ(JNI_OK, vm->AttachCurrentThread(&own, nullptr));
  EXPECT_EQ("a", XConfigOptions("R").GetXHome());
  EXPECT_TRUE(isAttached());
  EXPECT_EQ(JNI_OK, vm->DetachCurrentThread());
  EXPECT_FALSE(isAttached());
}

TEST_F(JavaPreferences, CanBeAskedFirstByTwoThreadsAtOnce) {
  home.Prefer("R.home=a\nPYTHON.home=b\n");
  std::barrier ready(2);
  const auto ask = [&](const char* xName) {
    ready.arrive_and_wait();
    return XConfigOptions(xName).GetXHome();
  };
  std::future<std::string> r = std::async(std::launch::async, ask, "R");
  std::future<std::string> python = std::async(std::launch::async, ask, "PYTHON");
  EXPECT_EQ("a", r.get());
  EXPECT_EQ("b", python.get());
}
