#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sched.h>
#include <sys/mount.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "faultyx.h"
#include "inprocess.h"
#include "unprivileged.h"
#include "within.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

#ifdef VEXADX_SANITIZED
constexpr auto kSlower = 1s;
#else
constexpr auto kSlower = 0s;
#endif

// One of the process's limits for a scope.
class Limit {
 public:
  Limit(decltype(RLIMIT_NOFILE) resource, rlim_t limit) : m_resource(resource) {
    (void)::getrlimit(m_resource, &m_before);
    const rlimit lowered{limit, m_before.rlim_max};
    EXPECT_EQ(0, ::setrlimit(m_resource, &lowered));
  }
  ~Limit() { (void)::setrlimit(m_resource, &m_before); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  const decltype(RLIMIT_NOFILE) m_resource;
  rlimit m_before{};
};

// For the calling thread, and what it starts, the directory has no room for another file. False: it may not do that.
bool fill(const fs::path& directory) {
#ifdef __linux__
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", directory.c_str(), "tmpfs", 0, "mode=777,nr_inodes=1") == 0;
#else
  (void)directory;
  return false;
#endif
}

}  // namespace

// Engines whose X process behaves: what is wrong is around it.
class StartXInTrouble : public FaultyX {
 protected:
  OutpX& AddStartX(const std::string& xName) {
    if (m_configuration.empty()) {
      PutStartX(VEXADX_STAGED_HOME "/bin/startx");
      m_home.AddPlugin("ctest");
    }
    m_configuration += "[" + xName + "]\nLIB_NAME=ctest\n";
    m_home.Configure(m_configuration);
    return AddFaulty("", xName);
  }

 private:
  std::string m_configuration;
};

TEST_F(FaultyX, ThatIsNeverReadyLeavesNoProcess) {
  const struct {
    const char* fault;
    int code;
    std::chrono::seconds within;
  } kFaults[] = {
      {"exits-at-once", 99104, 11s},
      {"started silent", 99104, 11s},
      {"makes-pipe-late", 99104, 11s},
      {"dies-before-opening", 99104, 11s},
      {"commands-made late=600", 99104, 11s},
      {"commands-open late=100 fork", 99104, 11s},
      {"dies-at-ready-check", 99104, 11s},
      {"ready-read late=100 fork", 99104, 11s},
      {"never-ready", 5, 11s},
      {"ready-late", 0, 6s},
  };
  // All at once, as each takes as long as the ready checks.
  std::vector<OutpX*> xs;
  std::vector<std::future<void>> starts;
  for (const auto& row : kFaults) xs.push_back(&AddFaulty(row.fault, "FAULTY" + std::to_string(xs.size())));
  for (OutpX* const x : xs) {
    const auto& row = kFaults[starts.size()];
    starts.push_back(std::async(std::launch::async, [x, &row] {
      const Clock::time_point begin = Clock::now();
      EXPECT_EQ(row.code, x->Start()) << row.fault;
      EXPECT_LT(Clock::now() - begin, row.within + kSlower) << row.fault;
      EXPECT_EQ(row.code != 0, x->Process() == -1) << row.fault;
      EXPECT_EQ(row.code == 0 ? 0 : 99115, x->Run("")) << row.fault;
      EXPECT_EQ(0, x->Stop()) << row.fault;
      if (std::string_view(row.fault) == "exits-at-once") {
        EXPECT_EQ(3 << 8, vexadx::ProcessOf(x->engine).status);
      }
      ExpectHealthyAgain(*x);
    }));
  }
}

TEST_F(FaultyX, WithoutAProgramIsToldWhenItsChildIsKeptAndWhenItIsDiscarded) {
  m_home.Remove("bin/startx");
  OutpX& x = AddFaulty("");
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(99104, x.Start());
  EXPECT_LT(Clock::now() - begin, 11s);
  EXPECT_FALSE(HasChildren());
  EXPECT_EQ(255 << 8, vexadx::ProcessOf(x.engine).status);

  ::signal(SIGCHLD, SIG_IGN);
  const struct {
    const char* program;
    fs::perms permissions;
  } kPrograms[] = {{nullptr, fs::perms::none},
                   {"#!/bin/sh\nsleep 60\n", fs::perms::owner_read},
                   {"no program", fs::perms::owner_all},
                   {"#!/no/such/interpreter\n", fs::perms::owner_all}};
  for (const auto& [program, permissions] : kPrograms) {
    if (program) fs::permissions(m_home.Replace("bin/startx", program), permissions);
    const Clock::time_point beginDiscarded = Clock::now();
    EXPECT_EQ(99107, x.Start()) << (program ? program : "none");
    EXPECT_LT(Clock::now() - beginDiscarded, 600ms);
    EXPECT_FALSE(HasChildren());
  }
  ::signal(SIGCHLD, SIG_DFL);
  PutStartX(VEXADX_STARTX_FAULT);
  ExpectHealthyAgain(x);
}

TEST_F(FaultyX, StartsOverWhatACrashedHostLeft) {
  OutpX& x = AddFaulty("");
  const std::string prefix = m_manager->getPipeSuit("FAULTY")->getPipeNamePrefix();
  for (const char* stale : {"_s", "_c", "0syntax", "0syntaxresult"}) {
    ASSERT_TRUE(fs::exists(prefix + stale) || ::mkfifo((prefix + stale).c_str(), 0600) == 0);
  }
  const Within limit(11s);
  ExpectHealthyAgain(x);
}

TEST_F(StartXInTrouble, WithoutItsPipesIsToldAndTouchesNothingInTheirPlace) {
  const bool isSuperuser = ::geteuid() == 0;
  const std::string text = m_pipes.Write("text", "untouched");
  const std::string prefix = m_pipes.Path("4711").string();
  fs::permissions(m_home.Path(), fs::perms(0755));
  fs::permissions(m_pipes.Path(), fs::perms(0777));
  for (const char* const directory : {"READONLY", "FULL", "DIRECTORY_c"}) fs::create_directory(prefix + directory);
  fs::permissions(prefix + "READONLY", fs::perms(0555));
  fs::copy_file(text, prefix + "FILE_c");
  fs::create_symlink(text, prefix + "LINK_c");
  ASSERT_EQ(0, ::mkfifo((prefix + "FOREIGN_c").c_str(), 0600));
  for (const char* const place : {"text", "4711FILE_c", "4711FOREIGN_c"})
    fs::permissions(m_pipes.Path(place), fs::perms(0666));
  const int foreign = ::open((prefix + "FOREIGN_c").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);

  std::vector<std::string> names{"FILE", "LINK", "DIRECTORY", "MISSING/X", "READONLY/X", std::string(5000, 'X')};
  if (isSuperuser) {
    ASSERT_EQ(0, ::chown((prefix + "FOREIGN_c").c_str(), Unprivileged::User() + 1, 0));
    names.insert(names.begin(), {"FOREIGN", "FULL/X"});
  }
  std::vector<OutpX*> xs;
  std::vector<std::future<void>> starts;
  for (const std::string& name : names) {
    xs.push_back(&AddStartX(name));
    starts.push_back(std::async(std::launch::async, [x = xs.back(), name, prefix] {
      ASSERT_TRUE(name != "FULL/X" || fill(prefix + "FULL"));
      const Unprivileged user;
      const Clock::time_point begin = Clock::now();
      EXPECT_EQ(99104, x->Start()) << name;
      EXPECT_LT(Clock::now() - begin, 11s + kSlower) << name;
      EXPECT_EQ(-1, x->Process()) << name;
    }));
  }
  for (std::future<void>& start : starts) start.get();

  EXPECT_EQ("untouched", ReadFile(text));
  EXPECT_EQ("untouched", ReadFile(prefix + "FILE_c"));
  EXPECT_TRUE(fs::is_symlink(prefix + "LINK_c"));
  EXPECT_TRUE(fs::is_empty(prefix + "DIRECTORY_c"));
  char byte = 0;
  EXPECT_EQ(0, ::read(foreign, &byte, 1)) << "something was written, or somebody is there to write";
  ::close(foreign);

  for (const char* const place : {"FILE_c", "LINK_c", "DIRECTORY_c", "FOREIGN_c"})
    EXPECT_TRUE(fs::remove(prefix + place)) << place;
  fs::create_directory(prefix + "MISSING");
  fs::permissions(prefix + "READONLY", fs::perms(0755));
  xs.pop_back();  // whose name stays too long
  for (OutpX* const x : xs) starts.push_back(std::async(std::launch::async, [x] { ExpectHealthyAgain(*x); }));
  starts.clear();
  if (!isSuperuser) GTEST_SKIP() << "a full directory and another user's pipe are the superuser's to make";
}

// A child of the host's own that has ended is the host's to reap.
TEST_F(StartXInTrouble, WithoutAProcessIsToldAndReapsNobodyElses) {
  const pid_t own = ::fork();
  if (own == 0) ::_exit(7);
  fs::permissions(m_pipes.Path(), fs::perms(0777));
  OutpX& x = AddStartX("CTEST");
  for (const rlim_t processes : {1, 2}) {  // for the thread itself, and for one that would watch the process
    const Limit limit(RLIMIT_NPROC, processes);
    const Unprivileged user;
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(99107, x.Start());
    EXPECT_EQ(0, x.Stop());
    EXPECT_LT(Clock::now() - begin, 1s);
    EXPECT_EQ(99115, x.Run(""));
  }
  int status = 0;
  EXPECT_EQ(own, ::waitpid(own, &status, 0));
  EXPECT_EQ(7 << 8, status);
  EXPECT_FALSE(HasChildren());
  ExpectHealthyAgain(x);
}

TEST_F(StartXInTrouble, WithoutADescriptorIsToldAndWorksOnceThereIsOne) {
  const auto lowestFree = [] {
    const int descriptor = ::dup(STDIN_FILENO);
    ::close(descriptor);
    return static_cast<rlim_t>(descriptor);
  };
  // Too few to open either pipe of the commands, or one of the two; and then of a block.
  for (const rlim_t left : {3, 0}) {
    OutpX& x = AddStartX("CTEST" + std::to_string(left));  // one that has no pipes which it could close for others
    {
      const Limit limit(RLIMIT_NOFILE, lowestFree() + left);
      const Clock::time_point begin = Clock::now();
      EXPECT_EQ(99104, x.Start()) << left;
      EXPECT_LT(Clock::now() - begin, 11s + kSlower);
    }
    EXPECT_EQ(-1, x.Process());
    ExpectHealthyAgain(x);
  }
  OutpX& x = AddStartX("CTEST");
  for (const rlim_t left : {2, 0}) {
    ASSERT_EQ(0, x.Start());
    {
      const Limit limit(RLIMIT_NOFILE, lowestFree() + left);
      EXPECT_EQ(left == 0 ? 99104 : 0, x.Begin());
      EXPECT_EQ(99104, x.Execute("0")) << left;
    }
    EXPECT_EQ(0, x.Stop());
    EXPECT_TRUE(x.Dies());
    ExpectHealthyAgain(x);
  }
}

TEST_F(InProcess, WithoutAUsableLibraryIsToldWhatTheLoaderSays) {
  constexpr std::size_t kMachine = 18;  // where an ELF file names its processor
  std::string otherMachines = ReadFile(VEXADX_TEST_PLUGINS "/libctest.dylib");
  otherMachines[kMachine] ^= 1;
  m_home.Write("lib/libmachine.dylib", otherMachines);
  m_home.Write("lib/libtext.dylib", "a text file");
  const struct {
    std::string name;
    int code;
    std::string traced;
  } kRows[] = {
      {"", 99118, "LIB_NAME is NULL"},
      {"missing", 99114, "libmissing.dylib: cannot open shared object file: No such file"},
      {"sub/missing", 99114, "sub/libmissing.dylib: cannot open"},
      {"libctest.so", 99114, "liblibctest.so.dylib: cannot open"},
      {"text", 99114, "libtext.dylib: file too short"},
      {"machine", 99114, "libmachine.dylib: "},
      {"unresolved", 99114, "libunresolved.dylib: undefined symbol: no_such_function"},
      {"without_init_embedded_x", 99114, "undefined symbol: init_embedded_x"},
      {"without_execute_x", 99114, "undefined symbol: execute_x"},
      {"without_stop_embedded_x", 99114, "undefined symbol: stop_embedded_x"},
      {"without_pre_action", 99114, "undefined symbol: pre_action"},
      {"without_post_action", 99114, "undefined symbol: post_action"},
  };
  for (const auto& row : kRows) {
    if (row.name == "unresolved" || row.name.starts_with("without_")) m_home.AddPlugin(row.name);
  }
  std::string block = "0";
  // The Java machine is asked each time, and else takes memory as it likes.
  ::setenv("JAVA_TOOL_OPTIONS", "-Xint -Xms8m -Xmx8m -XX:+AlwaysPreTouch -XX:+UseSerialGC", 1);
  const auto neighbour = Engine("ctest");
  ASSERT_EQ(0, neighbour->init_embedded_x(0, nullptr));
  const std::string state = ProcessState();
  long bytes = 0;
  Clock::duration shortest = 1h;
  for (int round = 0; round < 100; ++round) {
    if (round == 10) bytes = OwnBytes();
    const Clock::time_point begin = Clock::now();
    for (const auto& row : kRows) {
      SCOPED_TRACE(row.name);
      m_options.PutOption("LIB_NAME", row.name);
      InpStatisticsX engine(&m_options, true);
      EXPECT_EQ(row.code, engine.loadXlib());
      engine.set_post_vexa_output(nullptr);
      if (round > 0) continue;
      std::string traced;
      for (const std::string& line : Traced()) traced += line + '\n';
      EXPECT_NE(std::string::npos, traced.find(row.traced)) << traced;
      EXPECT_EQ(state, ProcessState());
      EXPECT_EQ(0, neighbour->execute_x(block.data()));
      const auto again = Engine("ctest");
      EXPECT_EQ(0, again->init_embedded_x(0, nullptr));
      EXPECT_EQ(0, again->execute_x(block.data()));
    }
    shortest = std::min(shortest, Clock::now() - begin);
  }
  EXPECT_LT(shortest, 100ms) << "for all of them";
  EXPECT_LE(OwnBytes(), bytes + 256L * 1024);
}
