#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "peerwatch.h"
#include "vexadx_death.h"

struct ChildOutputSettings {
  vexadx::Streams streams;
  vexadx::OutputReceiver receiver;  // empty: this process's standard error
};

// What a child writes to its standard error, or to both of its streams, on its way to whom it is for. A thread hands it
// on until the child has died, or nobody has the other end any more; then no descriptor is left either.
class ChildOutput {
 public:
  // Null when there is no memory, thread or descriptor for it. ParentGoesOn follows, come what may.
  static std::shared_ptr<ChildOutput> Make(std::shared_ptr<const ChildOutputSettings> settings);

  explicit ChildOutput(std::shared_ptr<const ChildOutputSettings> settings);
  ChildOutput(const ChildOutput&) = delete;
  ChildOutput& operator=(const ChildOutput&) = delete;

  // After the fork. In the child: nothing but system calls.
  void TakeStreams() const;
  void ParentGoesOn();

  // What it wrote before is still handed on.
  void ChildHasDied();

  // All that is there.
  void HandOn();

  // The same, and the receiver is not called any more.
  void Release();

  // The end of what was written; with a child that has died, of all.
  std::string LastLines(bool hasDied);

 private:
  // Above the standard streams, in case that the host has closed one of those.
  struct Pipe {
    bool Open();

    PeerWatch::Descriptor read;
    PeerWatch::Descriptor write;
  };

  bool open();
  void run();
  bool close();
  bool awaitMore() const;
  std::size_t bytesThere() const;  // REQUIRES: m_reading is held, as for the next two
  std::string_view readSome(char* buffer, std::size_t atMost);
  void keep(std::string_view text);
  std::size_t handOnSome();  // REQUIRES: m_handingOn is held, as for the next two
  void hand(std::string_view text);
  void write(std::string_view text) const;

  const std::shared_ptr<const ChildOutputSettings> m_settings;
  Pipe m_told;  // of the child's death

  // Held while a piece is read and handed on, which may wait for whom it is for. Outer to the other.
  std::mutex m_handingOn;
  bool m_isReleased = false;
  PeerWatch::Descriptor m_error;

  // Nothing waits under it.
  std::mutex m_reading;
  Pipe m_pipe;
  std::string m_kept;
  std::string m_read;  // and not handed on yet
  bool m_isAllRead = false;
  bool m_isClosed = false;
};
