#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "childprocess.h"
#include "framing.h"
#include "javaextension.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "message.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

void ExpectWords(const std::string& text, const Strings& words) {
  for (const std::string& word : words) EXPECT_NE(std::string::npos, text.find(word)) << word << " in\n" << text;
}

// The real Java process, and this process as its host.
class JavaExtension : public testing::Test {
 protected:
  JavaExtension() {
    ::unsetenv("JAVA_TOOL_OPTIONS");
    EXPECT_EQ(0, m_socket.CreateSocket());
  }

  std::string Port() { return std::to_string(m_socket.GetSocketPort()); }

  static std::unique_ptr<ChildProcess> Start(const Strings& arguments) {
    Strings command{VEXADX_STAGED_HOME "/JRE/bin/java", "-cp",
                    VEXADX_STAGED_HOME "/bin/vexajavaplugin.jar:" VEXADX_COMMANDS,
                    "com.zel.statistics.plugin.Extension"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(command);
  }

  // As far as the host's message.
  std::unique_ptr<ChildProcess> Connect(const std::string& command) {
    std::unique_ptr<ChildProcess> child = Start({"LOCAL", Port(), command});
    EXPECT_EQ(0, m_socket.AcceptSocket());
    return child;
  }

  void Send(const std::string& bytes) {
    unsigned long unused = 0;
    EXPECT_EQ(0, m_socket.WriteData(bytes.data(), static_cast<int>(bytes.size()), unused));
  }

  JavaPlugInSocket m_socket;
};

// The host closes early, or has sent what is no message and waits.
TEST_F(JavaExtension, RefusesMessagesThatAreNotWellFormedOrWhole) {
  CleXDSmb empty;
  CleXDSmb full;
  const std::string text = "text";
  full.SetLong(7);
  full.SetDouble(0.5);
  full.SetString(text);
  full.SetStruct(dataSet());
  const std::string none = MessageOf(empty);
  const std::string one = MessageOf(full);
  const struct {
    const char* what;
    std::string message;
    std::string word;
    bool closes = false;
  } cases[] = {
      {"no room for a message", WithNumber(none, 0, 51), "51 bytes"},
      {"a negative length", WithNumber(none, 0, -1), "-1 bytes"},
      {"one byte too many", WithNumber(none, 0, 53) + '\0', "goes on for 1 bytes"},
      {"a negative number of integers", WithNumber(one, 12, -1), "malformed"},
      {"more integers than bytes", WithNumber(one, 12, 0x7FFFFFFF), "malformed"},
      {"more doubles than bytes", WithNumber(one, 20, 0x20000001), "malformed"},  // times 8 it would be 8
      {"more strings than bytes", WithNumber(one, 32, 0x7FFFFFFF), "malformed"},
      {"a negative length of a string", WithNumber(one, 36, -4), "malformed"},
      {"a string past the end", WithNumber(one, 36, 1000), "malformed"},
      {"more records than bytes", WithNumber(one, 44, 0x7FFFFFFF), "malformed"},
      {"void data past the end", WithNumber(none, 48, 1), "malformed"},
      {"nothing", "", "too early", true},
      {"half of a length", none.substr(0, 3), "too early", true},
      {"a length alone", none.substr(0, 4), "too early", true},
      {"one byte too few", none.substr(0, none.size() - 1), "too early", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::unique_ptr<ChildProcess> child = Connect("STATS_HELLO");
    if (!c.message.empty()) Send(c.message);
    if (c.closes) m_socket.CloseSocket();
    EXPECT_EQ(4, child->Wait());
    EXPECT_EQ("", child->Out());
    ExpectWords(child->Err(), {"Java extension: ", c.word});
    if (c.closes) {
      EXPECT_EQ(0, m_socket.CreateSocket());
    }
  }
}

// What is in the message besides the lines is passed over.
TEST_F(JavaExtension, TakesTheStringListOfAMessageThatHoldsEverything) {
  CleXDSmb block;
  const std::string line = "line";
  block.SetLong(7);
  block.SetDouble(0.5);
  block.SetString(line);
  block.SetStruct(dataSet{"name", 1, 2, 3, 0.5, "text"});
  LongData longs;
  longs.SetValue(1);
  block.SetLongArray(longs);
  DoubleData doubles;
  doubles.SetValue(0.5);
  block.SetDoubleArray(doubles);
  StringData strings;
  strings.SetValue("other");
  block.SetStringArray(strings);
  block.SetBinaryString("abc", 3);
  block.SetwString(L"wide");
  block.AllocVoidData(2);
  block.SaveDataIntoVoidData("ab", 2);

  const std::unique_ptr<ChildProcess> child = Connect("STATS_HELLO");
  Send(MessageOf(block));
  EXPECT_EQ(0, child->Wait()) << child->Err();
  EXPECT_EQ("<line>", child->Out());
}

TEST_F(JavaExtension, EndsInTheMiddleOfTheCommandWhenTheHostIsGone) {
  const std::unique_ptr<ChildProcess> child = Connect("STATS_WAIT");
  CommandLine commandLine;
  commandLine.javaCommand = {"STATS_WAIT", "/extensions", false};
  PrepareJavaExtension(commandLine, {"block", {}});
  JavaExtensionSmb extension;
  EXPECT_EQ("STATS_WAIT", extension.GetCommandName());
  EXPECT_EQ("/extensions", extension.GetExtensionPath());
  EXPECT_FALSE(extension.IsPackageMode());
  EXPECT_EQ(0, SendData(&m_socket, extension));
  child->AwaitOutput("waiting");
  const Clock::time_point gone = Clock::now();
  m_socket.CloseSocket();
  EXPECT_EQ(6, child->Wait());
  EXPECT_LT(Clock::now() - gone, 2s);
}

TEST_F(JavaExtension, SaysBeforeItConnectsThatACommandCannotRun) {
  const std::string port = Port();
  const std::string notListening = [] {
    JavaPlugInSocket closed;
    EXPECT_EQ(0, closed.CreateSocket());
    (void)closed.CloseSocket();
    return std::to_string(closed.GetSocketPort());
  }();
  const struct {
    Strings arguments;
    int status;
    Strings err;
  } cases[] = {
      {{}, 2, {"usage: "}},
      {{"LOCAL", port}, 2, {"usage: "}},
      {{"BOTH", port, "STATS_HELLO"}, 2, {"usage: "}},
      {{"LOCAL", "port", "STATS_HELLO"}, 2, {"usage: "}},
      {{"LOCAL", "0", "STATS_HELLO"}, 2, {"usage: "}},
      {{"LOCAL", "65536", "STATS_HELLO"}, 2, {"usage: "}},
      {{"REMOTE", notListening, "STATS_HELLO"}, 3, {"cannot connect", notListening}},
      {{"LOCAL", port, ""}, 5, {"no command \"\""}},
      {{"LOCAL", port, "STATS_GONE"}, 5, {"no command \"STATS_GONE\"", VEXADX_COMMANDS}},
      {{"LOCAL", port, "stats/hello"}, 5, {"no command"}},
      {{"LOCAL", port, "STATS_NOT_STATIC"}, 5, {"STATS_NOT_STATIC", "public static void main"}},
      {{"LOCAL", port, "STATS_NOT_PUBLIC"}, 5, {"STATS_NOT_PUBLIC", "public static void main"}},
      {{"LOCAL", port, "STATS_OTHER_RESULT"}, 5, {"STATS_OTHER_RESULT", "public static void main"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const std::unique_ptr<ChildProcess> child = Start(c.arguments);
    EXPECT_EQ(c.status, child->Wait());
    EXPECT_EQ("", child->Out());
    ExpectWords(child->Err(), {"Java extension: "});
    ExpectWords(child->Err(), c.err);
  }
}

}  // namespace
