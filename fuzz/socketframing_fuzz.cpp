// A stream through a real connection, put in the place of the one accepted: of a kind whose pieces the system keeps
// apart.

#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "framingcheck.h"
#include "javapluginsocket.h"
#include "loopback.h"

namespace {

class SocketChannel {
 public:
  static constexpr int kMalformed = vexadx::kSocketFailed;

  SocketChannel() {
    require(m_socket.CreateSocket() == 0);
    const int client = ConnectedTo(m_socket.GetSocketPort());
    m_connection = ::dup(client);  // the lowest free number, as is the connection's
    ::close(m_connection);
    require(m_socket.AcceptSocket() == 0);
    ::close(client);
  }

  void Send(const std::vector<std::string_view>& pieces) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    require(::dup2(ends[0], m_connection) == m_connection);
    for (const std::string_view piece : pieces) {
      require(::send(ends[1], piece.data(), piece.size(), MSG_DONTWAIT) == static_cast<ssize_t>(piece.size()));
    }
    for (const int end : ends) ::close(end);
  }
  int Receive(CleXDSmb& block) { return ReceiveData(&m_socket, block); }
  std::size_t Left() {
    std::array<char, 4096> bytes;
    std::size_t left = 0;
    for (unsigned long count = 1; count > 0; left += count) {
      require(m_socket.ReadData(bytes.data(), static_cast<int>(bytes.size()), count) == 0);
    }
    return left;
  }

 private:
  JavaPlugInSocket m_socket;
  int m_connection;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static SocketChannel channel;
  checkStream(channel, data, size);
  return 0;
}
