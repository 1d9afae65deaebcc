#include "javapluginsocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "dxtraceline.h"
#include "peerwatch.h"
#include "vexadx_codes.h"

using vexadx::kSocketFailed;
using vexadx::kSocketNotAccepted;
using vexadx::kSuccess;

namespace {

constexpr int kBacklog = 5;
constexpr std::size_t kPiece = 8192;
constexpr int kLookMs = 100;

#ifdef MSG_NOSIGNAL
constexpr int kNoSignal = MSG_NOSIGNAL;
#else
constexpr int kNoSignal = 0;  // the socket itself is told instead
#endif

#ifdef __linux__
int openSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

int acceptOn(int listening) { return ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC); }
#else
int prepared(int descriptor) {
  if (descriptor != -1) {
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    const int on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
  }
  return descriptor;
}

int openSocket() { return prepared(::socket(AF_INET, SOCK_STREAM, 0)); }

int acceptOn(int listening) { return prepared(::accept(listening, nullptr, nullptr)); }
#endif

// Repeats a call as long as signals interrupt it.
template <typename Call>
auto uninterrupted(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

void replace(int& descriptor, int by) {
  const int old = std::exchange(descriptor, by);
  if (old != -1) ::close(old);
}

}  // namespace

JavaPlugInSocket::JavaPlugInSocket() : m_listenSocket(-1), m_connSocket(-1), m_port(0) {}

JavaPlugInSocket::~JavaPlugInSocket() {
  m_listenSocket = -1;
  m_connSocket = -1;
  m_port = 0;
}

int JavaPlugInSocket::CreateSocket(int port) {
  replace(m_listenSocket, openSocket());
  if (m_listenSocket == -1) return kSocketNotAccepted;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (::bind(m_listenSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) return kSocketFailed;
  return ::listen(m_listenSocket, kBacklog) == -1 ? kSocketFailed : kSuccess;
}

int JavaPlugInSocket::CreateSocket() {
  if (const int code = CreateSocket(0); code != kSuccess) return code;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getsockname(m_listenSocket, reinterpret_cast<sockaddr*>(&address), &length) == -1) return kSocketFailed;
  m_port = ntohs(address.sin_port);
  return kSuccess;
}

int JavaPlugInSocket::AcceptSocket() {
  replace(m_connSocket, uninterrupted([this] { return acceptOn(m_listenSocket); }));
  if (m_connSocket == -1) return kSocketNotAccepted;
  // A message is written in pieces; its last, short one must not wait until the peer acknowledges those before.
  const int on = 1;
  (void)::setsockopt(m_connSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return kSuccess;
}

int JavaPlugInSocket::acceptWhile(const std::function<bool()>& isAwaited) {
  pollfd waited{m_listenSocket, POLLIN, 0};
  while (::poll(&waited, 1, kLookMs) <= 0) {
    if (!isAwaited()) return kSocketNotAccepted;
  }
  return AcceptSocket();
}

void JavaPlugInSocket::SetSocketPort(int port) { m_port = port; }

int JavaPlugInSocket::GetSocketPort() { return m_port; }

int JavaPlugInSocket::WriteData(const void* bytes, int length, unsigned long&) {
  const auto* from = static_cast<const char*>(bytes);
  std::size_t left = static_cast<std::size_t>(std::max(length, 0));
  const PeerWatch::Wait wait(m_connSocket);
  const int flags = kNoSignal | (wait.PeerIsGone() ? MSG_DONTWAIT : 0);
  do {  // also nothing is sent, once
    const auto sent = uninterrupted([&] { return ::send(m_connSocket, from, std::min(left, kPiece), flags); });
    if (sent == -1) {
      TraceCode("WriteData", -1);
      ::shutdown(m_connSocket, SHUT_RDWR);
      return kSocketFailed;
    }
    from += sent;
    left -= static_cast<std::size_t>(sent);
  } while (left > 0);
  return kSuccess;
}

int JavaPlugInSocket::ReadData(char* bytes, int length, unsigned long& count) {
  const auto most = static_cast<std::size_t>(std::max(length, 0));
  const auto got = uninterrupted([&] { return ::recv(m_connSocket, bytes, most, 0); });
  if (got == -1) {
    ::shutdown(m_connSocket, SHUT_RDWR);
    TraceCode("ReadData", -1);
    return kSocketFailed;
  }
  count = static_cast<unsigned long>(got);
  return kSuccess;
}

int JavaPlugInSocket::CloseSocket() {
  if (const int result = ::shutdown(m_connSocket, SHUT_RDWR); result != 0) TraceCode("CloseServerSocket", result);
  const int result = ::shutdown(m_listenSocket, SHUT_RDWR);
  if (result != 0) TraceCode("CloseClientSocket", result);
  return result;
}
