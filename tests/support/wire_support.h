// Test support: real sockets and helpers for exact-byte and log assertions.
//
//   auto bytes = EncodeValue(value);                  // payload, record marks removed
//   EXPECT_EQ(Hex(bytes), Hex(Bytes({0, 0, 0, 7})));  // "00 00 00 07"
//   CXDRULong back;
//   EXPECT_EQ(DecodeValue(bytes, back), 4);
//
// Everything here runs the real CXDRStream over connected socket pairs;
// every wait is bounded (kWaitMs), so a broken peer fails a test instead of
// hanging the suite.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/xdr/xdr_stream.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc::testing {

// Upper bound of every wait in these helpers.
constexpr int kWaitMs = 10000;

// Two connected sockets made with socketpair(AF_UNIX, SOCK_STREAM): what is
// written on `a` is read on `b` and the other way round.
class CSocketPair {
 public:
  CSocketPair();
  CSocketPair(const CSocketPair&) = delete;
  CSocketPair& operator=(const CSocketPair&) = delete;

  VxTcpSocket a;
  VxTcpSocket b;
};

// A TCP connection over 127.0.0.1: `socket` is a VxTcpSocket (the side a
// CXDRStream runs on), `peer` the raw descriptor of the other end, owned
// here, for writing and reading raw bytes.
class CLoopbackTcp {
 public:
  CLoopbackTcp();
  ~CLoopbackTcp();
  CLoopbackTcp(const CLoopbackTcp&) = delete;
  CLoopbackTcp& operator=(const CLoopbackTcp&) = delete;

  bool ok() const { return peer >= 0 && socket.isConnected(); }
  // Writes all bytes to the peer descriptor; false on failure.
  bool PeerWrite(const std::vector<unsigned char>& bytes);
  // Reads exactly `count` bytes from the peer (bounded wait); fewer on
  // end of data or time-out.
  std::vector<unsigned char> PeerRead(std::size_t count);
  // Reads everything until the socket side closes (bounded wait).
  std::vector<unsigned char> PeerReadAll();
  // Closes the peer normally (end of data for `socket`).
  void PeerClose();
  // Closes the peer with SO_LINGER 0, so that `socket` sees a reset.
  void PeerReset();

  VxTcpSocket socket;
  int peer = -1;
};

// Runs `write` on a CXDRStream (quiet log) over side a of a socket pair,
// closes a, and returns every byte that arrived on b, fragment headers
// included. Read concurrently, so large outputs cannot deadlock.
std::vector<unsigned char> CaptureRecordBytes(const std::function<void(CXDRStream&)>& write);

// The data of all fragments of `raw` without their 4-byte headers.
std::vector<unsigned char> StripRecordMarks(const std::vector<unsigned char>& raw);

// `payload` as one record: fragments of `fragment` bytes, the last one with
// bit 31 set; an empty payload becomes one empty last fragment.
std::vector<unsigned char> MakeRecord(const std::vector<unsigned char>& payload,
                                      std::size_t fragment = 4096);
// One fragment header (4 bytes, big-endian) for `length` data bytes.
std::vector<unsigned char> FragmentHeader(std::uint32_t length, bool last);

// Serialises `value`, flushes the record and returns the payload without
// record marks (empty when nothing was written).
std::vector<unsigned char> EncodeValue(CIXDR& value);

// Sends `payload` as one record (see MakeRecord) from a writer thread, then
// closes the writer side, and returns value.DeSerialize(stream) decoded on
// the other side. Decoding past the record thus fails at once (end of data)
// instead of waiting for another header.
int DecodeValue(const std::vector<unsigned char>& payload, CISerializable& value);
// Sends `raw` exactly as given (headers made by the caller), then closes the
// writer side, and decodes like DecodeValue. `log` receives the stream's
// lines when given.
int DecodeValueRaw(const std::vector<unsigned char>& raw, CISerializable& value,
                   VxLog* log = nullptr);

// A VxLog that keeps every line in memory. Level 4 (debug) by default.
class CCapturingLog : public VxLog {
 public:
  using Line = std::pair<VxLog::Severity, std::string>;

  CCapturingLog();

  std::vector<Line> Lines() const;
  // The texts only, in order.
  std::vector<std::string> Texts() const;
  // True when some line contains `text`.
  bool Contains(const std::string& text) const;
  // Number of lines that contain `text`.
  int Count(const std::string& text) const;
  // Waits up to `timeoutMs` until `count` lines contain `text`.
  bool WaitFor(const std::string& text, int timeoutMs = kWaitMs, int count = 1) const;
  void Clear();

 protected:
  void WriteLine(Severity severity, const char* text) override;

 private:
  int CountLocked(const std::string& text) const;  // with mutex_ held

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Line> lines_;  // guarded by mutex_
};

// "00 00 00 05 61": two upper-case hex digits per byte, separated by spaces.
std::string Hex(const std::vector<unsigned char>& bytes);
// Bytes({0x00, 0x05, 'a'}) for exact-byte expectations.
std::vector<unsigned char> Bytes(std::initializer_list<int> values);
// Concatenation, for building raw input: Concat({FragmentHeader(..), Bytes(..)}).
std::vector<unsigned char> Concat(std::initializer_list<std::vector<unsigned char>> parts);
// Big-endian 4-byte words: Words({2, 0x11}) is "00 00 00 02 00 00 00 11".
std::vector<unsigned char> Words(std::initializer_list<std::uint32_t> words);
// `length` bytes counting up from `first` (wrapping at 256).
std::vector<unsigned char> Counting(std::size_t length, unsigned char first = 1);
// The bytes an opaque holds, and setting them.
std::vector<unsigned char> OpaqueBytes(const CXDROpaque& opaque);
void SetOpaque(CXDROpaque& opaque, const std::vector<unsigned char>& bytes);

}  // namespace com::vx::korvane::ndmpc::testing
