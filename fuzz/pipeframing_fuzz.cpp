// A stream through a real FIFO, whose pieces the system keeps apart.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "framingcheck.h"
#include "vexapipe.h"

namespace {

class PipeChannel {
 public:
  static constexpr int kMalformed = vexadx::kPipeFailed;

  PipeChannel() {
    require(::mkdtemp(m_directory) != nullptr);
    m_pipe.SetPipeName(std::string(m_directory) + "/pipe");
    require(m_pipe.CreatePipe() == 0 && m_pipe.OpenPipeToUnBlockRead() == 0);
  }
  ~PipeChannel() {
    (void)::unlink(m_pipe.GetPipeName().c_str());
    (void)::rmdir(m_directory);
  }
  PipeChannel(const PipeChannel&) = delete;
  PipeChannel& operator=(const PipeChannel&) = delete;

  void Send(const std::vector<std::string_view>& pieces) {
    const int descriptor = ::open(m_pipe.GetPipeName().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    require(::fcntl(descriptor, F_SETFL, O_DIRECT | O_NONBLOCK) == 0);  // a read gets no more than one write's bytes
    constexpr int kRoom = 1 << 20;                                      // a page for each piece
    if (!m_hasRoom) require(::fcntl(descriptor, F_SETPIPE_SZ, kRoom) >= kRoom);
    m_hasRoom = true;
    for (const std::string_view piece : pieces) {
      require(::write(descriptor, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()));
    }
    ::close(descriptor);
  }
  int Receive(CleXDSmb& block) { return ReceiveData(&m_pipe, block); }
  std::size_t Left() {
    std::array<char, 4096> bytes;
    std::size_t left = 0;
    for (unsigned long count = 1; count > 0; left += count) {
      require(m_pipe.ReadData(static_cast<int>(bytes.size()), bytes.data(), count) == 0);
    }
    return left;
  }

 private:
  char m_directory[32] = "/tmp/vexadxfuzzXXXXXX";
  VexaPipe m_pipe;
  bool m_hasRoom = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static PipeChannel channel;
  checkStream(channel, data, size);
  return 0;
}
