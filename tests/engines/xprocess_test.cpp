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
  Report Start(const Engine& engine, int mode, const std::string& program, int gone, Texts host = {}) {
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
    EXPECT_EQ(EnvironmentOf(started), report.environment);
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

// What PYTHON has between the pipe directory and the host's entries, and behind them.
Texts PythonEntries(const std::string& directories, const Texts& others) {
  Texts entries{"PYTHONHOME=/opt/py", "PYTHONPATH=/opt/app/../../Resources/" + directories};
  entries.insert(entries.end(), others.begin(), others.end());
  return entries;
}

Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

const Texts kHomeAndPipes{"VEXA_HOME=" + kHome, "VEXADXTEMP=" + kPipes};
const std::string kTwo = "Python/lib/python2.7/site-packages";
const std::string kThree = "Python3/lib/python3.8/site-packages";
const Texts kPythonDefaults{"BACKEND_PYTHON_SCRIPT=True", "CPRLMX_HOST=127.0.0.1", "CPRLMX_PORT=0",
                            "JAVA_CLIENT_PORT=0"};
const Texts kPythonLibraries{"DYLD_LIBRARY_PATH=/opt/py/lib:"};

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

TEST_F(XProcess, EnvironmentOfPythons) {
  SetVEXAHOME(kHome.c_str());
  const auto linked = [](const std::string& host, const std::string& port) {
    return Texts{"BACKEND_PYTHON_SCRIPT=True", "CPRLMX_HOST=" + host, "CPRLMX_PORT=" + port, "JAVA_CLIENT_PORT=0"};
  };
  const struct {
    Engine engine;
    Texts host;
    Texts before;  // the section's
    Texts python;
    Texts behind;
  } kCases[] = {
      {{"PYTHON", "/opt/py/", {}}, {}, {}, PythonEntries(kTwo, kPythonDefaults), kPythonLibraries},
      {{"PYTHON3", "/opt/py", {}}, {}, {}, PythonEntries(kThree, kPythonDefaults), kPythonLibraries},
      {{"MYPYTHON", "/opt/py", {}}, {}, {}, PythonEntries(kThree, kPythonDefaults), kPythonLibraries},
      // Further packages: the section's or else the host's.
      {{"PYTHON", "/opt/py", {"PYTHONPATH=/mine:"}},
       {"PYTHONPATH=/host"},
       {"PYTHONPATH=/mine:"},
       PythonEntries(kTwo + ":/mine:", kPythonDefaults),
       Texts{"PYTHONPATH=/host"} + kPythonLibraries},
      {{"PYTHON3", "/opt/py", {"PYTHONPATH="}},
       {"PYTHONPATH=/host"},
       {"PYTHONPATH="},
       PythonEntries(kThree + ':', kPythonDefaults),
       Texts{"PYTHONPATH=/host"} + kPythonLibraries},
      {{"MYPYTHON", "/opt/py", {}},
       {"PYTHONPATH=/a:/b", "PYTHONHOME=/host", "BACKEND_PYTHON_SCRIPT=False", "JAVA_CLIENT_PORT=77"},
       {},
       PythonEntries(kThree + ":/a:/b",
                     {"BACKEND_PYTHON_SCRIPT=True", "CPRLMX_HOST=127.0.0.1", "CPRLMX_PORT=0", "JAVA_CLIENT_PORT=77"}),
       Texts{"PYTHONPATH=/a:/b", "PYTHONHOME=/host", "BACKEND_PYTHON_SCRIPT=False", "JAVA_CLIENT_PORT=77"} +
           kPythonLibraries},
      {{"PYTHON", "/opt/py", {}},
       {"PYTHONPATH="},
       {},
       PythonEntries(kTwo + ':', kPythonDefaults),
       Texts{"PYTHONPATH="} + kPythonLibraries},
      // The host's services: both of its variables or none, and both of ours unless the section has both.
      {{"PYTHON", "/opt/py", {}},
       {"TSOH=there", "TROP=9"},
       {},
       PythonEntries(kTwo, linked("there", "9")),
       Texts{"TSOH=there", "TROP=9"} + kPythonLibraries},
      {{"PYTHON", "/opt/py", {}},
       {"TSOH=there"},
       {},
       PythonEntries(kTwo, kPythonDefaults),
       Texts{"TSOH=there"} + kPythonLibraries},
      {{"PYTHON", "/opt/py", {}},
       {"TROP=9"},
       {},
       PythonEntries(kTwo, kPythonDefaults),
       Texts{"TROP=9"} + kPythonLibraries},
      {{"PYTHON", "/opt/py", {"CPRLMX_HOST=mine"}},
       {"TSOH=there", "TROP="},
       {"CPRLMX_HOST=mine"},
       PythonEntries(kTwo, linked("there", "")),
       Texts{"TSOH=there", "TROP="} + kPythonLibraries},
      {{"PYTHON", "/opt/py", {"CPRLMX_PORT=1"}},
       {},
       {"CPRLMX_PORT=1"},
       PythonEntries(kTwo, kPythonDefaults),
       kPythonLibraries},
      {{"PYTHON", "/opt/py", {"CPRLMX_PORT=1", "CPRLMX_HOST=mine"}},
       {"TSOH=there", "TROP=9"},
       {"CPRLMX_HOST=mine", "CPRLMX_PORT=1"},
       PythonEntries(kTwo, {"BACKEND_PYTHON_SCRIPT=True", "JAVA_CLIENT_PORT=0"}),
       Texts{"TSOH=there", "TROP=9"} + kPythonLibraries},
      // What the section says counts, but for the home.
      {{"PYTHON",
        "/opt/py",
        {"BACKEND_PYTHON_SCRIPT=False", "JAVA_CLIENT_PORT=5", "PYTHONHOME=/mine", "DYLD_LIBRARY_PATH=/mine"}},
       {"DYLD_LIBRARY_PATH=/host", "JAVA_CLIENT_PORT=6"},
       {"BACKEND_PYTHON_SCRIPT=False", "DYLD_LIBRARY_PATH=/mine", "JAVA_CLIENT_PORT=5", "PYTHONHOME=/mine"},
       PythonEntries(kTwo, {"CPRLMX_HOST=127.0.0.1", "CPRLMX_PORT=0"}),
       {"JAVA_CLIENT_PORT=6"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.engine.xName + ' ' + testing::PrintToString(c.engine.section) + testing::PrintToString(c.host));
    EXPECT_EQ(c.before + kHomeAndPipes + c.python + c.behind, EnvironmentFor(c.engine, c.host));
  }
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
  const std::string program = m_home.Path("bin/startx");
  const Texts host{"A=1", "DYLD_LIBRARY_PATH=/host", "A=2", "no equals sign", "VEXA_HOME=/host"};
  for (const std::string name : {"PYTHON", "PYTHON3", "MYPYTHON", "CTEST"}) {
    SCOPED_TRACE(name);
    const Report report = Start({name, "/opt/x", {"A=0", "CPRLMX_HOST=mine"}}, 1, "bin/startx", kNoX, host);
    EXPECT_EQ((Texts{program, "LOCAL", kPipes, "4711", name}), report.arguments);
  }
}

TEST_F(XProcess, OfRIsToldItsHomeAndLibrary) {
  SetVEXAHOME(m_home.Path().c_str());
  const std::string program = m_home.Path("bin/startx");
  // The engine's preferences are asked at the start.
  const struct {
    int mode;
    std::string name;
    Engine engine;
    Texts behind;
  } kCases[] = {
      {0,
       "REMOTE",
       {"R", "/opt/my R/\nR.libName=vexar\nR.libPath=/opt/lib", {}},
       {"\"/opt/my R/\"", "vexar", "/opt/lib"}},
      {2, "LOCAL", {"R", "", {}}, {"\"\"", "", ""}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Report report = Start(c.engine, c.mode, "bin/startx", kNoX);
    EXPECT_EQ((Texts{program, c.name, kPipes, "4711", "R"} + c.behind), report.arguments);
  }
}

TEST_F(XProcess, OfTheJavaExtensionIsToldThePortAndTheCommand) {
  SetVEXAHOME(m_home.Path().c_str());
  const std::string program = m_home.Path("JRE/bin/java");
  const struct {
    int mode;
    std::string name;
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
    EXPECT_EQ((Texts{program, "-Dversioninfo.apptype=" + c.type, "com.zel.statistics.plugin.Extension", c.name,
                     std::to_string(socket.GetSocketPort()), c.command}),
              report.arguments);
    EXPECT_NE(0, socket.GetSocketPort());
    (void)socket.CloseSocket();
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
