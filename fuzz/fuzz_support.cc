#include "fuzz/fuzz_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "ndmpc/foundation/vx_socket.h"

namespace com::vx::korvane::ndmpc::fuzz {
namespace {

void MakePair(int fds[2]) {
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) __builtin_trap();
}

void WriteAll(int fd, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return;  // the reader is gone
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

}  // namespace

VxLog& QuietLog() {
  static VxLog* log = [] {
    auto* l = new VxLog();
    l->setLevel(0);
    l->setSink([](VxLog::Severity, const char*) {});
    return l;
  }();
  return *log;
}

void FeedStream(const std::uint8_t* data, std::size_t size,
                const std::function<void(CXDRStream&)>& read) {
  int fds[2];
  MakePair(fds);
  std::thread writer([fd = fds[0], data, size] {
    WriteAll(fd, data, size);
    ::close(fd);
  });
  {
    VxTcpSocket socket;
    socket.adopt(fds[1]);
    CXDRStream stream(socket, QuietLog());
    read(stream);
    socket.close();
  }
  writer.join();
}

void WithDrainedStream(const std::function<void(CXDRStream&)>& write) {
  int fds[2];
  MakePair(fds);
  std::thread drain([fd = fds[0]] {
    std::uint8_t sink[65536];
    while (::read(fd, sink, sizeof(sink)) > 0) {
    }
    ::close(fd);
  });
  {
    VxTcpSocket socket;
    socket.adopt(fds[1]);
    CXDRStream stream(socket, QuietLog());
    write(stream);
    socket.close();
  }
  drain.join();
}

std::vector<std::uint8_t> Frame(const std::uint8_t* payload, std::size_t size,
                                std::size_t fragment) {
  std::vector<std::uint8_t> out;
  out.reserve(size + 4 * (size / std::max<std::size_t>(fragment, 1) + 1));
  std::size_t offset = 0;
  do {
    std::size_t n = std::min(fragment, size - offset);
    bool last = offset + n == size;
    std::uint32_t header = static_cast<std::uint32_t>(n) | (last ? 0x80000000u : 0u);
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(header >> shift));
    out.insert(out.end(), payload + offset, payload + offset + n);
    offset += n;
  } while (offset < size);
  return out;
}

}  // namespace com::vx::korvane::ndmpc::fuzz
