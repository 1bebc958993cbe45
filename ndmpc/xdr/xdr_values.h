// The encodable values: the CISerializable and CIXDR interfaces and the XDR
// scalar types (RFC 4506: big-endian, every item padded to 4 bytes).
//
//   CXDRString name("abcde");     // 00 00 00 05 61 62 63 64 65 00 00 00
//   name.Serialize(stream);       // a non-failure number, or XDR_FAILURE
//   name.DumpContents(0);         // "\"abcde\""
#pragma once

#include <cstdint>
#include <vector>

#include "ndmpc/foundation/vx_string.h"
#include "ndmpc/xdr/xdr_stream.h"

namespace com::vx::korvane::ndmpc {

namespace detail {
// Writes a 4-byte big-endian word; the stream's result.
inline int PutWord(CXDRStream& stream, std::uint32_t value) {
  unsigned char bytes[4] = {static_cast<unsigned char>(value >> 24),
                            static_cast<unsigned char>(value >> 16),
                            static_cast<unsigned char>(value >> 8),
                            static_cast<unsigned char>(value)};
  return stream.putBytes(4, bytes);
}
// Reads a 4-byte big-endian word; the stream's result.
inline int GetWord(CXDRStream& stream, std::uint32_t* value) {
  unsigned char bytes[4];
  int r = stream.getBytes(4, bytes);
  if (r == XDR_FAILURE) return r;
  *value = (static_cast<std::uint32_t>(bytes[0]) << 24) |
           (static_cast<std::uint32_t>(bytes[1]) << 16) |
           (static_cast<std::uint32_t>(bytes[2]) << 8) | bytes[3];
  return r;
}
}  // namespace detail

class CISerializable {
 public:
  virtual int Serialize(CXDRStream& stream) = 0;
  virtual int DeSerialize(CXDRStream& stream) = 0;
  virtual ~CISerializable() = default;

 protected:
  CISerializable() = default;
  CISerializable(const CISerializable&) = default;
  CISerializable& operator=(const CISerializable&) = default;
};

class CIXDR : public CISerializable {
 public:
  // The kind of a value; containers use it to dump members and to pass a
  // protocol version on to nested records.
  enum MemberType : std::uint32_t {
    MEMBER_ULONG = 0,
    MEMBER_STRING = 1,
    MEMBER_BOOL = 2,
    MEMBER_ARRAY = 3,
    MEMBER_ENUM = 4,
    MEMBER_CONTAINER = 5,
    MEMBER_OPAQUE = 6,
  };

  virtual unsigned int SerializeSize() = 0;
  virtual VxString DumpContents(int level) = 0;
  MemberType GetMemberType() const { return static_cast<MemberType>(memberType_); }

 protected:
  explicit CIXDR(MemberType type) : memberType_(static_cast<std::uint8_t>(type)) {}
  // Copies the kind only; the state bits belong to each object.
  CIXDR(const CIXDR& other) noexcept : memberType_(other.memberType_) {}
  CIXDR& operator=(const CIXDR& other) noexcept {
    memberType_ = other.memberType_;
    return *this;
  }

  // Bits for the derived classes' own bookkeeping. They sit in the bytes
  // after the kind, which would otherwise be padding, so that values stay
  // as small as a vtable pointer and one word.
  std::uint8_t stateBits_ = 0;

 private:
  std::uint8_t memberType_;
};

class CXDRULong : public CIXDR {
 public:
  CXDRULong() : CIXDR(MEMBER_ULONG) {}
  explicit CXDRULong(MemberType type) : CIXDR(type) {}
  CXDRULong(const int& value) : CIXDR(MEMBER_ULONG), value_(static_cast<std::uint32_t>(value)) {}
  CXDRULong(unsigned int value) : CIXDR(MEMBER_ULONG), value_(value) {}
  CXDRULong(const CXDRULong&) = default;
  ~CXDRULong() override = default;

  // Final, so that records may encode and decode their word members
  // directly, without a virtual call per word.
  int Serialize(CXDRStream& stream) final { return detail::PutWord(stream, value_); }
  int DeSerialize(CXDRStream& stream) final {
    std::uint32_t v = 0;
    if (detail::GetWord(stream, &v) == XDR_FAILURE) return XDR_FAILURE;
    value_ = v;
    return 4;
  }
  unsigned int SerializeSize() final { return 4; }
  VxString DumpContents(int level) override;

  unsigned int getInt32() const { return value_; }
  operator unsigned int() const { return value_; }
  bool operator==(const CXDRULong& other) const { return value_ == other.value_; }
  bool operator!=(const CXDRULong& other) const { return value_ != other.value_; }
  bool operator==(unsigned int value) const { return value_ == value; }
  bool operator!=(unsigned int value) const { return value_ != value; }
  // Both assignments store the value and return a copy, as the interface has it.
  CXDRULong operator=(const CXDRULong& other) {
    value_ = other.value_;
    return *this;
  }
  CXDRULong operator=(unsigned int value) {
    value_ = value;
    return *this;
  }

 protected:
  std::uint32_t value_ = 0;
};

// A 16-bit quantity carried in a full XDR word; it keeps all 32 bits it is given.
class CXDRUShort : public CXDRULong {
 public:
  CXDRUShort() = default;
  explicit CXDRUShort(MemberType type) : CXDRULong(type) {}
  CXDRUShort(const int& value) : CXDRULong(value) {}
  CXDRUShort(const CXDRUShort&) = default;
  ~CXDRUShort() override = default;
  CXDRUShort& operator=(const CXDRUShort& other) {
    value_ = other.value_;
    return *this;
  }
  int operator=(int value) {
    value_ = static_cast<std::uint32_t>(value);
    return value;
  }
};

class CXDRBool : public CXDRULong {
 public:
  CXDRBool() : CXDRULong(MEMBER_BOOL) {}
  CXDRBool(const bool& value) : CXDRULong(MEMBER_BOOL) { value_ = value ? 1 : 0; }
  CXDRBool(const CXDRBool&) = default;
  ~CXDRBool() override = default;

  VxString DumpContents(int level) override;

  operator bool() const { return value_ != 0; }
  bool operator==(const CXDRBool& other) const { return value_ == other.value_; }
  bool operator!=(const CXDRBool& other) const { return value_ != other.value_; }
  // Deliberately asymmetric with operator bool: a received word other than 0
  // or 1 is neither equal nor unequal to true or false.
  bool operator==(const bool& b) const { return b ? value_ == 1 : value_ == 0; }
  bool operator!=(const bool& b) const { return b ? value_ == 0 : value_ == 1; }
  CXDRBool operator=(const CXDRBool& other) {
    value_ = other.value_;
    return *this;
  }
  CXDRBool operator=(bool value) {
    value_ = value ? 1 : 0;
    return *this;
  }
};

class CXDRString : public CIXDR {
 public:
  CXDRString() : CIXDR(MEMBER_STRING) {}
  CXDRString(const VxString& text) : CIXDR(MEMBER_STRING), text_(text) {}
  CXDRString(const char* text) : CIXDR(MEMBER_STRING), text_(text != nullptr ? text : "") {}
  CXDRString(const CXDRString&) = default;
  CXDRString(CXDRString&&) = default;
  ~CXDRString() override = default;

  int Serialize(CXDRStream& stream) override;
  int DeSerialize(CXDRStream& stream) override;
  unsigned int SerializeSize() override;
  VxString DumpContents(int level) override;

  const VxString& GetString() const { return text_; }
  operator VxString() const { return text_; }
  operator const char*() const { return text_.c_str(); }
  int SetString(const VxString& text) {
    text_ = text;
    return 0;
  }
  int SetString(const char* text) {
    text_ = text != nullptr ? text : "";
    return 0;
  }
  bool operator==(const CXDRString& other) const { return text_ == other.text_; }
  bool operator!=(const CXDRString& other) const { return text_ != other.text_; }
  bool operator==(const VxString& other) const { return text_ == other; }
  bool operator!=(const VxString& other) const { return text_ != other; }
  CXDRString& operator=(const CXDRString&) = default;
  CXDRString& operator=(CXDRString&&) = default;

 private:
  VxString text_;
};

// Variable-length opaque data (length word, bytes, padding), or fixed-length
// data (bytes and padding only).
class CXDROpaque : public CIXDR {
 public:
  CXDROpaque() : CIXDR(MEMBER_OPAQUE) {}
  // Fixed length n, holding n zero bytes.
  explicit CXDROpaque(std::uint64_t n);
  // Copies the data and, deliberately, makes the value fixed-length with that length.
  CXDROpaque(const unsigned char* data, unsigned int length);
  CXDROpaque(const CXDROpaque&) = default;
  CXDROpaque(CXDROpaque&&) = default;
  ~CXDROpaque() override = default;

  int Serialize(CXDRStream& stream) override;
  int DeSerialize(CXDRStream& stream) override;
  unsigned int SerializeSize() override;
  VxString DumpContents(int level) override;

  const void* GetData() const { return data_.data(); }
  std::uint64_t GetSize() const { return data_.size(); }
  // Replaces the data; the fixed-length flag and size stay. Returns the new length.
  std::uint64_t SetData(const void* data, std::uint64_t length);
  bool IsFixedLength() const { return fixed_; }
  std::uint64_t GetFixedSize() const { return fixedSize_; }

  bool operator==(const CXDROpaque& other) const { return data_ == other.data_; }
  bool operator!=(const CXDROpaque& other) const { return data_ != other.data_; }
  CXDROpaque& operator=(const CXDROpaque&) = default;
  CXDROpaque& operator=(CXDROpaque&&) = default;

 private:
  std::vector<unsigned char> data_;
  bool fixed_ = false;
  std::uint64_t fixedSize_ = 0;
};

namespace detail {
// Formats like printf into a VxString.
VxString Format(const char* format, ...) NDMPC_PRINTF_FORMAT(1, 2);
}  // namespace detail

}  // namespace com::vx::korvane::ndmpc
