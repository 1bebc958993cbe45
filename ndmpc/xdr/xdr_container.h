// XDR structures and arrays.
//
// A record is a CXDRContainer whose fields are ordinary members, named once,
// in wire order, by its RegisterMembers; the container serialises, decodes,
// sizes and dumps them in that order:
//
//   class CPoint : public CXDRContainer {
//    public:
//     CXDRULong X, Y;
//    protected:
//     int RegisterMembers() override {
//       RegisterMember("X", &X);
//       RegisterMember("Y", &Y);
//       return 0;
//     }
//   };
//
// Registration is lazy: the first Serialize, DeSerialize, SerializeSize or
// DumpContents registers the members under the record's protocol version
// (4 unless set). A copy never shares the source's registration; it
// registers its own members when first used.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

class CXDRContainer : public CIXDR {
 public:
  // One registered field. A name given as a literal (a const char array) is
  // used as it is; any other name is copied into the record, and stays valid
  // until the record is destroyed or registers its members anew.
  struct MemberItem {
    const char* name;
    CIXDR* member;
    MemberType memberType;
  };

  CXDRContainer() : CIXDR(MEMBER_CONTAINER) {}
  // Copies the protocol version; the copy registers its own members.
  CXDRContainer(const CXDRContainer& other) : CIXDR(other), version_(other.version_) {}
  // Moves keep records cheap to relocate inside growing arrays.
  CXDRContainer(CXDRContainer&& other) noexcept : CIXDR(other), version_(other.version_) {}
  CXDRContainer& operator=(const CXDRContainer& other);
  CXDRContainer& operator=(CXDRContainer&& other) noexcept {
    return operator=(static_cast<const CXDRContainer&>(other));
  }
  ~CXDRContainer() override = default;

  int Serialize(CXDRStream& stream) override;
  int DeSerialize(CXDRStream& stream) override;
  unsigned int SerializeSize() override;
  VxString DumpContents(int level) override;

  // Appends a member under `name`; 0, or XDR_FAILURE for a null member.
  // A const char array is taken to be a literal and is not copied; a
  // writable buffer and a VxString are copied into the record.
  template <std::size_t N>
  int RegisterMember(const char (&name)[N], CIXDR* member) {
    return AddMember(name, member);
  }
  template <std::size_t N>
  int RegisterMember(char (&name)[N], CIXDR* member) {
    return RegisterMember(VxString(name, std::find(name, name + N, '\0')), member);
  }
  int RegisterMember(const VxString& name, CIXDR* member);
  void ClearRegistration() { members_.clear(); }

  CXDREnumBase<enums::CNDMPProtocolVersion> GetProtocolVersion() const {
    return CXDREnumBase<enums::CNDMPProtocolVersion>(version_);
  }
  // Stores `version`; when it differs from the stored one, registers the
  // members anew and passes the version on to nested records (not to records
  // inside arrays). Returns the stored version.
  CXDREnumBase<enums::CNDMPProtocolVersion> SetProtocolVersion(
      CXDREnumBase<enums::CNDMPProtocolVersion> version);

  // The registered members, registering them first if needed.
  std::size_t GetMemberCount();
  const MemberItem& GetMember(std::size_t index);

 protected:
  // Registers each field, in wire order, with RegisterMember; returns 0.
  virtual int RegisterMembers() = 0;
  // Registers the members when nothing is registered yet.
  void EnsureRegistered() {
    if (members_.empty()) RegisterMembers();
  }
  std::uint32_t Version() const { return version_; }
  // Registers a member under a name with static storage (a literal held in
  // a table, say); the name is not copied.
  int RegisterStaticMember(const char* name, CIXDR* member) { return AddMember(name, member); }

 private:
  // A list of registered members that keeps the first few inline, so that
  // the small records of long arrays (file-history entries, 64-bit numbers)
  // register without touching the heap.
  class CMemberList {
   public:
    static constexpr std::size_t kInline = 4;
    CMemberList() = default;
    CMemberList(const CMemberList&) = delete;
    CMemberList& operator=(const CMemberList&) = delete;
    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }
    void clear() {
      size_ = 0;
      overflow_.reset();
      names_.reset();
    }
    void push_back(const MemberItem& item);
    // Keeps a copy of `name` until the next clear; the copy's address is stable.
    const char* KeepName(const VxString& name);
    const MemberItem& operator[](std::size_t i) const {
      return i < kInline ? inline_[i] : overflow_->at(i - kInline);
    }

   private:
    MemberItem inline_[kInline];
    std::uint32_t size_ = 0;
    std::unique_ptr<std::vector<MemberItem>> overflow_;
    // Copies of the names that are not literals; a deque never moves its
    // elements, and records named by literals alone never allocate it.
    std::unique_ptr<std::deque<VxString>> names_;
  };

  int AddMember(const char* name, CIXDR* member);

  CMemberList members_;
  std::uint32_t version_ = 4;
};

// A counted XDR array of T, or, after SetFixedSize(n), exactly n elements
// without a count word.
template <class T>
class CXDRArray : public CIXDR {
 public:
  CXDRArray() : CIXDR(MEMBER_ARRAY) {}
  CXDRArray(const CXDRArray&) = default;
  CXDRArray(CXDRArray&&) = default;
  CXDRArray& operator=(const CXDRArray&) = default;
  CXDRArray& operator=(CXDRArray&&) = default;
  ~CXDRArray() override = default;

  int Serialize(CXDRStream& stream) override {
    if (fixed_) {
      for (std::uint32_t i = 0; i < fixedCount_ && i < items_.size(); ++i) {
        items_[i].Serialize(stream);
      }
      return 0;
    }
    detail::PutWord(stream, static_cast<std::uint32_t>(items_.size()));
    for (T& item : items_) item.Serialize(stream);
    return 0;
  }

  int DeSerialize(CXDRStream& stream) override {
    items_.clear();
    std::uint32_t n = fixedCount_;
    if (!fixed_ && detail::GetWord(stream, &n) == XDR_FAILURE) return XDR_FAILURE;
    // The storage grows as elements arrive; a count from the wire is never
    // used to allocate ahead.
    for (std::uint32_t i = 0; i < n; ++i) {
      items_.emplace_back();
      if (items_.back().DeSerialize(stream) == XDR_FAILURE) {
        items_.pop_back();
        return XDR_FAILURE;
      }
    }
    return 0;
  }

  // 4 for the count word (counted even for a fixed-size array, which sends
  // none) plus the elements.
  unsigned int SerializeSize() override {
    unsigned int total = 4;
    for (T& item : items_) total += item.SerializeSize();
    return total;
  }

  VxString DumpContents(int level) override {
    VxString text;
    const VxString indent(static_cast<std::size_t>(4 * (level > 0 ? level : 0)), ' ');
    for (std::size_t i = 0; i < items_.size(); ++i) {
      T& item = items_[i];
      MemberType kind = item.GetMemberType();
      if (kind == MEMBER_ARRAY || kind == MEMBER_CONTAINER) {
        text += "\n" + indent + "Item " + std::to_string(static_cast<int>(i)) + "\n" + indent +
                "{" + item.DumpContents(level + 1) + "\n" + indent + "}";
      } else {
        text += "\n" + indent + item.DumpContents(level);
      }
    }
    return text;
  }

  std::uint64_t size() const { return items_.size(); }
  bool SetFixedSize(int n) {
    if (n < 1) {
      fixed_ = false;
      fixedCount_ = 0;
      return false;
    }
    fixed_ = true;
    fixedCount_ = static_cast<std::uint32_t>(n);
    return true;
  }
  int GetFixedSize() const { return fixed_ ? static_cast<int>(fixedCount_) : 0; }
  int AddItem(T item) {
    items_.push_back(std::move(item));
    return 0;
  }
  void Clear() { items_.clear(); }
  void Reserve(std::size_t n) { items_.reserve(n); }
  T& operator[](unsigned int i) { return items_.at(i); }
  const T& operator[](unsigned int i) const { return items_.at(i); }
  T& operator()(unsigned int i) { return items_.at(i); }

  // Makes a fresh default element, so generic code (the command-line tool,
  // JSON output) can fill arrays without knowing T.
  T& AppendNew() {
    items_.emplace_back();
    return items_.back();
  }
  typename std::vector<T>::iterator begin() { return items_.begin(); }
  typename std::vector<T>::iterator end() { return items_.end(); }

 private:
  std::vector<T> items_;
  bool fixed_ = false;
  std::uint32_t fixedCount_ = 0;
};

// A 64-bit unsigned number: "High" (bits 32-63) then "Low" (bits 0-31).
class CNDMPUQuad : public CXDRContainer {
 public:
  CXDRULong High;
  CXDRULong Low;

  CNDMPUQuad() = default;
  CNDMPUQuad(std::uint64_t value)
      : High(static_cast<unsigned int>(value >> 32)), Low(static_cast<unsigned int>(value)) {}

  std::uint64_t getUint64() const {
    return (static_cast<std::uint64_t>(High.getInt32()) << 32) | Low.getInt32();
  }
  operator std::uint64_t() const { return getUint64(); }
  CNDMPUQuad operator+(const CNDMPUQuad& other) const {
    return CNDMPUQuad(getUint64() + other.getUint64());
  }
  CNDMPUQuad operator-(const CNDMPUQuad& other) const {
    return CNDMPUQuad(getUint64() - other.getUint64());
  }
  bool operator==(const CNDMPUQuad& other) const { return getUint64() == other.getUint64(); }
  bool operator==(std::uint64_t value) const { return getUint64() == value; }
  bool operator!=(const CNDMPUQuad& other) const { return getUint64() != other.getUint64(); }
  bool operator!=(std::uint64_t value) const { return getUint64() != value; }

 protected:
  int RegisterMembers() override {
    RegisterMember("High", &High);
    RegisterMember("Low", &Low);
    return 0;
  }
};

}  // namespace com::vx::korvane::ndmpc
