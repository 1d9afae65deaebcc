#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// A connection to a port of this machine, which the caller closes and no program inherits; -1 when there is none.
inline int ConnectedTo(int port) {
  const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
  ::fcntl(connection, F_SETFD, FD_CLOEXEC);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return connection;
  ::close(connection);
  return -1;
}
