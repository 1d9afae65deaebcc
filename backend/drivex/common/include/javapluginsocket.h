#pragma once

#include <functional>

#include "vexadx_export.h"

// The host's side of the connection of the Java extension process: listens on a port, accepts the one connection,
// writes and reads bytes. For the one thread that runs the Java extension.
//
// Descriptors are close-on-exec, calls that a signal interrupts go on, and a peer that is gone is a code and never a
// signal. Operations answer 0 or a code.
class VEXADX_API JavaPlugInSocket {
 public:
  JavaPlugInSocket();

  // Closes nothing: what was last created or accepted stays open.
  ~JavaPlugInSocket();
  JavaPlugInSocket(const JavaPlugInSocket&) = delete;
  JavaPlugInSocket& operator=(const JavaPlugInSocket&) = delete;

  // Listen on a port of all local interfaces; the second on one that the system chooses, which GetSocketPort then
  // answers. A socket listened on before is closed. vexadx::kSocketNotAccepted (99121) when there is no socket,
  // vexadx::kSocketFailed (99122) when it cannot be bound, listened on or asked for its port.
  int CreateSocket(int port);
  int CreateSocket();

  // Waits for a connection, whoever makes it; one accepted before is closed. vexadx::kSocketNotAccepted (99121).
  int AcceptSocket();

  void SetSocketPort(int port);
  int GetSocketPort();

  // Sends all the bytes, in pieces. What was sent before a failure stays sent. The count is not used.
  // vexadx::kSocketFailed (99122), and the connection is shut down.
  int WriteData(const void* bytes, int length, unsigned long& count);

  // Receives once, at most `length` bytes, waiting for some. `count` is set on success; 0: the peer has closed its end.
  // vexadx::kSocketFailed (99122), and the connection is shut down.
  int ReadData(char* bytes, int length, unsigned long& count);

  // Shuts the connection and the listening socket down, without closing them. Answers 0, or -1 when the latter fails.
  int CloseSocket();

 private:
  friend class OutpStatisticsX;

  // AcceptSocket, unless the connection is no longer awaited, which is asked ten times a second.
  VEXADX_HIDDEN int acceptWhile(const std::function<bool()>& isAwaited);

  int m_listenSocket;  // -1: none, like the next
  int m_connSocket;
  int m_port;
};
