#include "tests/support/wire_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace com::vx::korvane::ndmpc::testing {
namespace {

// Appends what `fd` delivers to `out` until `out` holds `limit` bytes, the
// data ends, an error, or the wait runs out: kWaitMs without a byte, or
// kWaitMs in all when `overall`.
void ReadInto(int fd, std::vector<unsigned char>* out, std::size_t limit, bool overall) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  unsigned char buffer[16384];
  while (out->size() < limit) {
    const auto left = !overall ? kWaitMs
                               : std::chrono::duration_cast<std::chrono::milliseconds>(
                                     deadline - std::chrono::steady_clock::now())
                                     .count();
    if (left <= 0) return;
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return;
    const ssize_t n = ::recv(fd, buffer, std::min(sizeof(buffer), limit - out->size()), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    out->insert(out->end(), buffer, buffer + n);
  }
}

// Writes `bytes` to `fd` in non-blocking steps until done, an error, or
// `stop` is set (so a reader that stopped early never leaves us blocked).
void WriteUntilDone(int fd, const std::vector<unsigned char>& bytes,
                    const std::atomic<bool>& stop) {
  std::size_t done = 0;
  while (done < bytes.size() && !stop.load()) {
    pollfd p{fd, POLLOUT, 0};
    int r = poll(&p, 1, 50);
    if (r < 0 && errno != EINTR) return;
    if (r <= 0) continue;
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return;
    }
  }
}

}  // namespace

CSocketPair::CSocketPair() {
  int fds[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
    a.adopt(fds[0]);
    b.adopt(fds[1]);
  }
}

CLoopbackTcp::CLoopbackTcp() {
  VxTcpListener listener;
  if (listener.listen("127.0.0.1", 0) != 0) return;
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(listener.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listener.accept(socket, kWaitMs) != 0) {
    ::close(fd);
    return;
  }
  peer = fd;
}

CLoopbackTcp::~CLoopbackTcp() {
  if (peer >= 0) ::close(peer);
}

bool CLoopbackTcp::PeerWrite(const std::vector<unsigned char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(peer, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::vector<unsigned char> CLoopbackTcp::PeerRead(std::size_t count) {
  std::vector<unsigned char> out;
  ReadInto(peer, &out, count, true);
  return out;
}

std::vector<unsigned char> CLoopbackTcp::PeerReadAll() {
  std::vector<unsigned char> out;
  ReadInto(peer, &out, SIZE_MAX, false);
  return out;
}

void CLoopbackTcp::PeerClose() {
  if (peer >= 0) ::close(peer);
  peer = -1;
}

void CLoopbackTcp::PeerReset() {
  if (peer < 0) return;
  linger hard{1, 0};
  ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
  ::close(peer);
  peer = -1;
}

std::vector<unsigned char> CaptureRecordBytes(const std::function<void(CXDRStream&)>& write) {
  CSocketPair pair;
  std::vector<unsigned char> received;
  std::thread reader([&] { ReadInto(pair.b.descriptor(), &received, SIZE_MAX, false); });
  {
    VxLog quiet;
    quiet.setLevel(0);
    CXDRStream stream(pair.a, quiet);
    write(stream);
  }
  pair.a.close();
  reader.join();
  return received;
}

std::vector<unsigned char> StripRecordMarks(const std::vector<unsigned char>& raw) {
  std::vector<unsigned char> data;
  std::size_t at = 0;
  while (at + 4 <= raw.size()) {
    std::uint32_t header = (static_cast<std::uint32_t>(raw[at]) << 24) |
                           (static_cast<std::uint32_t>(raw[at + 1]) << 16) |
                           (static_cast<std::uint32_t>(raw[at + 2]) << 8) | raw[at + 3];
    at += 4;
    std::size_t length = header & 0x7FFFFFFFu;
    std::size_t take = std::min(length, raw.size() - at);
    data.insert(data.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                raw.begin() + static_cast<std::ptrdiff_t>(at + take));
    at += take;
  }
  return data;
}

std::vector<unsigned char> FragmentHeader(std::uint32_t length, bool last) {
  std::uint32_t word = length | (last ? 0x80000000u : 0u);
  return {static_cast<unsigned char>(word >> 24), static_cast<unsigned char>(word >> 16),
          static_cast<unsigned char>(word >> 8), static_cast<unsigned char>(word)};
}

std::vector<unsigned char> MakeRecord(const std::vector<unsigned char>& payload,
                                      std::size_t fragment) {
  if (fragment == 0) fragment = 4096;
  std::vector<unsigned char> raw;
  std::size_t at = 0;
  do {
    std::size_t length = std::min(fragment, payload.size() - at);
    bool last = at + length == payload.size();
    std::vector<unsigned char> header = FragmentHeader(static_cast<std::uint32_t>(length), last);
    raw.insert(raw.end(), header.begin(), header.end());
    raw.insert(raw.end(), payload.begin() + static_cast<std::ptrdiff_t>(at),
               payload.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  } while (at < payload.size());
  return raw;
}

std::vector<unsigned char> EncodeValue(CIXDR& value) {
  return StripRecordMarks(CaptureRecordBytes([&](CXDRStream& stream) {
    value.Serialize(stream);
    stream.flushRecord();
  }));
}

int DecodeValue(const std::vector<unsigned char>& payload, CISerializable& value) {
  return DecodeValueRaw(MakeRecord(payload), value);
}

int DecodeValueRaw(const std::vector<unsigned char>& raw, CISerializable& value, VxLog* log) {
  CSocketPair pair;
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    WriteUntilDone(pair.a.descriptor(), raw, stop);
    pair.a.close();
  });
  VxLog quiet;
  quiet.setLevel(0);
  int result;
  {
    CXDRStream stream(pair.b, log != nullptr ? *log : quiet);
    result = value.DeSerialize(stream);
    stop.store(true);
    writer.join();
  }
  return result;
}

CCapturingLog::CCapturingLog() { setLevel(4); }

std::vector<CCapturingLog::Line> CCapturingLog::Lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> CCapturingLog::Texts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> texts;
  for (const Line& line : lines_) texts.push_back(line.second);
  return texts;
}

bool CCapturingLog::Contains(const std::string& text) const { return Count(text) > 0; }

int CCapturingLog::Count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return CountLocked(text);
}

int CCapturingLog::CountLocked(const std::string& text) const {
  int n = 0;
  for (const Line& line : lines_) n += line.second.find(text) != std::string::npos ? 1 : 0;
  return n;
}

bool CCapturingLog::WaitFor(const std::string& text, int timeoutMs, int count) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return added_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [&] { return CountLocked(text) >= count; });
}

void CCapturingLog::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

void CCapturingLog::WriteLine(Severity severity, const char* text) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(severity, text);
  }
  added_.notify_all();
}

std::string Hex(const std::vector<unsigned char>& bytes) {
  std::string text;
  char piece[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(piece, sizeof(piece), "%02X", bytes[i]);
    if (i != 0) text += ' ';
    text += piece;
  }
  return text;
}

std::vector<unsigned char> Bytes(std::initializer_list<int> values) {
  std::vector<unsigned char> bytes;
  bytes.reserve(values.size());
  for (int v : values) bytes.push_back(static_cast<unsigned char>(v));
  return bytes;
}

std::vector<unsigned char> Concat(std::initializer_list<std::vector<unsigned char>> parts) {
  std::vector<unsigned char> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<unsigned char> Words(std::initializer_list<std::uint32_t> words) {
  std::vector<unsigned char> out;
  for (std::uint32_t w : words) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(w >> shift));
  }
  return out;
}

std::vector<unsigned char> Counting(std::size_t length, unsigned char first) {
  std::vector<unsigned char> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<unsigned char>(first + i);
  return bytes;
}

std::vector<unsigned char> OpaqueBytes(const CXDROpaque& opaque) {
  const auto* data = static_cast<const unsigned char*>(opaque.GetData());
  return std::vector<unsigned char>(data, data + opaque.GetSize());
}

void SetOpaque(CXDROpaque& opaque, const std::vector<unsigned char>& bytes) {
  opaque.SetData(bytes.data(), bytes.size());
}

}  // namespace com::vx::korvane::ndmpc::testing
