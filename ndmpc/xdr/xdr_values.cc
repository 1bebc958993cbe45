#include "ndmpc/xdr/xdr_values.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace com::vx::korvane::ndmpc {
namespace detail {

VxString Format(const char* format, ...) {
  char small[256];
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(small, sizeof(small), format, copy);
  va_end(copy);
  VxString result;
  if (n >= 0 && static_cast<size_t>(n) < sizeof(small)) {
    result.assign(small, static_cast<size_t>(n));
  } else if (n >= 0) {
    result.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(&result[0], result.size(), format, args);
    result.resize(static_cast<size_t>(n));
  }
  va_end(args);
  return result;
}

}  // namespace detail

namespace {

const unsigned char kZeros[4] = {0, 0, 0, 0};

unsigned int Padding(std::uint64_t n) { return static_cast<unsigned int>((4 - (n % 4)) % 4); }

// Writes n bytes and their padding; the result callers compare with XDR_FAILURE.
int PutPadded(CXDRStream& stream, const unsigned char* data, std::uint64_t n) {
  int written = stream.putBytes(static_cast<int>(n), data);
  // Compared with 0xFFFFFFFF, which putBytes never returns: a failed text
  // write is deliberately left to the stream's own error message.
  if (static_cast<unsigned int>(written) == 0xFFFFFFFFu) return XDR_FAILURE;
  unsigned int pad = Padding(n);
  if (pad != 0) return stream.putBytes(static_cast<int>(pad), kZeros);
  return written;
}

// Largest piece read at once; long data grows as it arrives, so a length
// word from the wire never makes us allocate more than was received.
constexpr std::uint32_t kChunk = 4096;

// Reads n bytes into `out` in chunks. XDR_FAILURE when the stream fails;
// `out` then holds every byte the read delivered, the last partial piece
// included, and the stream's log counts the bytes missing from all n.
template <class Bytes>
int GetChunked(CXDRStream& stream, std::uint32_t n, Bytes& out) {
  out.clear();
  std::uint32_t done = 0;
  while (done < n) {
    std::uint32_t piece = std::min(n - done, kChunk);
    out.resize(done + piece);
    int obtained = 0;
    if (stream.getPiece(static_cast<int>(piece),
                        reinterpret_cast<unsigned char*>(&out[0]) + done, n - done - piece,
                        &obtained) == XDR_FAILURE) {
      out.resize(done + static_cast<std::uint32_t>(obtained));
      return XDR_FAILURE;
    }
    done += piece;
  }
  return 0;
}

void SkipPadding(CXDRStream& stream, std::uint64_t n) {
  unsigned int pad = Padding(n);
  unsigned char scratch[4];
  if (pad != 0) stream.getBytes(static_cast<int>(pad), scratch);
}

}  // namespace

VxString CXDRULong::DumpContents(int /*level*/) { return std::to_string(value_); }

VxString CXDRBool::DumpContents(int /*level*/) { return value_ != 0 ? "true" : "false"; }

int CXDRString::Serialize(CXDRStream& stream) {
  std::uint32_t n = static_cast<std::uint32_t>(text_.size());
  detail::PutWord(stream, n);
  return PutPadded(stream, reinterpret_cast<const unsigned char*>(text_.data()), n);
}

int CXDRString::DeSerialize(CXDRStream& stream) {
  text_.clear();
  std::uint32_t n = 0;
  if (detail::GetWord(stream, &n) == XDR_FAILURE) return XDR_FAILURE;
  if (n != 0) {
    if (GetChunked(stream, n, text_) == XDR_FAILURE) {
      text_.clear();
      return XDR_FAILURE;
    }
    // The text ends at the first zero byte of the data.
    size_t zero = text_.find('\0');
    if (zero != VxString::npos) text_.resize(zero);
  }
  SkipPadding(stream, n);
  return static_cast<int>(4 + n + Padding(n));
}

unsigned int CXDRString::SerializeSize() {
  return static_cast<unsigned int>(4 + text_.size() + Padding(text_.size()));
}

VxString CXDRString::DumpContents(int /*level*/) { return "\"" + text_ + "\""; }

CXDROpaque::CXDROpaque(std::uint64_t n)
    : CIXDR(MEMBER_OPAQUE), data_(static_cast<size_t>(n)), fixed_(true), fixedSize_(n) {}

CXDROpaque::CXDROpaque(const unsigned char* data, unsigned int length)
    : CIXDR(MEMBER_OPAQUE), data_(data, data + length), fixed_(true), fixedSize_(length) {}

std::uint64_t CXDROpaque::SetData(const void* data, std::uint64_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (bytes == nullptr) length = 0;
  data_.assign(bytes, bytes + length);
  return data_.size();
}

int CXDROpaque::Serialize(CXDRStream& stream) {
  if (!fixed_) {
    detail::PutWord(stream, static_cast<std::uint32_t>(data_.size()));
    return PutPadded(stream, data_.data(), data_.size());
  }
  // A fixed-length value sends exactly its fixed size; data shorter than
  // that is completed with zero bytes rather than read past its end.
  if (data_.size() >= fixedSize_) return PutPadded(stream, data_.data(), fixedSize_);
  std::vector<unsigned char> whole(data_);
  whole.resize(static_cast<size_t>(fixedSize_), 0);
  return PutPadded(stream, whole.data(), fixedSize_);
}

int CXDROpaque::DeSerialize(CXDRStream& stream) {
  data_.clear();
  std::uint32_t n;
  bool counted = !fixed_;
  if (fixed_) {
    n = static_cast<std::uint32_t>(fixedSize_);
  } else if (detail::GetWord(stream, &n) == XDR_FAILURE) {
    return XDR_FAILURE;
  }
  // The result of the data read is deliberately not examined; a failed read
  // keeps what did arrive.
  if (n != 0) GetChunked(stream, n, data_);
  SkipPadding(stream, (counted ? 4u : 0u) + n);
  return static_cast<int>((counted ? 4u : 0u) + n + Padding(n));
}

unsigned int CXDROpaque::SerializeSize() {
  // Follows the data length even for a fixed-length value, whose Serialize
  // writes the fixed size: the size reported is deliberately that of the data.
  std::uint64_t n = (fixed_ ? 0 : 4) + data_.size();
  return static_cast<unsigned int>(n + Padding(n));
}

VxString CXDROpaque::DumpContents(int level) {
  VxString result;
  const VxString indent(static_cast<size_t>(4 * std::max(level, 0)), ' ');
  VxString text;
  const size_t size = data_.size();
  size_t column = 0;
  char piece[32];
  size_t i = 0;
  size_t shown = 0;
  while (i < size) {
    if (shown == 128 && size - i >= 129) {
      result += "\n" + indent;
      std::snprintf(piece, sizeof(piece), "<<Skipped %d bytes>>", static_cast<int>(size - 256));
      result += piece;
      i = size - 128;
      // A partly filled line before the skip cannot occur: 128 is a multiple of 16.
    }
    if (column == 0) {
      std::snprintf(piece, sizeof(piece), "%04X: ", static_cast<unsigned int>(i));
      result += "\n" + indent + piece;
    }
    unsigned char byte = data_[i];
    std::snprintf(piece, sizeof(piece), "%02X ", byte);
    result += piece;
    text += (std::isgraph(byte) && byte != '%') ? static_cast<char>(byte) : '.';
    ++i;
    ++shown;
    if (++column == 16) {
      result += "  " + text;
      text.clear();
      column = 0;
    }
  }
  if (!text.empty()) {
    for (size_t k = column; k < 16; ++k) {
      result += "   ";
      text += ' ';
    }
    result += "  " + text;
  }
  return result;
}

}  // namespace com::vx::korvane::ndmpc
