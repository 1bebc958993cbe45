#include "ndmpc/xdr/xdr_stream.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace com::vx::korvane::ndmpc {
namespace {

const wchar_t kConstructorLabel[] = L"CXDRStream::CXDRStream";
const wchar_t kDestructorLabel[] = L"CXDRStream::~CXDRStream";
const wchar_t kReadLabel[] = L"(CXDRStream::readInputBuffer)";
const wchar_t kWriteLabel[] = L"(CXDRStream::writeOutputBuffer)";
const wchar_t kGetBytesLabel[] = L"CXDRStream::getBytes";
const wchar_t kPutBytesLabel[] = L"(CXDRStream::putBytes)";

bool IsEndOfData(unsigned int status) { return status == VX_SOCKET_END_OF_DATA || status == 40; }

}  // namespace

CXDRStream::CXDRStream(VxTcpSocket& socket, VxLog& log)
    : socket_(socket), inputCursor_(inputBuffer_), outputCursor_(outputBuffer_), log_(log) {
  log_.debug("%ls", kConstructorLabel);
  connected_ = socket_.isConnected();
}

CXDRStream::CXDRStream(const CXDRStream& other)
    : socket_(other.socket_),
      inputCursor_(other.inputCursor_),
      outputCursor_(other.outputCursor_),
      available_(other.available_),
      log_(other.log_),
      connected_(other.connected_.load()),
      lastFragment_(other.lastFragment_),
      atFragmentStart_(other.atFragmentStart_),
      fragmentLength_(other.fragmentLength_),
      fragmentRemaining_(other.fragmentRemaining_),
      maxRecordSize_(other.maxRecordSize_.load()),
      recordSize_(other.recordSize_),
      overLimit_(other.overLimit_) {
  std::memcpy(inputBuffer_, other.inputBuffer_, sizeof(inputBuffer_));
  std::memcpy(outputBuffer_, other.outputBuffer_, sizeof(outputBuffer_));
}

CXDRStream::~CXDRStream() {
  log_.debug("%ls", kDestructorLabel);
  // Buffered output is deliberately not flushed.
  if (socket_.isConnected()) socket_.close();
}

bool CXDRStream::IsConnected() { return socket_.isConnected() && connected_; }

bool CXDRStream::IsAvailable() {
  if (available_ != 0) return true;
  return readInputBuffer(1, true) != -1;
}

void CXDRStream::EndOfData(const wchar_t* label, bool reset) {
  connected_ = false;
  socket_.close();
  if (reset) {
    log_.warning("%ls Detected Connection Reset by peer. Closing socket.", label);
  } else {
    log_.warning("%ls Detected NO_MORE_DATA. Closing socket.", label);
  }
}

int CXDRStream::readInputBuffer(int wanted, bool quick) {
  if (available_ >= wanted) return available_;
  // A partly used chunk is never topped up; the callers loop.
  if (available_ != 0) return available_;
  std::memset(inputBuffer_, 0, sizeof(inputBuffer_));
  unsigned int transferred = 0;
  if (atFragmentStart_) {
    unsigned int wait = (wanted == 1 && quick) ? kPollWaitMs : kHeaderWaitMs;
    if (socket_.waitForInput(wait) != 0) return -1;
    std::uint32_t header = 0;
    unsigned int status = socket_.read(&header, kHeaderSize, &transferred);
    if (IsEndOfData(status)) {
      EndOfData(kReadLabel, false);
      return -1;
    }
    if (status == VX_SOCKET_RESET || status == VX_SOCKET_ABORTED) {
      EndOfData(kReadLabel, true);
      return -1;
    }
    if (status != 0) {
      log_.error("%ls Error Reading from Socket. Ret=%d", kReadLabel, static_cast<int>(status));
      return -1;
    }
    if (transferred != static_cast<unsigned int>(kHeaderSize)) {
      log_.error("%ls Error Reading from record header.Got only %d bytes instead of %d bytes",
                 kReadLabel, static_cast<int>(transferred), kHeaderSize);
      return -1;
    }
    header = ntohl(header);
    if (lastFragment_) {  // the previous record has ended: this header starts a new one
      recordSize_ = 0;
      overLimit_ = false;
    }
    lastFragment_ = (header & kLastFragment) != 0;
    fragmentLength_ = fragmentRemaining_ = header & kLengthMask;
    // Checked once per fragment, before its bytes are read; the chunk read
    // below still comes in, so that the message header can be named.
    recordSize_ += fragmentLength_;
    if (recordSize_ > maxRecordSize_.load(std::memory_order_relaxed)) overLimit_ = true;
  }
  std::uint32_t chunk;
  if (fragmentRemaining_ > static_cast<std::uint32_t>(kBufferSize)) {
    chunk = kBufferSize;
    atFragmentStart_ = false;
  } else {
    chunk = fragmentRemaining_;
    atFragmentStart_ = true;
  }
  transferred = 0;
  unsigned int status = chunk == 0 ? 0 : socket_.read(inputBuffer_, chunk, &transferred);
  if (IsEndOfData(status)) {
    EndOfData(kReadLabel, false);
    return -1;
  }
  // A reset here is deliberately reported as a plain read error.
  if (status != 0) {
    log_.error("%ls Error Reading from Socket. Ret=%d", kReadLabel, static_cast<int>(status));
    return -1;
  }
  if (transferred != chunk) {
    // The message prints the header size, not the chunk size, on purpose.
    log_.error("%ls Error Reading from socket. Got only %d bytes instead of %d bytes", kReadLabel,
               static_cast<int>(transferred), kHeaderSize);
    return -1;
  }
  fragmentRemaining_ -= transferred;
  available_ = static_cast<int>(transferred);
  inputCursor_ = inputBuffer_;
  return available_;
}

int CXDRStream::getBytesFromSocket(int count, unsigned char* destination,
                                   std::uint32_t following, int* obtained) {
  int remaining = count;
  do {
    if (Refused()) {
      // Not logged here: the reader reports the oversized record once.
      if (obtained != nullptr) *obtained = count - remaining;
      return XDR_FAILURE;
    }
    int r = readInputBuffer(remaining, false);
    if (r == -1) {
      // The count is what the whole value still lacks, as a single read of
      // it would report (wrapping like that read's int count).
      log_.error("%ls Failed to obtain %d bytes", kGetBytesLabel,
                 static_cast<int>(static_cast<std::uint32_t>(remaining) + following));
      if (obtained != nullptr) *obtained = count - remaining;
      return XDR_FAILURE;
    }
    int n = std::min(r, remaining);
    if (n > 0) {
      std::memcpy(destination, inputCursor_, static_cast<size_t>(n));
      inputCursor_ += n;
      destination += n;
      available_ -= n;
      remaining -= n;
    }
  } while (remaining > 0);
  return count;
}

int CXDRStream::putBytes(int count, const unsigned char* source) {
  if (count < 0) return XDR_FAILURE;
  if (Buffered() + count > kBufferSize) {
    if (writeOutputBuffer(false) != 0) {
      log_.error("%ls Failed to flush buffer", kPutBytesLabel);
      return XDR_FAILURE;
    }
  }
  int remaining = count;
  for (;;) {
    int n = std::min(remaining, kBufferSize - Buffered());
    if (n > 0) {
      std::memcpy(outputCursor_, source, static_cast<size_t>(n));
      outputCursor_ += n;
      source += n;
      remaining -= n;
    }
    if (remaining == 0) return count;
    if (Buffered() >= kBufferSize && writeOutputBuffer(false) != 0) {
      log_.error("%ls Failed to flush buffer", kPutBytesLabel);
      return XDR_FAILURE;
    }
  }
}

int CXDRStream::writeOutputBuffer(bool last) {
  int length = Buffered();
  if (length == 0) return XDR_FAILURE;
  std::uint32_t header = htonl(static_cast<std::uint32_t>(length) | (last ? kLastFragment : 0u));
  unsigned int transferred = 0;
  // The header is always followed at once by its data: let the socket send both together.
  unsigned int status = socket_.write(&header, kHeaderSize, &transferred, true);
  if (status != 0) {
    log_.error("%ls Failed to write record header to socket. Ret=%d", kWriteLabel,
               static_cast<int>(status));
    return static_cast<int>(status);
  }
  if (transferred != static_cast<unsigned int>(kHeaderSize)) {
    log_.error(
        "%ls Failed to write full record header to socket. Could write only %d bytes instead of "
        "%d bytes",
        kWriteLabel, static_cast<int>(transferred), kHeaderSize);
    return XDR_FAILURE;
  }
  transferred = 0;
  status = socket_.write(outputBuffer_, static_cast<unsigned int>(length), &transferred, !last);
  outputCursor_ = outputBuffer_;  // failed data is dropped
  if (status != 0) {
    log_.error("%ls Failed to write record to socket. Ret=%d", kWriteLabel,
               static_cast<int>(status));
    return static_cast<int>(status);
  }
  if (transferred != static_cast<unsigned int>(length)) {
    log_.error(
        "%ls Failed to write full record to socket. Could write only %d bytes instead of %d "
        "bytes",
        kWriteLabel, static_cast<int>(transferred), length);
    return XDR_FAILURE;
  }
  return 0;
}

int CXDRStream::flushRecord() { return writeOutputBuffer(true); }

int CXDRStream::skipRecord() {
  if (available_ != 0) {
    available_ = 0;
    inputCursor_ = inputBuffer_;
  }
  while (!lastFragment_) {
    int r = readInputBuffer(1, false);
    if (r == -1) break;
    log_.error("%d more bytes still not handled. Discarding", available_);
    available_ = 0;
    inputCursor_ = inputBuffer_;
  }
  return 0;
}

int CXDRStream::DiscardRecord() {
  std::uint64_t dropped = static_cast<std::uint64_t>(available_);
  available_ = 0;
  inputCursor_ = inputBuffer_;
  while (!AtRecordEnd()) {
    int r = readInputBuffer(1, false);
    if (r == -1) return -1;
    dropped += static_cast<std::uint64_t>(available_);
    available_ = 0;
    inputCursor_ = inputBuffer_;
  }
  overLimit_ = false;
  return static_cast<int>(std::min<std::uint64_t>(dropped, INT_MAX));
}

}  // namespace com::vx::korvane::ndmpc
