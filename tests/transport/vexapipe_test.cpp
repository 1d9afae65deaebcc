#include "vexapipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#endif

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "processstate.h"
#include "signals.h"
#include "temphome.h"

namespace {

namespace fs = std::filesystem;

class PipeTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name = "pipe") const { return m_dir.Path(name).string(); }

  TempDir m_dir;
};

bool isPending(int signal) {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, signal) == 1;
}

std::string readToTheEnd(VexaPipe& pipe) {
  std::string text;
  std::vector<char> buffer(5000);
  for (unsigned long count = 1; count > 0;) {
    EXPECT_EQ(0, pipe.ReadData(static_cast<int>(buffer.size()), buffer.data(), count));
    text.append(buffer.data(), count);
  }
  return text;
}

}  // namespace

TEST_F(PipeTest, MakesAFifoForEverybodyWithinTheMask) {
  VexaPipe unnamed;
  EXPECT_EQ(99106, unnamed.CreatePipe());
  const std::pair<mode_t, mode_t> masks[] = {{0, 0777}, {022, 0755}, {077, 0700}};
  for (const auto& [mask, mode] : masks) {
    const mode_t before = ::umask(mask);
    {
      VexaPipe pipe(Path());
      EXPECT_EQ(0, pipe.CreatePipe());
      EXPECT_TRUE(pipe.IsPipeCreated());
      struct stat status {};
      ASSERT_EQ(0, ::stat(Path().c_str(), &status));
      EXPECT_TRUE(S_ISFIFO(status.st_mode));
      EXPECT_EQ(mode, status.st_mode & 0777);
      VexaPipe again(Path());
      EXPECT_EQ(0, again.CreatePipe());
      EXPECT_FALSE(again.IsPipeCreated());
    }
    EXPECT_FALSE(fs::exists(Path())) << "whoever made it";
    ::umask(before);
  }
  VexaPipe nowhere(Path("missing/pipe"));
  EXPECT_EQ(99104, nowhere.CreatePipe());
}

TEST_F(PipeTest, CarriesBytesUntilTheWriterCloses) {
  VexaPipe reader(Path());
  VexaPipe writer;
  writer.SetPipeName(Path());
  int length = 0;
  EXPECT_EQ(Path(), writer.GetPipeName(length));
  EXPECT_EQ(Path().size(), static_cast<std::size_t>(length));
  ASSERT_EQ(0, reader.CreatePipe());
  EXPECT_EQ(99104, writer.OpenPipeToUnBlockWrite()) << "nobody reads";
  const std::string text(300'000, 't');
  auto written = std::async(std::launch::async, [&] {
    EXPECT_EQ(0, writer.OpenPipeToWrite());
    EXPECT_TRUE(writer.IsWritePipeConnected());
    EXPECT_EQ(0, writer.WriteData(text.data(), static_cast<int>(text.size()), nullptr));
    EXPECT_EQ(0, writer.WriteData(text.data(), 0, nullptr));
    EXPECT_EQ(0, writer.FlushPipe());
    EXPECT_EQ(0, writer.ClosePipe());
    EXPECT_FALSE(writer.IsWritePipeConnected());
    EXPECT_FALSE(writer.HasPipe());
  });
  ASSERT_EQ(0, reader.OpenPipeToRead());
  EXPECT_EQ(0, reader.OpenPipeToRead()) << "it is open";
  EXPECT_EQ(text, readToTheEnd(reader));
  written.get();
  unsigned long count = 7;
  EXPECT_EQ(99104, writer.ReadData(1, &length, count)) << "it is closed";
  EXPECT_EQ(7u, count);
}

TEST_F(PipeTest, WaitsForTheFileToBeThere) {
  const auto begin = std::chrono::steady_clock::now();
  auto never = std::async(std::launch::async, [&] { return VexaPipe(Path("never")).VEXACreateFileR(); });
  EXPECT_EQ(99104, VexaPipe(m_dir.Write("file", "text")).VEXACreateFileR()) << "it is no pipe";
  VexaPipe reader(Path());
  auto opened = std::async(std::launch::async, [&] { return reader.VEXACreateFileR(); });
  VexaPipe writer(Path());
  EXPECT_EQ(99104, writer.VEXACreateFile()) << "which does not wait for it";
  ASSERT_EQ(0, writer.CreatePipe());
  EXPECT_EQ(0, writer.VEXACreateFile());
  EXPECT_EQ(0, opened.get());
  EXPECT_EQ(99104, never.get());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
  EXPECT_EQ(0, reader.ChangeReadMode() + reader.ChangeToUnBlockMode());
}

namespace {

void writeWithoutReader(const std::string& path) {
  struct sigaction before {};
  ::sigaction(SIGPIPE, nullptr, &before);
  VexaPipe reader(path);
  VexaPipe writer(path);
  for (const bool pendingBefore : {false, true}) {
    ASSERT_EQ(0, reader.CreatePipe());
    ASSERT_EQ(0, reader.OpenPipeToUnBlockRead());
    ASSERT_EQ(0, writer.OpenPipeToWrite());
    reader.ClosePipe();
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGPIPE);
    if (pendingBefore) {
      ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
      ::raise(SIGPIPE);
    }
    EXPECT_EQ(99104, writer.WriteData("x", 1, nullptr));
    EXPECT_EQ(pendingBefore, isPending(SIGPIPE));
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(pendingBefore ? 1 : 0, ::sigismember(&mask, SIGPIPE));
    if (pendingBefore) {
      int number = 0;
      ::sigwait(&set, &number);
      ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
  }
  struct sigaction after {};
  ::sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
}

// The reader leaves while a piece is half written: the system answers the half and raises the signal all the same.
void writeWhileTheReaderLeaves(const std::string& path) {
  VexaPipe reader(path);
  VexaPipe writer(path);
  ASSERT_EQ(0, reader.CreatePipe());
  const int read = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(0, writer.OpenPipeToWrite());
  const std::string text(100'000, 't');
  ASSERT_EQ(0,
            writer.WriteData(text.data(), 4096, nullptr));  // so that a piece meets the end of the pipe in its middle
  auto leaving = std::async(std::launch::async, [read] {
    constexpr int kCapacity = 65536;
    for (int held = 0; held < kCapacity; std::this_thread::yield()) ::ioctl(read, FIONREAD, &held);
    ::close(read);
  });
  EXPECT_EQ(99104, writer.WriteData(text.data(), static_cast<int>(text.size()), nullptr));
  leaving.get();
  EXPECT_FALSE(isPending(SIGPIPE));
}

#ifdef __linux__
// As an older system does.
void refusePwritev2(int error) {
  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pwritev2, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(steps), steps};
  ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program));
  ASSERT_EQ(-1, ::pwritev2(1, nullptr, 0, -1, 1));  // without flags the C library has a way of its own
}
#endif

}  // namespace

TEST_F(PipeTest, AWriteWithoutAReaderIsACodeAndNoSignal) {
  writeWithoutReader(Path());
  writeWhileTheReaderLeaves(Path());
}

#ifdef __linux__
TEST_F(PipeTest, AWriteWithoutAReaderIsNoSignalOnOlderSystems) {
  const auto child = [this](int error) {
    refusePwritev2(error);
    writeWithoutReader(Path());
    writeWhileTheReaderLeaves(Path());
    std::_Exit(HasFailure() ? 1 : 0);
  };
  for (const int error : {EOPNOTSUPP, ENOSYS, EPERM}) {
    EXPECT_EXIT(child(error), ::testing::ExitedWithCode(0), "") << error;
  }
}

TEST_F(PipeTest, AStrangersFifoIsNoPipe) {
  if (::geteuid() != 0) GTEST_SKIP() << "only the superuser can be two users";
  constexpr uid_t kStranger = 65534;
  constexpr uid_t kUser = 65533;
  VexaPipe pipe(Path());
  ASSERT_EQ(0, pipe.CreatePipe());
  std::filesystem::permissions(m_dir.Path(""), std::filesystem::perms::all);
  std::filesystem::permissions(Path(), std::filesystem::perms::all);
  for (const auto& [owner, code] : std::vector<std::pair<uid_t, int>>{{kStranger, 99104}, {kUser, 0}, {0, 0}}) {
    ASSERT_EQ(0, ::chown(Path().c_str(), owner, static_cast<gid_t>(-1)));
    const auto child = [&] { std::_Exit(::seteuid(kUser) == 0 ? pipe.OpenPipeToUnBlockRead() != 0 : 2); };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(code != 0 ? 1 : 0), "") << owner;
  }
}
#endif

TEST_F(PipeTest, GoesOnWhenSignalsInterruptIt) {
  VexaPipe reader(Path());
  ASSERT_EQ(0, reader.CreatePipe());
  std::string text;
  text.resize(20'000'000, 't');
  const Signals readersSignals;
  auto writing = std::async(std::launch::async, [&] {
    const Signals writersSignals;
    VexaPipe writer(Path());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the reader is interrupted in its open
    EXPECT_EQ(0, writer.OpenPipeToWrite());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // and in its read
    EXPECT_EQ(0, writer.WriteData(text.data(), static_cast<int>(text.size()), nullptr));
  });
  EXPECT_EQ(0, reader.OpenPipeToRead());
  EXPECT_TRUE(text == readToTheEnd(reader));
  writing.get();
}

TEST_F(PipeTest, OpensNothingButFifos) {
  m_dir.Write("file", "untouched");
  fs::create_symlink(Path("file"), Path("link"));
  fs::create_directory(Path("directory"));
  for (const char* name : {"file", "link", "directory", "missing"}) {
    auto* const pipe = new VexaPipe(Path(name));
    EXPECT_EQ(99104, pipe->OpenPipeToWrite()) << name;
    EXPECT_EQ(99104, pipe->OpenPipeToUnBlockWrite()) << name;
    EXPECT_EQ(99104, pipe->OpenPipeToRead()) << name;
    EXPECT_EQ(99104, pipe->VEXACreateFile()) << name;
    EXPECT_FALSE(pipe->HasPipe());
    pipe->SetPipeName("");
    delete pipe;
  }
  EXPECT_EQ("untouched", ReadFile(Path("file")));
}

TEST_F(PipeTest, IsReplacedWithoutALeak) {
  VexaPipe reader(Path());
  ASSERT_EQ(0, reader.CreatePipe());
  ASSERT_EQ(0, reader.OpenPipeToUnBlockRead());
  VexaPipe writer(Path());
  ASSERT_EQ(0, writer.OpenPipeToWrite());
  const int before = OpenDescriptors();
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(0, writer.OpenPipeToWrite());
    ASSERT_EQ(0, writer.VEXACreateFile());
  }
  EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(PipeTest, TracesWhatFailsAndEveryClose) {
  {
    DxTracer tracer;
    tracer.open(Path("trace"));
    SetDxTracer(&tracer);
    VexaPipe missing(Path("missing/pipe"));
    missing.CreatePipe();
    missing.OpenPipeToWrite();
    missing.OpenPipeToUnBlockWrite();
    missing.OpenPipeToRead();
    missing.VEXACreateFile();
    VexaPipe pipe(Path());
    pipe.CreatePipe();
    pipe.OpenPipeToUnBlockRead();
    pipe.ClosePipe();
    pipe.ClosePipe();
    SetDxTracer(nullptr);
  }
  const std::string missing = Path("missing/pipe");
  EXPECT_EQ((std::vector<std::string>{
                missing + " CreateNamedPipe error code : 2.", missing + " OpenPipeToWrite error code : 2.",
                missing + " OpenPipeToUnBlockWrite error code : 2.", Path() + " ClosePipe error code : 0."}),
            TraceTexts(Path("trace")));
}
