// CXDRStream: ONC RPC record marking over one connected TCP socket.
//
// Values write themselves with putBytes and the message ends with
// flushRecord; the receiver reads values with getBytes and drops what a
// message left unread with skipRecord. Every record travels as fragments of
// at most 4096 data bytes, each behind a 4-byte header (bit 31: last
// fragment of the record; bits 0-30: length).
//
// One thread may use the input side (IsAvailable, getBytes, skipRecord,
// GetBytesAvailable) while another uses the output side (putBytes,
// flushRecord); each side belongs to one thread at a time.
//
// Input records have a maximum size. The fragment headers announce each
// record's length before its bytes arrive: once the announced total passes
// the maximum, the stream still hands out the chunk already taken, then
// refuses further reads of that record (XDR_FAILURE, nothing logged) until
// DiscardRecord has dropped the rest. The reader reports the record once.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"

namespace com::vx::korvane::ndmpc {

// Failure result of the stream and of every Serialize/DeSerialize.
constexpr int XDR_FAILURE = static_cast<int>(0xCFFFFFFFu);

class CXDRStream {
 public:
  static constexpr int kBufferSize = 4096;
  static constexpr int kHeaderSize = 4;
  static constexpr std::uint32_t kLastFragment = 0x80000000u;
  static constexpr std::uint32_t kLengthMask = 0x7FFFFFFFu;
  static constexpr unsigned int kHeaderWaitMs = 30000;
  static constexpr unsigned int kPollWaitMs = 500;
  static constexpr std::uint32_t kDefaultMaxRecordSize = 64u << 20;

  // The socket and the log are not owned and must outlive the stream.
  CXDRStream(VxTcpSocket& socket, VxLog& log);
  // Member-wise copy: the copy's cursors keep pointing into the source's buffers.
  CXDRStream(const CXDRStream& other);
  CXDRStream& operator=(const CXDRStream&) = delete;
  virtual ~CXDRStream();

  bool IsConnected();
  // True when input is buffered, or a fragment starts within 500 ms.
  bool IsAvailable();
  int GetBytesAvailable() const { return available_; }

  // Reads `count` bytes (across fragments and records): count, or XDR_FAILURE.
  // Bytes already in the input buffer are taken inline, without a call.
  int getBytes(int count, unsigned char* destination) {
    if (count > 0 && available_ >= count) {
      std::memcpy(destination, inputCursor_, static_cast<std::size_t>(count));
      inputCursor_ += count;
      available_ -= count;
      return count;
    }
    return getBytesFromSocket(count, destination, 0, nullptr);
  }
  // Reads one piece of a longer value, as getBytes does. `following` is the
  // number of bytes of the same value after this piece: a failure logs them
  // as missing too, so the count is that of the whole value. `*obtained`
  // receives the bytes copied before a failure (count on success).
  int getPiece(int count, unsigned char* destination, std::uint32_t following, int* obtained) {
    *obtained = 0;
    int r = count > 0 && available_ >= count
                ? getBytes(count, destination)
                : getBytesFromSocket(count, destination, following, obtained);
    if (r != XDR_FAILURE) *obtained = count;
    return r;
  }
  // Buffers `count` bytes, writing full fragments as needed: count, or XDR_FAILURE.
  int putBytes(int count, const unsigned char* source);
  // Writes the buffered bytes as the record's last fragment: 0, a socket
  // status, or XDR_FAILURE (also when nothing is buffered).
  int flushRecord();
  // Discards the rest of the current input record. Always 0. Unread chunks
  // of a long final fragment are deliberately left in place.
  int skipRecord();
  // True when the current input record has been read to its very end.
  bool AtRecordEnd() const { return available_ == 0 && atFragmentStart_ && lastFragment_; }
  // Reads and drops everything up to the end of the current record, long
  // final fragments included, so that the next read starts a new record.
  // The number of bytes dropped (at most INT_MAX), or -1 when the stream
  // failed first. Ends the refusal of a record over the maximum size.
  int DiscardRecord();

  // The longest input record taken, in payload bytes; any value, and any
  // thread (the reader sees it from the next fragment header on).
  void SetMaxRecordSize(std::uint32_t bytes) { maxRecordSize_.store(bytes); }
  std::uint32_t GetMaxRecordSize() const { return maxRecordSize_.load(); }
  // True while the current input record is over the maximum size and has
  // not been discarded.
  bool RecordOverLimit() const { return overLimit_; }
  // Payload bytes the current input record's fragment headers announced so
  // far: its whole size once its last header has been read.
  std::uint64_t GetRecordSize() const { return recordSize_; }

 private:
  int readInputBuffer(int wanted, bool quick);
  int getBytesFromSocket(int count, unsigned char* destination, std::uint32_t following,
                         int* obtained);
  int writeOutputBuffer(bool last);
  int Buffered() const { return static_cast<int>(outputCursor_ - outputBuffer_); }
  // A read that needs more input of a record over the maximum size.
  bool Refused() const { return overLimit_ && available_ == 0 && !AtRecordEnd(); }
  void EndOfData(const wchar_t* label, bool reset);

  VxTcpSocket& socket_;
  unsigned char inputBuffer_[kBufferSize];
  unsigned char outputBuffer_[kBufferSize];
  unsigned char* inputCursor_;
  unsigned char* outputCursor_;
  int available_ = 0;
  VxLog& log_;
  // Cleared for good by end of data or a reset; read by other threads.
  std::atomic<bool> connected_;
  bool lastFragment_ = false;
  bool atFragmentStart_ = true;
  std::uint32_t fragmentLength_ = 0;
  std::uint32_t fragmentRemaining_ = 0;
  std::atomic<std::uint32_t> maxRecordSize_{kDefaultMaxRecordSize};
  std::uint64_t recordSize_ = 0;
  bool overLimit_ = false;
};

}  // namespace com::vx::korvane::ndmpc
