// A program in place of the Java extension's, JRE/bin/java, that misbehaves as the variable JAVA_PEER tells it, word by
// word:
//   connect  to the host's port
//   reset    the connection, so that the host's next send on it fails
//   receive  one byte
//   leave    a child behind that keeps the connection open until the host ends it, and nothing else of this process
//   say      a line with this process's id
//   wait     for ever
// It then ends with status 0; by itself it never lives longer than a minute.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "loopback.h"

namespace {

constexpr int kPortArgument = 4;
constexpr unsigned kLongestLifeSeconds = 60;

void reset(int connection) {
  const linger atOnce{1, 0};
  (void)::setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  (void)::close(connection);
}

// It receives nothing: what the host sends stays on its way.
void leaveChildWith(int connection) {
  if (::fork() != 0) return;
  ::alarm(kLongestLifeSeconds);
  ::close(STDOUT_FILENO);
  ::close(STDERR_FILENO);
  pollfd ended{connection, 0, 0};
#ifdef POLLRDHUP
  ended.events = POLLRDHUP;
#endif
  (void)::poll(&ended, 1, -1);
  ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  ::alarm(kLongestLifeSeconds);
  const char* const script = std::getenv("JAVA_PEER");
  if (argc <= kPortArgument || !script) return 2;
  int connection = -1;
  std::istringstream words(script);
  for (std::string word; words >> word;) {
    char byte;
    if (word == "connect" && (connection = ConnectedTo(std::atoi(argv[kPortArgument]))) == -1) return 3;
    if (word == "reset") reset(connection);
    if (word == "receive" && ::recv(connection, &byte, 1, 0) != 1) return 4;
    if (word == "leave") leaveChildWith(connection);
    if (word == "say") {
      std::printf("process %d\n", static_cast<int>(::getpid()));
      std::fflush(stdout);
    }
    while (word == "wait") ::pause();
  }
}
