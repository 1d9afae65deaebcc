#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "ratio.h"

// The limit that exchanges of the library are held against: as many bytes, written and read bare.

constexpr std::size_t kPiece = 8192;

// A process of its own that does the work and ends; waited for.
class Child {
 public:
  explicit Child(const std::function<void()>& work) : m_pid(::fork()) {
    stopUnless(m_pid != -1, "cannot fork");
    if (m_pid == 0) {
      work();
      ::_exit(0);
    }
  }
  ~Child() { ::waitpid(m_pid, nullptr, 0); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  pid_t m_pid;
};

class Directory {
 public:
  Directory() { stopUnless(::mkdtemp(m_path.data()) != nullptr, "no directory for pipes"); }
  ~Directory() { ::rmdir(m_path.c_str()); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  std::string Path(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path = "/tmp/vexadx-bench-XXXXXX";
};

inline void writeAll(int descriptor, const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(descriptor, bytes, std::min(length, kPiece));
    stopUnless(written > 0, "cannot write");
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
}

// False at the end.
inline bool readAll(int descriptor, char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t got = ::read(descriptor, bytes, std::min(length, kPiece));
    stopUnless(got >= 0, "cannot read");
    if (got == 0) return false;
    bytes += got;
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

// Memory that has been touched. It starts with a page: the system copies to and from other places more slowly.
class Bytes {
 public:
  explicit Bytes(std::size_t size)
      : m_size(size), m_bytes(static_cast<char*>(std::aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage))) {
    stopUnless(m_bytes != nullptr, "no memory");
    std::fill_n(m_bytes.get(), size, 'b');
  }
  char* data() { return m_bytes.get(); }
  std::size_t size() const { return m_size; }

 private:
  static constexpr std::size_t kPage = 4096;
  struct Free {
    void operator()(char* bytes) const { std::free(bytes); }
  };

  std::size_t m_size;
  std::unique_ptr<char, Free> m_bytes;
};

// The bare exchange: so many bytes there, so many back.
class BareEnd {
 public:
  BareEnd(int out, int in, std::size_t there, std::size_t back) : m_out(out), m_in(in), m_there(there), m_back(back) {}
  ~BareEnd() {
    ::close(m_out);
    if (m_in != m_out) ::close(m_in);
  }
  BareEnd(const BareEnd&) = delete;
  BareEnd& operator=(const BareEnd&) = delete;

  void Exchange() {
    writeAll(m_out, m_there.data(), m_there.size());
    stopUnless(readAll(m_in, m_back.data(), m_back.size()), "the other end is gone");
  }
  void Answer() {
    while (readAll(m_in, m_there.data(), m_there.size())) writeAll(m_out, m_back.data(), m_back.size());
  }

 private:
  int m_out;
  int m_in;
  Bytes m_there;
  Bytes m_back;
};

inline int opened(const std::string& path, int mode) {
  const int descriptor = ::open(path.c_str(), mode | O_CLOEXEC);
  stopUnless(descriptor != -1, "cannot open a FIFO");
  return descriptor;
}
