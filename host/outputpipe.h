#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>

// Gets what another process writes to its standard streams. That process is started while a Redirection lives.
class OutputPipe {
 public:
  using Receiver = std::function<void(std::string_view)>;

  explicit OutputPipe(Receiver receiver);  // throws Problem when there can be no pipe
  ~OutputPipe();                           // after all that was written so far has been received
  OutputPipe(const OutputPipe&) = delete;
  OutputPipe& operator=(const OutputPipe&) = delete;

  // This process's standard streams lead into the pipe.
  class Redirection {
   public:
    explicit Redirection(const OutputPipe& pipe);
    ~Redirection();
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

   private:
    int m_out;
    int m_error;
  };

  // Returns when all that was written so far has been received.
  void Drain();

 private:
  struct Ends {
    Ends();
    ~Ends();
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    int read;
    int write;
  };

  void receive();
  std::size_t bytesThere() const;
  std::size_t readSome(std::size_t atMost);

  const Receiver m_receiver;
  const Ends m_output;
  const Ends m_end;  // tells the thread
  std::mutex m_reading;
  std::thread m_thread;
};
