// The record stream against a raw TCP peer on 127.0.0.1: fragment sizes on
// the wire, reading across fragments and chunks, skipping the rest of a
// record, and what the peer's close or reset does to the stream.
#include "ndmpc/xdr/xdr_stream.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using testing::Bytes;
using testing::CCapturingLog;
using testing::CLoopbackTcp;
using testing::Concat;
using testing::FragmentHeader;
using testing::Hex;

std::vector<unsigned char> Pattern(std::size_t n, unsigned seed = 0) {
  std::vector<unsigned char> bytes(n);
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>((i + seed) % 251);
  return bytes;
}

std::vector<unsigned char> Slice(const std::vector<unsigned char>& bytes, std::size_t at,
                                 std::size_t n) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(at),
          bytes.begin() + static_cast<std::ptrdiff_t>(at + n)};
}

std::vector<unsigned char> Text(const std::string& s) { return {s.begin(), s.end()}; }

// (length, last) of each fragment header in raw stream bytes.
std::vector<std::pair<std::uint32_t, bool>> Fragments(const std::vector<unsigned char>& raw) {
  std::vector<std::pair<std::uint32_t, bool>> fragments;
  std::size_t at = 0;
  while (at + 4 <= raw.size()) {
    std::uint32_t word = (static_cast<std::uint32_t>(raw[at]) << 24) |
                         (static_cast<std::uint32_t>(raw[at + 1]) << 16) |
                         (static_cast<std::uint32_t>(raw[at + 2]) << 8) | raw[at + 3];
    fragments.emplace_back(word & 0x7FFFFFFFu, (word & 0x80000000u) != 0);
    at += 4 + (word & 0x7FFFFFFFu);
  }
  return fragments;
}

class RecordStream : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tcp_.ok());
    stream_ = std::make_unique<CXDRStream>(tcp_.socket, log_);
  }

  std::vector<unsigned char> Get(int count) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
    EXPECT_EQ(stream_->getBytes(count, bytes.data()), count);
    return bytes;
  }

  std::vector<std::pair<VxLog::Severity, std::string>> Errors() const {
    std::vector<std::pair<VxLog::Severity, std::string>> errors;
    for (auto& line : log_.Lines()) {
      if (line.first != VxLog::kDebug) errors.push_back(line);
    }
    return errors;
  }

  CLoopbackTcp tcp_;
  CCapturingLog log_;
  std::unique_ptr<CXDRStream> stream_;
};

TEST_F(RecordStream, ReadsRecordSplitIntoEmptyFragments) {
  const auto data = Pattern(15);
  ASSERT_TRUE(tcp_.PeerWrite(Concat({FragmentHeader(10, false), Slice(data, 0, 10),
                                     FragmentHeader(0, false), FragmentHeader(5, true),
                                     Slice(data, 10, 5), FragmentHeader(4, true), Text("next")})));
  // Zero bytes touch no socket: the header is still unread afterwards.
  EXPECT_EQ(stream_->getBytes(0, nullptr), 0);
  EXPECT_EQ(stream_->GetBytesAvailable(), 0);
  EXPECT_EQ(Get(3), Slice(data, 0, 3));
  EXPECT_EQ(stream_->GetBytesAvailable(), 7);
  EXPECT_EQ(Get(12), Slice(data, 3, 12));
  EXPECT_EQ(stream_->GetBytesAvailable(), 0);
  // Reading goes on into the next record.
  EXPECT_EQ(Get(4), Text("next"));
  EXPECT_TRUE(Errors().empty());
}

TEST_F(RecordStream, ReadsLongFragmentInChunksOfTheBufferSize) {
  const auto data = Pattern(10000);
  ASSERT_TRUE(tcp_.PeerWrite(Concat({FragmentHeader(10000, true), data})));
  std::vector<unsigned char> got;
  for (int expectedChunk : {4096, 4096, 1808}) {
    auto first = Get(1);
    EXPECT_EQ(stream_->GetBytesAvailable(), expectedChunk - 1);
    auto rest = Get(expectedChunk - 1);
    EXPECT_EQ(stream_->GetBytesAvailable(), 0);
    got.insert(got.end(), first.begin(), first.end());
    got.insert(got.end(), rest.begin(), rest.end());
  }
  // Only the first read took a header: every data byte arrived in order.
  EXPECT_EQ(got, data);
}

TEST_F(RecordStream, WritesFragmentsOfAtMostTheBufferSize) {
  struct Case {
    std::vector<int> puts;
    std::vector<std::pair<std::uint32_t, bool>> fragments;
  };
  const Case cases[] = {
      {{24, 4090}, {{24, false}, {4090, true}}},
      {{100, 10000}, {{100, false}, {4096, false}, {4096, false}, {1808, true}}},
      // A buffer filled exactly is written only by the next put or the flush.
      {{4000, 96}, {{4096, true}}},
      {{4000, 96, 1}, {{4096, false}, {1, true}}},
      {{1, 1, 1}, {{3, true}}},
  };
  unsigned seed = 0;
  for (const Case& c : cases) {
    std::vector<unsigned char> sent;
    for (int n : c.puts) {
      auto piece = Pattern(static_cast<std::size_t>(n), ++seed);
      EXPECT_EQ(stream_->putBytes(n, piece.data()), n);
      sent.insert(sent.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(stream_->flushRecord(), 0);
    auto raw = tcp_.PeerRead(sent.size() + 4 * c.fragments.size());
    EXPECT_EQ(Fragments(raw), c.fragments) << "puts of " << c.puts.size();
    EXPECT_EQ(testing::StripRecordMarks(raw), sent);
  }
  EXPECT_TRUE(Errors().empty());
}

TEST_F(RecordStream, OversizedPutAndEmptyFlushFailAndWriteNothing) {
  EXPECT_EQ(stream_->flushRecord(), XDR_FAILURE);  // nothing buffered: silently
  EXPECT_TRUE(Errors().empty());
  const auto big = Pattern(5000);
  EXPECT_EQ(stream_->putBytes(5000, big.data()), XDR_FAILURE);
  EXPECT_EQ(Errors(), (std::vector<std::pair<VxLog::Severity, std::string>>{
                          {VxLog::kError, "(CXDRStream::putBytes) Failed to flush buffer"}}));
  // Nothing went out and nothing stayed buffered.
  const unsigned char one = 0x42;
  EXPECT_EQ(stream_->putBytes(1, &one), 1);
  EXPECT_EQ(stream_->flushRecord(), 0);
  EXPECT_EQ(stream_->flushRecord(), XDR_FAILURE);
  EXPECT_EQ(Hex(tcp_.PeerRead(5)), "80 00 00 01 42");
}

TEST_F(RecordStream, IsAvailableWaitsBrieflyAndCountsAnEmptyFragment) {
  EXPECT_FALSE(stream_->IsAvailable());  // after the 500 ms poll
  EXPECT_TRUE(stream_->IsConnected());
  EXPECT_TRUE(Errors().empty());
  ASSERT_TRUE(tcp_.PeerWrite(FragmentHeader(0, true)));
  EXPECT_TRUE(stream_->IsAvailable());
  EXPECT_EQ(stream_->GetBytesAvailable(), 0);
  ASSERT_TRUE(tcp_.PeerWrite(Concat({FragmentHeader(2, true), Bytes({7, 8})})));
  EXPECT_TRUE(stream_->IsAvailable());
  EXPECT_EQ(stream_->GetBytesAvailable(), 2);
  EXPECT_TRUE(stream_->IsAvailable());  // buffered data answers without I/O
}

TEST(RecordStreamEnd, EndOfDataClosesTheStreamWhereverItComes) {
  const std::pair<const char*, std::vector<unsigned char>> cases[] = {
      {"before a header", {}},
      {"inside a header", Bytes({0, 0})},
      {"inside fragment data", Concat({FragmentHeader(10, true), Bytes({1, 2, 3})})},
  };
  for (const auto& c : cases) {
    CLoopbackTcp tcp;
    ASSERT_TRUE(tcp.ok());
    CCapturingLog log;
    CXDRStream stream(tcp.socket, log);
    ASSERT_TRUE(tcp.PeerWrite(c.second));
    tcp.PeerClose();
    unsigned char buffer[10];
    EXPECT_EQ(stream.getBytes(10, buffer), XDR_FAILURE) << c.first;
    auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 3u) << c.first;
    EXPECT_EQ(lines[1],
              std::make_pair(VxLog::kWarning, std::string("(CXDRStream::readInputBuffer) Detected "
                                                          "NO_MORE_DATA. Closing socket.")))
        << c.first;
    EXPECT_EQ(lines[2],
              std::make_pair(VxLog::kError, std::string("CXDRStream::getBytes Failed to obtain "
                                                        "10 bytes")))
        << c.first;
    EXPECT_FALSE(stream.IsConnected()) << c.first;
    EXPECT_FALSE(tcp.socket.isConnected()) << c.first;
    // A closed stream fails at once instead of waiting for a header.
    EXPECT_FALSE(stream.IsAvailable());
    EXPECT_EQ(stream.getBytes(4, buffer), XDR_FAILURE);
  }
}

TEST_F(RecordStream, ResetByPeerBeforeAHeaderClosesTheStream) {
  tcp_.PeerReset();
  unsigned char buffer[4];
  EXPECT_EQ(stream_->getBytes(4, buffer), XDR_FAILURE);
  EXPECT_TRUE(log_.Contains(
      "(CXDRStream::readInputBuffer) Detected Connection Reset by peer. Closing socket."));
  EXPECT_FALSE(stream_->IsConnected());
  EXPECT_FALSE(tcp_.socket.isConnected());
}

// Waits (bounded) until the kernel holds no unread input for `fd`.
bool InputDrained(int fd) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    int pending = -1;
    if (ioctl(fd, SIOCINQ, &pending) == 0 && pending == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST_F(RecordStream, ResetInsideFragmentDataIsAPlainReadError) {
  ASSERT_TRUE(tcp_.PeerWrite(Concat({FragmentHeader(100, true), Pattern(10)})));
  std::atomic<int> result{0};
  std::thread reader([&] {
    unsigned char buffer[100];
    result = stream_->getBytes(100, buffer);
  });
  // Once the header and the ten bytes have left the kernel, the reset can
  // only hit the read of the fragment's remaining data.
  EXPECT_TRUE(InputDrained(tcp_.socket.descriptor()));
  tcp_.PeerReset();
  reader.join();
  EXPECT_EQ(result.load(), XDR_FAILURE);
  EXPECT_TRUE(log_.Contains("(CXDRStream::readInputBuffer) Error Reading from Socket. Ret=10054"));
  EXPECT_FALSE(log_.Contains("Detected"));
  EXPECT_TRUE(stream_->IsConnected());  // deliberately neither flagged nor closed
}

TEST_F(RecordStream, SkipRecordDropsTheRestOfAFinalFragmentSilently) {
  ASSERT_TRUE(tcp_.PeerWrite(
      Concat({FragmentHeader(12, true), Pattern(12), FragmentHeader(4, true), Text("next")})));
  Get(4);
  EXPECT_EQ(stream_->skipRecord(), 0);
  EXPECT_EQ(stream_->GetBytesAvailable(), 0);
  EXPECT_EQ(Get(4), Text("next"));
  EXPECT_TRUE(Errors().empty());
}

TEST_F(RecordStream, SkipRecordReadsAndReportsEachChunkOfFurtherFragments) {
  ASSERT_TRUE(tcp_.PeerWrite(
      Concat({FragmentHeader(8, false), Pattern(8), FragmentHeader(5000, false), Pattern(5000),
              FragmentHeader(3, true), Pattern(3), FragmentHeader(4, true), Text("next")})));
  Get(4);
  EXPECT_EQ(stream_->skipRecord(), 0);
  EXPECT_EQ(Errors(), (std::vector<std::pair<VxLog::Severity, std::string>>{
                          {VxLog::kError, "4096 more bytes still not handled. Discarding"},
                          {VxLog::kError, "904 more bytes still not handled. Discarding"},
                          {VxLog::kError, "3 more bytes still not handled. Discarding"}}));
  EXPECT_EQ(Get(4), Text("next"));
}

TEST_F(RecordStream, SkipRecordLeavesUnreadChunksOfALongFinalFragment) {
  const auto data = Pattern(10000);
  ASSERT_TRUE(tcp_.PeerWrite(Concat({FragmentHeader(10000, true), data})));
  Get(4);
  EXPECT_EQ(stream_->skipRecord(), 0);
  EXPECT_TRUE(Errors().empty());
  // Deliberately so: the next read continues inside the same fragment.
  EXPECT_EQ(Get(4), Slice(data, 4096, 4));
}

TEST_F(RecordStream, SkipRecordBeforeAnyHeaderDiscardsOneWholeRecord) {
  ASSERT_TRUE(tcp_.PeerWrite(
      Concat({FragmentHeader(5, true), Pattern(5), FragmentHeader(4, true), Text("next")})));
  EXPECT_EQ(stream_->skipRecord(), 0);
  EXPECT_EQ(Errors(), (std::vector<std::pair<VxLog::Severity, std::string>>{
                          {VxLog::kError, "5 more bytes still not handled. Discarding"}}));
  EXPECT_EQ(Get(4), Text("next"));
}

TEST_F(RecordStream, WriteFailuresAreLoggedWithTheSocketStatus) {
  const auto data = Pattern(5000);
  ASSERT_EQ(stream_->putBytes(10, data.data()), 10);
  tcp_.socket.close();
  EXPECT_EQ(stream_->flushRecord(), 10053);
  EXPECT_EQ(Errors(),
            (std::vector<std::pair<VxLog::Severity, std::string>>{
                {VxLog::kError,
                 "(CXDRStream::writeOutputBuffer) Failed to write record header to socket. "
                 "Ret=10053"}}));
  log_.Clear();
  // The ten bytes are still buffered, so this put must flush them first.
  EXPECT_EQ(stream_->putBytes(4090, data.data()), XDR_FAILURE);
  auto texts = log_.Texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0],
            "(CXDRStream::writeOutputBuffer) Failed to write record header to socket. Ret=10053");
  EXPECT_EQ(texts[1], "(CXDRStream::putBytes) Failed to flush buffer");
}

TEST_F(RecordStream, DestructionLogsAndClosesWithoutFlushing) {
  const unsigned char byte = 1;
  stream_->putBytes(1, &byte);
  stream_.reset();
  EXPECT_FALSE(tcp_.socket.isConnected());
  EXPECT_TRUE(tcp_.PeerReadAll().empty());
  EXPECT_EQ(log_.Lines(), (std::vector<std::pair<VxLog::Severity, std::string>>{
                              {VxLog::kDebug, "CXDRStream::CXDRStream"},
                              {VxLog::kDebug, "CXDRStream::~CXDRStream"}}));
}

TEST_F(RecordStream, OneThreadReadsWhileAnotherWrites) {
  // The peer echoes every byte back, so the stream reads its own records.
  std::thread echo([this] {
    unsigned char buffer[8192];
    for (;;) {
      pollfd p{tcp_.peer, POLLIN, 0};
      if (poll(&p, 1, testing::kWaitMs) <= 0) return;
      ssize_t n = ::recv(tcp_.peer, buffer, sizeof(buffer), 0);
      if (n <= 0) return;
      if (!tcp_.PeerWrite(std::vector<unsigned char>(buffer, buffer + n))) return;
    }
  });
  constexpr int kRecords = 60;
  std::thread writer([this] {
    for (int i = 0; i < kRecords; ++i) {
      auto body = Pattern(static_cast<std::size_t>(1 + i * 150), static_cast<unsigned>(i));
      unsigned char size[4] = {0, 0, static_cast<unsigned char>(body.size() >> 8),
                               static_cast<unsigned char>(body.size())};
      stream_->putBytes(4, size);
      stream_->putBytes(static_cast<int>(body.size()), body.data());
      stream_->flushRecord();
    }
  });
  for (int i = 0; i < kRecords; ++i) {
    auto size = Get(4);
    int n = (size[2] << 8) | size[3];
    ASSERT_EQ(n, 1 + i * 150);
    EXPECT_EQ(Get(n), Pattern(static_cast<std::size_t>(n), static_cast<unsigned>(i)));
    stream_->skipRecord();
  }
  writer.join();
  ::shutdown(tcp_.peer, SHUT_RDWR);
  echo.join();
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
