#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifdef __APPLE__
#include <crt_externs.h>
#define environ (*_NSGetEnviron())
#else
#include <unistd.h>
#endif

#include "childprocess.h"
#include "dxglobals.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "outpstatisticsx.h"
#include "temphome.h"
#include "xpipemanager.h"

namespace fs = std::filesystem;

namespace {

using Texts = std::vector<std::string>;

const std::string kHome = "/opt/app";
const std::string kPipes = "/tmp/no such pipes/";  // nobody comes so far as to make one

// Is the whole environment of this process, entry by entry as written, for a scope.
class Environment {
 public:
  explicit Environment(Texts entries) : m_entries(std::move(entries)), m_before(environ) {
    for (std::string& entry : m_entries) m_pointers.push_back(entry.data());
    m_pointers.push_back(nullptr);
    environ = m_pointers.data();
  }
  ~Environment() { environ = m_before; }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  Texts m_entries;
  std::vector<char*> m_pointers;
  char** const m_before;
};

// What a process was started with, as the tests' program in its place reports it.
struct Report {
  Texts arguments;
  Texts environment;
};

Report ReadReport(const fs::path& path) {
  std::istringstream stream(ReadFile(path));
  Texts texts;
  for (std::string text; std::getline(stream, text, '\0');) texts.push_back(text);
  if (texts.empty()) return {};
  const auto environment = std::next(texts.begin(), 1 + std::stoi(texts[0]));
  return {{std::next(texts.begin()), environment}, {environment, texts.end()}};
}

struct Engine {
  std::string xName;
  std::string home;  // from the Java preferences or, for an X that has none, of the section
  Texts section;     // NAME=value
};

void Fill(XConfigOptions& options, const Engine& engine) {
  if (options.XName() != "R" && options.XName().find("PYTHON") == std::string::npos) {
    options.PutOption(XConfigOptions::KEY_HOME, engine.home);
  }
  for (const std::string& entry : engine.section) {
    const std::size_t equals = entry.find('=');
    options.PutOption(entry.substr(0, equals), entry.substr(equals + 1));
  }
}

Texts EnvironmentOf(OutpStatisticsX& engine) {
  XCmdArgument list;
  engine.pushEnv(list);
  Texts texts;
  for (int i = 0; i < list.argc(); ++i) texts.emplace_back(list.argv()[i]);
  return texts;
}

// An X's process in a home of its own. The Java machine answers preferences from the home that it was started in.
class XProcess : public testing::Test {
 protected:
  XProcess() {
    (void)XConfigOptions("R").GetXHome();
    SetXPipeManager(&m_manager);
  }
  ~XProcess() override {
    SetXPipeManager(nullptr);
    SetavaExtSocket(nullptr);
    JavaExtensionSmb().CleanUp();
  }

  void Prefer(const Engine& engine) const { m_home.Prefer(engine.xName + ".home=" + engine.home + '\n'); }

  // The environment that a process gets from a host which has this one.
  Texts EnvironmentFor(const Engine& engine, const Texts& host) const {
    XConfigOptions options(engine.xName);
    Prefer(engine);
    Fill(options, engine);
    const Environment environment(host);
    OutpStatisticsX started(&options, 1, true);
    return EnvironmentOf(started);
  }

  // The report of a process that is really started, and found gone. Its environment is the one that was formed for it.
  // Of one that the system refuses to start there is none.
  Report Start(const Engine& engine, int mode, const std::string& program, int gone, Texts host = {},
               bool isRefused = false) {
    PutReporterAt(program);
    ::signal(SIGCHLD, SIG_IGN);  // an ended process is gone at once
    XConfigOptions options(engine.xName);
    Prefer(engine);
    Fill(options, engine);
    OutpStatisticsX started(&options, mode, true);
    m_manager.getPipeSuit(engine.xName)->increaseIndex();
    host.push_back("PROCESS_REPORT=" + m_home.Path("report").string());
    const Environment environment(host);
    EXPECT_EQ(gone, gone == kNoX ? started.stat_start_x() : started.stat_start_java());
    Report report = ReadReport(m_home.Path("report"));
    EXPECT_EQ(isRefused ? Texts{} : EnvironmentOf(started), report.environment);
    m_manager.getPipeSuit(engine.xName)->decreaseIndex();
    m_home.Remove("report");
    return report;
  }

  static constexpr int kNoX = 99107;
  static constexpr int kNoJava = 99123;

  TempHome m_home;
  XPipeManager m_manager{kPipes, "4711"};

 private:
  void PutReporterAt(const std::string& program) const {
    if (program.starts_with("JRE") && fs::is_symlink(m_home.Path("JRE"))) m_home.Remove("JRE");
    fs::create_directories(m_home.Path(program).parent_path());
    m_home.Remove(program);
    fs::create_symlink(VEXADX_REPORT_PROCESS, m_home.Path(program));
  }
};

Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

const Texts kHomeAndPipes{"VEXA_HOME=" + kHome, "VEXADXTEMP=" + kPipes};
const std::string kTwo = "Python/lib/python2.7/site-packages";
const std::string kThree = "Python3/lib/python3.8/site-packages";

// What a PYTHON has between the pipe directory and the host's entries.
Texts Python(const std::string& directories, const Texts& others) {
  return Texts{"PYTHONHOME=/opt/py", "PYTHONPATH=/opt/app/../../Resources/" + directories} + others;
}

Texts Linked(const std::string& host, const std::string& port, const std::string& client = "0") {
  return {"BACKEND_PYTHON_SCRIPT=True", "CPRLMX_HOST=" + host, "CPRLMX_PORT=" + port, "JAVA_CLIENT_PORT=" + client};
}

const Texts kUnlinked = Linked("127.0.0.1", "0");

}  // namespace

TEST_F(XProcess, EnvironmentOfRAndOthers) {
  SetVEXAHOME(kHome.c_str());
  const struct {
    Engine engine;
    Texts host;
    Texts want;
  } kCases[] = {
      {{"R", "/opt/R/", {}},
       {"A=1", "DYLD_LIBRARY_PATH=/usr/x"},
       kHomeAndPipes + Texts{"R_HOME=/opt/R", "A=1", "DYLD_LIBRARY_PATH=/opt/R/lib:/usr/x"}},
      {{"R", "", {}}, {}, kHomeAndPipes + Texts{"R_HOME=", "DYLD_LIBRARY_PATH=/lib:"}},
      {{"R", "/", {}}, {}, kHomeAndPipes + Texts{"R_HOME=", "DYLD_LIBRARY_PATH=/lib:"}},
      {{"R", "/opt/R//", {}}, {}, kHomeAndPipes + Texts{"R_HOME=/opt/R/", "DYLD_LIBRARY_PATH=/opt/R//lib:"}},
      // The section comes first, by ascending name and expanded; the host's entries of the same names stay.
      {{"R", "/opt/R", {"ZED=1", "R_HOME=/mine", "Zed=${ZED}2", "VEXA_HOME=/other"}},
       {"VEXA_HOME=/host", "R_HOME=/host", "ZED=3", "ZED=4"},
       {"R_HOME=/mine", "VEXA_HOME=/other", "ZED=1", "Zed=12", "VEXADXTEMP=" + kPipes, "R_HOME=/opt/R",
        "VEXA_HOME=/host", "R_HOME=/host", "ZED=3", "ZED=4", "DYLD_LIBRARY_PATH=/opt/R/lib:"}},
      {{"R", "/opt/R", {"DYLD_LIBRARY_PATH=/mine", "VEXADXTEMP=/elsewhere", "PYTHONPATH=/p"}},
       {"DYLD_LIBRARY_PATH=/host", "VEXADXTEMP=/host"},
       {"DYLD_LIBRARY_PATH=/mine", "PYTHONPATH=/p", "VEXADXTEMP=/elsewhere", "VEXA_HOME=" + kHome, "R_HOME=/opt/R",
        "VEXADXTEMP=/host"}},
      // Entries that no program of ours would make are the host's, too.
      {{"R", "/opt/R", {}},
       {"=odd", "no equals sign", "E=", "F=a=b\nc", "DYLD_LIBRARY_PATH2=kept", "xDYLD_LIBRARY_PATH=kept"},
       kHomeAndPipes + Texts{"R_HOME=/opt/R", "=odd", "no equals sign", "E=", "F=a=b\nc", "DYLD_LIBRARY_PATH2=kept",
                             "xDYLD_LIBRARY_PATH=kept", "DYLD_LIBRARY_PATH=/opt/R/lib:"}},
      // Any other name has the library path twice.
      {{"r", "/opt/r/", {}},
       {"DYLD_LIBRARY_PATH=/host", "A=1"},
       kHomeAndPipes + Texts{"DYLD_LIBRARY_PATH=/host", "A=1", "DYLD_LIBRARY_PATH=/opt/r/lib:/host"}},
      {{"python", "", {}}, {}, kHomeAndPipes + Texts{"DYLD_LIBRARY_PATH=", "DYLD_LIBRARY_PATH=/lib:"}},
      {{"RSERVE", "/opt/r", {"DYLD_LIBRARY_PATH=/mine"}},
       {"DYLD_LIBRARY_PATH=/host", "A=1"},
       Texts{"DYLD_LIBRARY_PATH=/mine"} + kHomeAndPipes + Texts{"A=1"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.engine.xName + ' ' + testing::PrintToString(c.engine.section) + testing::PrintToString(c.host));
    EXPECT_EQ(c.want, EnvironmentFor(c.engine, c.host));
  }
}

// The section's entries, ours, the host's as they are, and the library path.
TEST_F(XProcess, EnvironmentOfPythons) {
  SetVEXAHOME(kHome.c_str());
  const struct {
    std::string xName;
    Texts section;
    Texts host;
    Texts python;
  } kCases[] = {
      {"PYTHON", {}, {}, Python(kTwo, kUnlinked)},
      {"PYTHON3", {}, {}, Python(kThree, kUnlinked)},
      {"MYPYTHON", {}, {}, Python(kThree, kUnlinked)},
      // Further packages: the section's or else the host's.
      {"PYTHON", {"PYTHONPATH=/mine:"}, {"PYTHONPATH=/host"}, Python(kTwo + ":/mine:", kUnlinked)},
      {"PYTHON3", {"PYTHONPATH="}, {"PYTHONPATH=/host"}, Python(kThree + ':', kUnlinked)},
      {"MYPYTHON",
       {},
       {"PYTHONPATH=/a:/b", "PYTHONHOME=/host", "BACKEND_PYTHON_SCRIPT=False", "JAVA_CLIENT_PORT=77"},
       Python(kThree + ":/a:/b", Linked("127.0.0.1", "0", "77"))},
      {"PYTHON", {}, {"PYTHONPATH="}, Python(kTwo + ':', kUnlinked)},
      // The host's services: both of its variables or none, and both of ours unless the section has both.
      {"PYTHON", {}, {"TSOH=there", "TROP=9"}, Python(kTwo, Linked("there", "9"))},
      {"PYTHON", {}, {"TSOH=there"}, Python(kTwo, kUnlinked)},
      {"PYTHON", {}, {"TROP=9"}, Python(kTwo, kUnlinked)},
      {"PYTHON", {"CPRLMX_HOST=mine"}, {"TSOH=there", "TROP="}, Python(kTwo, Linked("there", ""))},
      {"PYTHON", {"CPRLMX_PORT=1"}, {}, Python(kTwo, kUnlinked)},
      {"PYTHON",
       {"CPRLMX_HOST=mine", "CPRLMX_PORT=1"},
       {"TSOH=there", "TROP=9"},
       Python(kTwo, {"BACKEND_PYTHON_SCRIPT=True", "JAVA_CLIENT_PORT=0"})},
      // What the section says counts, but for the home.
      {"PYTHON",
       {"BACKEND_PYTHON_SCRIPT=False", "JAVA_CLIENT_PORT=5", "PYTHONHOME=/mine"},
       {"JAVA_CLIENT_PORT=6"},
       Python(kTwo, {"CPRLMX_HOST=127.0.0.1", "CPRLMX_PORT=0"})},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.xName + ' ' + testing::PrintToString(c.section) + testing::PrintToString(c.host));
    const Texts ends = c.host + Texts{"DYLD_LIBRARY_PATH=/opt/py/lib:"};
    for (const std::string home : {"/opt/py", "/opt/py/"}) {
      EXPECT_EQ(c.section + kHomeAndPipes + c.python + ends, EnvironmentFor({c.xName, home, c.section}, c.host));
    }
  }
  // The section's library path is the only one.
  const Texts mine{"DYLD_LIBRARY_PATH=/mine"};
  EXPECT_EQ(mine + kHomeAndPipes + Python(kTwo, kUnlinked) + Texts{"A=1"},
            EnvironmentFor({"PYTHON", "/opt/py/", mine}, {"DYLD_LIBRARY_PATH=/host", "A=1"}));
}

TEST_F(XProcess, EnvironmentOfTheJavaExtension) {
  SetVEXAHOME(kHome.c_str());
  const std::string plugin = "/opt/app/bin/vexajavaplugin.jar:";
  const struct {
    std::string path;
    bool isPackage;
    std::string classPath;  // behind the plug-in's archive
  } kPaths[] = {
      {"/ext/a:/ext/b", true, "/ext/a/STATS.jar:/ext/b/STATS.jar"},
      {"/ext/a", true, "/ext/a/STATS.jar"},
      {"/ext/a/", true, "/ext/a//STATS.jar"},
      {"/ext/a:", true, "/ext/a/STATS.jar:"},
      {":/ext/a", true, "/STATS.jar:/ext/a/STATS.jar"},
      {"/a::/b", true, "/a/STATS.jar:/STATS.jar:/b/STATS.jar"},
      {"/a::", true, "/a/STATS.jar:/STATS.jar:"},
      {":", true, "/STATS.jar:"},
      {"", true, "/STATS.jar"},
      {"/ext/a:/ext/b:", false, "/ext/a:/ext/b:"},
      {"", false, ""},
  };
  JavaExtensionSmb message;
  message.SetCommandName("STATS");
  for (const auto& c : kPaths) {
    SCOPED_TRACE(c.path);
    message.SetExtensionPath(c.path);
    message.SetPackageMode(c.isPackage);
    const Engine engine{"JAVAEXTENSION", "/opt/java", {}};
    const Texts alone{"CLASSPATH=" + plugin + c.classPath, "A=1"};
    EXPECT_EQ(kHomeAndPipes + alone, EnvironmentFor(engine, {"A=1"}));
    const Texts withHosts{"CLASSPATH=" + plugin + c.classPath + ":/host", "CLASSPATH=/host"};
    EXPECT_EQ(kHomeAndPipes + withHosts, EnvironmentFor(engine, {"DYLD_LIBRARY_PATH=/host", "CLASSPATH=/host"}));
  }
  EXPECT_EQ((Texts{"CLASSPATH=/mine", "DYLD_LIBRARY_PATH=/mine"} + kHomeAndPipes +
             Texts{"CLASSPATH=" + plugin + ':', "CLASSPATH="}),
            EnvironmentFor({"JAVAEXTENSION", "", {"DYLD_LIBRARY_PATH=/mine", "CLASSPATH=/mine"}},
                           {"CLASSPATH=", "DYLD_LIBRARY_PATH=/host"}));
}

TEST_F(XProcess, IsStartedWithItsArgumentsAndTheEnvironment) {
  SetVEXAHOME(m_home.Path().c_str());
  const Texts section{"A=0", "CPRLMX_HOST=mine"};
  const Texts host{"A=1", "DYLD_LIBRARY_PATH=/host", "A=2", "no equals sign", "VEXA_HOME=/host"};
  const struct {
    int mode;
    std::string modeName;
    Engine engine;
    Texts behind;
  } kCases[] = {
      {1, "LOCAL", {"PYTHON", "/opt/x", section}, {}},
      {1, "LOCAL", {"PYTHON3", "/opt/x", section}, {}},
      {1, "LOCAL", {"MYPYTHON", "/opt/x", section}, {}},
      {1, "LOCAL", {"CTEST", "/opt/x", section}, {}},
      // R is told its home and library. The engine's preferences are asked at the start.
      {0,
       "REMOTE",
       {"R", "/opt/my R/\nR.libName=vexar\nR.libPath=/opt/lib", {}},
       {"\"/opt/my R/\"", "vexar", "/opt/lib"}},
      {2, "LOCAL", {"R", "", {}}, {"\"\"", "", ""}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.engine.xName + c.modeName);
    const Report report = Start(c.engine, c.mode, "bin/startx", kNoX, host);
    EXPECT_EQ((Texts{m_home.Path("bin/startx"), c.modeName, kPipes, "4711", c.engine.xName} + c.behind),
              report.arguments);
  }
}

TEST_F(XProcess, OfTheJavaExtensionIsToldThePortAndTheCommand) {
  SetVEXAHOME(m_home.Path().c_str());
  const struct {
    int mode;
    std::string modeName;
    Texts host;
    std::string type;
    std::string command;
  } kCases[] = {
      {1, "LOCAL", {"CLASSPATH=/host", "DYLD_LIBRARY_PATH=/host"}, "OnPrem", "STATS"},
      {0, "REMOTE", {"VEXA_DEPLOYMENT=cloud"}, "Subscription", "with a blank"},
      {2, "LOCAL", {"VEXA_DEPLOYMENT=thinclient"}, "Subscription", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.type + c.command);
    JavaPlugInSocket socket;
    SetavaExtSocket(&socket);
    JavaExtensionSmb().SetCommandName(c.command);
    const Report report = Start({"JAVAEXTENSION", "", {"A=0"}}, c.mode, "JRE/bin/java", kNoJava, c.host);
    EXPECT_NE(0, socket.GetSocketPort());
    EXPECT_EQ(
        (Texts{m_home.Path("JRE/bin/java"), "-Dversioninfo.apptype=" + c.type, "com.zel.statistics.plugin.Extension",
               c.modeName, std::to_string(socket.GetSocketPort()), c.command}),
        report.arguments);
    (void)socket.CloseSocket();
  }
}

// The system takes no text of 128 KiB or more.
TEST_F(XProcess, GetsAsMuchAsTheSystemTakes) {
  SetVEXAHOME(m_home.Path().c_str());
  Texts many;
  for (int i = 0; i < 5000; ++i) many.push_back("V" + std::to_string(i) + '=' + std::to_string(i));
  many.push_back("LARGE=" + std::string(120'000, 'l'));
  const std::string home = "/opt/it's \"x\"\n/../y/";
  EXPECT_EQ(5U, Start({"CTEST", home, {}}, 1, "bin/startx", kNoX, many).arguments.size());
  const struct {
    Engine engine;
    Texts host;
  } kRefused[] = {{{"CTEST", "", {"LARGE=" + std::string(131'072, 'l')}}, {}},
                  {{"CTEST", "", {}}, {"LARGE=" + std::string(131'072, 'l')}},
                  {{"R", '/' + std::string(200'000, 'h'), {}}, {}}};
  for (const auto& c : kRefused) {
    EXPECT_TRUE(Start(c.engine, 1, "bin/startx", kNoX, c.host, true).arguments.empty()) << c.engine.xName;
  }
}

// A home that was never told is no path at all.
TEST_F(XProcess, WithoutAHomeIsSoughtFromTheWorkingDirectory) {
  const Environment empty({});
  ASSERT_STREQ("", GetVEXAHOME());
  const fs::path before = fs::current_path();
  fs::current_path(m_home.Path());
  const Report report = Start({"CTEST", "/opt/x", {}}, 1, "bin/startx", kNoX);
  fs::current_path(before);
  EXPECT_EQ((Texts{"bin/startx", "LOCAL", kPipes, "4711", "CTEST"}), report.arguments);
  ASSERT_FALSE(report.environment.empty());
  EXPECT_EQ("VEXA_HOME=", report.environment[0]);
}

// Not even one that died while this process came to be. The shell that starts it has ended, and was reaped, before.
TEST_F(XProcess, EndsWithoutAHost) {
  m_home.Configure("[PYX]\nLIB_NAME=vexapython\n");
  const TempDir pipes;
  const std::string orphan = "(while kill -0 $$ 2>/dev/null; do :; done; exec \"$@\") &";
  ChildProcess shells({"/bin/sh", "-c", "sh -c '" + orphan + "' sh \"$@\"", "sh", m_home.Path("bin/startx"), "LOCAL",
                       pipes.Path().string() + '/', "4711", "PYX"});
  EXPECT_EQ(0, shells.Wait());  // when the process has let go of the streams as well
  EXPECT_TRUE(fs::is_empty(pipes.Path()));
}
