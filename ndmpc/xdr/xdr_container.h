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
//
// What a registration yields depends only on the record's class and
// version (and, for unions, on the arm the discriminant selects), so it is
// recorded once as a layout of member offsets and shared by every record of
// that class: a record itself holds only its fields, and a record inside a
// long array costs no allocation of its own. A record whose registration
// cannot be shared (a member registered from outside RegisterMembers, a name
// that is not a literal, a member outside the record) keeps a list of its
// own instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

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
  struct Layout;

  CXDRContainer() : CIXDR(MEMBER_CONTAINER) {}
  // Copies the protocol version; the copy registers its own members.
  CXDRContainer(const CXDRContainer& other) : CIXDR(other), version_(other.version_) {
    stateBits_ = other.stateBits_ & kKeyed;
  }
  CXDRContainer(CXDRContainer&& other) noexcept : CIXDR(other), version_(other.version_) {
    stateBits_ = other.stateBits_ & kKeyed;
  }
  CXDRContainer& operator=(const CXDRContainer& other);
  CXDRContainer& operator=(CXDRContainer&& other) noexcept {
    return operator=(static_cast<const CXDRContainer&>(other));
  }
  ~CXDRContainer() override {
    if (stateBits_ & kOwnList) DropOwnList();
  }

  int Serialize(CXDRStream& stream) override;
  int DeSerialize(CXDRStream& stream) override;
  unsigned int SerializeSize() override;
  VxString DumpContents(int level) override;

  // Appends a member under `name`; 0, or XDR_FAILURE for a null member.
  // A const char array is taken to be a literal and is not copied; a
  // writable buffer and a VxString are copied into the record.
  template <std::size_t N>
  int RegisterMember(const char (&name)[N], CIXDR* member) {
    return AddMember(name, member, false);
  }
  template <std::size_t N>
  int RegisterMember(char (&name)[N], CIXDR* member) {
    std::size_t length = 0;
    while (length < N && name[length] != '\0') ++length;
    return RegisterMember(VxString(name, length), member);
  }
  int RegisterMember(const VxString& name, CIXDR* member);
  // Empties the registration; the next use registers the members anew.
  void ClearRegistration();

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
  MemberItem GetMember(std::size_t index);

 protected:
  // Registers each field, in wire order, with RegisterMember; returns 0.
  virtual int RegisterMembers() = 0;
  // Which registration the record's current values select, for records
  // whose registration depends on more than the class and the version (a
  // union's arm). Records with the same class, version and key share one
  // layout. Called only after MarkKeyed().
  virtual std::uint32_t LayoutKey() { return 0; }
  void MarkKeyed() { stateBits_ |= kKeyed; }
  std::uint32_t Version() const { return version_; }
  bool HasOwnList() const { return (stateBits_ & kOwnList) != 0; }
  // Registers a member under a name with static storage (a literal held in
  // a table, say); the name is not copied.
  int RegisterStaticMember(const char* name, CIXDR* member) {
    return AddMember(name, member, false);
  }

 private:
  // stateBits_: the record keeps its own list; the record's registration
  // has been made (its first use, or a version change); LayoutKey matters.
  static constexpr std::uint8_t kOwnList = 1;
  static constexpr std::uint8_t kRegistered = 2;
  static constexpr std::uint8_t kKeyed = 4;

  // The registration in effect, making it first if needed.
  const Layout& CurrentLayout();
  const Layout& SharedLayout();
  int AddMember(const char* name, CIXDR* member, bool copyName);
  void DropOwnList();

  std::uint32_t version_ = 4;
};

namespace detail {
// Storage of the elements of a CXDRArray: element 0 sits next to the
// bookkeeping, and elements 2^(k-1) to 2^k - 1 in block k, so that blocks
// never move once made and a one-element array costs one allocation.
struct ArrayBlocks {
  static constexpr int kMaxBlocks = 33;
  std::uint32_t size = 0;
  std::uint8_t blocks = 1;     // blocks allocated, block 0 included
  bool fromSlab = false;       // lent by an enclosing array (see ArraySlab)
  void** table = nullptr;      // blocks 1 and up; entry 0 holds the slab chunks

  // The block of element i: the number of significant bits of i.
  static int BlockOf(std::uint32_t i) { return i == 0 ? 0 : 32 - __builtin_clz(i); }
  static std::uint32_t FirstIn(int k) { return k == 0 ? 0 : (1u << (k - 1)); }
  static std::uint32_t Capacity(int k) { return k == 0 ? 1 : (1u << (k - 1)); }
};

// While an array of records decodes, the arrays inside its elements take
// their bookkeeping from chunks that the outer array owns and frees all at
// once, rather than making one allocation each.
class ArraySlab {
 public:
  // `bytes` from the chunks of the array decoding on this thread, or null
  // when none is.
  static void* Lend(std::size_t bytes);
  static void FreeAll(void* chunks);
  // Makes `*chunks` the list lent from on this thread while it lives,
  // unless an enclosing array's list already is.
  class Scope {
   public:
    explicit Scope(void** chunks);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    bool active_;
  };
};
}  // namespace detail

// A counted XDR array of T, or, after SetFixedSize(n), exactly n elements
// without a count word. Elements never move once added: the array grows in
// blocks, each twice the size of the one before.
template <class T>
class CXDRArray : public CIXDR {
  using Blocks = detail::ArrayBlocks;

 public:
  template <class Item>
  class Iterator {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = std::remove_const_t<Item>;
    using difference_type = std::ptrdiff_t;
    using pointer = Item*;
    using reference = Item&;
    Iterator() = default;
    Iterator(const CXDRArray* array, std::uint32_t index) : array_(array), index_(index) {}
    reference operator*() const { return const_cast<CXDRArray*>(array_)->At(index_); }
    pointer operator->() const { return &**this; }
    reference operator[](difference_type n) const { return *(*this + n); }
    Iterator& operator++() { return ++index_, *this; }
    Iterator operator++(int) { return Iterator(array_, index_++); }
    Iterator& operator--() { return --index_, *this; }
    Iterator operator--(int) { return Iterator(array_, index_--); }
    Iterator& operator+=(difference_type n) {
      index_ = static_cast<std::uint32_t>(index_ + n);
      return *this;
    }
    Iterator& operator-=(difference_type n) { return *this += -n; }
    Iterator operator+(difference_type n) const { return Iterator(*this) += n; }
    Iterator operator-(difference_type n) const { return Iterator(*this) -= n; }
    difference_type operator-(const Iterator& other) const {
      return static_cast<difference_type>(index_) - static_cast<difference_type>(other.index_);
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }
    bool operator!=(const Iterator& other) const { return index_ != other.index_; }
    bool operator<(const Iterator& other) const { return index_ < other.index_; }
    bool operator>(const Iterator& other) const { return index_ > other.index_; }
    bool operator<=(const Iterator& other) const { return index_ <= other.index_; }
    bool operator>=(const Iterator& other) const { return index_ >= other.index_; }

   private:
    const CXDRArray* array_ = nullptr;
    std::uint32_t index_ = 0;
  };
  using iterator = Iterator<T>;
  using const_iterator = Iterator<const T>;

  CXDRArray() : CIXDR(MEMBER_ARRAY) {}
  CXDRArray(const CXDRArray& other) : CIXDR(other), fixedCount_(other.fixedCount_) {
    CopyElements(other);
  }
  CXDRArray(CXDRArray&& other) noexcept : CIXDR(other), fixedCount_(other.fixedCount_) {
    Take(other);
  }
  CXDRArray& operator=(const CXDRArray& other) {
    if (this != &other) {
      CXDRArray copy(other);
      Swap(copy);
    }
    return *this;
  }
  CXDRArray& operator=(CXDRArray&& other) noexcept {
    if (this != &other) {
      Release();
      CIXDR::operator=(other);
      fixedCount_ = other.fixedCount_;
      Take(other);
    }
    return *this;
  }
  ~CXDRArray() override { Release(); }

  int Serialize(CXDRStream& stream) override {
    const std::uint32_t n = Count();
    if (fixedCount_ != 0) {
      for (std::uint32_t i = 0; i < fixedCount_ && i < n; ++i) At(i).Serialize(stream);
      return 0;
    }
    detail::PutWord(stream, n);
    for (std::uint32_t i = 0; i < n; ++i) At(i).Serialize(stream);
    return 0;
  }

  int DeSerialize(CXDRStream& stream) override {
    Clear();
    std::uint32_t n = fixedCount_;
    if (fixedCount_ == 0 && detail::GetWord(stream, &n) == XDR_FAILURE) return XDR_FAILURE;
    if (n == 0) return 0;
    if (store_ == nullptr) store_ = NewStore();
    void* chunks = nullptr;
    struct Keep {  // hands the chunks lent during the decode to this array
      CXDRArray* array;
      void** chunks;
      ~Keep() { array->KeepChunks(*chunks); }
    } keep{this, &chunks};
    detail::ArraySlab::Scope scope(&chunks);
    // The storage grows as elements arrive; a count from the wire is never
    // used to allocate ahead.
    for (std::uint32_t i = 0; i < n; ++i) {
      T& item = AppendNew();
      if (item.DeSerialize(stream) == XDR_FAILURE) {
        PopBack();
        return XDR_FAILURE;
      }
    }
    return 0;
  }

  // 4 for the count word (counted even for a fixed-size array, which sends
  // none) plus the elements.
  unsigned int SerializeSize() override {
    unsigned int total = 4;
    for (std::uint32_t i = 0, n = Count(); i < n; ++i) total += At(i).SerializeSize();
    return total;
  }

  VxString DumpContents(int level) override {
    VxString text;
    const VxString indent(static_cast<std::size_t>(4 * (level > 0 ? level : 0)), ' ');
    for (std::uint32_t i = 0, n = Count(); i < n; ++i) {
      T& item = At(i);
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

  std::uint64_t size() const { return Count(); }
  bool SetFixedSize(int n) {
    fixedCount_ = n < 1 ? 0 : static_cast<std::uint32_t>(n);
    return n >= 1;
  }
  int GetFixedSize() const { return static_cast<int>(fixedCount_); }
  int AddItem(T item) {
    new (Grow()) T(std::move(item));
    ++store_->size;
    return 0;
  }
  void Clear() {
    while (Count() != 0) PopBack();
    if (store_ != nullptr && store_->table != nullptr && store_->table[0] != nullptr) {
      detail::ArraySlab::FreeAll(store_->table[0]);
      store_->table[0] = nullptr;
    }
  }
  // Makes room for `n` elements ahead of time.
  void Reserve(std::size_t n) {
    if (n == 0) return;
    if (store_ == nullptr) store_ = NewStore();
    const int last = Blocks::BlockOf(static_cast<std::uint32_t>(n - 1));
    for (int k = static_cast<int>(store_->blocks); k <= last; ++k) AddBlock();
  }
  T& operator[](unsigned int i) { return Checked(i); }
  const T& operator[](unsigned int i) const { return const_cast<CXDRArray*>(this)->Checked(i); }
  T& operator()(unsigned int i) { return Checked(i); }

  // Makes a fresh default element, so generic code (the command-line tool,
  // JSON output) can fill arrays without knowing T.
  T& AppendNew() {
    T* item = new (Grow()) T();
    ++store_->size;
    return *item;
  }
  iterator begin() { return iterator(this, 0); }
  iterator end() { return iterator(this, Count()); }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, Count()); }

 private:
  // Block 0 (one element) lives in the same allocation as the bookkeeping.
  struct Store : Blocks {
    alignas(T) unsigned char first[sizeof(T)];
  };

  std::uint32_t Count() const { return store_ == nullptr ? 0 : store_->size; }
  T* Slot(std::uint32_t i) const {
    if (i == 0) return reinterpret_cast<T*>(store_->first);
    const int k = Blocks::BlockOf(i);
    return static_cast<T*>(store_->table[k]) + (i - Blocks::FirstIn(k));
  }
  T& At(std::uint32_t i) const { return *std::launder(Slot(i)); }
  T& Checked(unsigned int i) {
    if (i >= Count()) throw std::out_of_range("CXDRArray index out of range");
    return At(i);
  }
  static Store* NewStore() {
    if (void* memory = detail::ArraySlab::Lend(sizeof(Store))) {
      Store* store = new (memory) Store;
      store->fromSlab = true;
      return store;
    }
    return new Store;
  }
  void MakeTable() {
    if (store_->table == nullptr) store_->table = new void*[Blocks::kMaxBlocks]();
  }
  void KeepChunks(void* chunks) {
    if (chunks == nullptr) return;
    MakeTable();
    store_->table[0] = chunks;
  }
  // Takes the elements of `other`: its storage itself, unless that was lent
  // by an enclosing array, which may go before this one.
  void Take(CXDRArray& other) {
    if (other.store_ == nullptr || !other.store_->fromSlab) {
      store_ = other.store_;
      other.store_ = nullptr;
      return;
    }
    for (std::uint32_t i = 0, n = other.Count(); i < n; ++i) AddItem(std::move(other.At(i)));
    other.Clear();
  }
  void AddBlock() {
    MakeTable();
    const int k = static_cast<int>(store_->blocks);
    store_->table[k] = ::operator new(sizeof(T) * Blocks::Capacity(k));
    ++store_->blocks;
  }
  // The slot for the next element, adding a block when the last one is full.
  void* Grow() {
    if (store_ == nullptr) store_ = NewStore();
    const std::uint32_t i = store_->size;
    if (i == 0xFFFFFFFFu) throw std::length_error("CXDRArray is full");
    if (Blocks::BlockOf(i) >= static_cast<int>(store_->blocks)) AddBlock();
    return Slot(i);
  }
  void PopBack() {
    At(store_->size - 1).~T();
    --store_->size;
  }
  void CopyElements(const CXDRArray& other) {
    for (std::uint32_t i = 0, n = other.Count(); i < n; ++i) AddItem(other.At(i));
  }
  void Release() {
    if (store_ == nullptr) return;
    Clear();
    for (std::uint32_t k = 1; k < store_->blocks; ++k) {
      ::operator delete(store_->table[k]);
    }
    delete[] store_->table;
    if (store_->fromSlab) {
      store_->~Store();
    } else {
      delete store_;
    }
    store_ = nullptr;
  }
  void Swap(CXDRArray& other) noexcept {
    std::swap(fixedCount_, other.fixedCount_);
    std::swap(store_, other.store_);
  }

  std::uint32_t fixedCount_ = 0;  // 0: a counted array
  Store* store_ = nullptr;
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

  // The two words directly: a quad is the commonest record of all.
  int Serialize(CXDRStream& stream) override {
    if (HasOwnList()) return CXDRContainer::Serialize(stream);
    High.Serialize(stream);
    Low.Serialize(stream);
    return 0;
  }
  int DeSerialize(CXDRStream& stream) override {
    if (HasOwnList()) return CXDRContainer::DeSerialize(stream);
    if (High.DeSerialize(stream) == XDR_FAILURE) return XDR_FAILURE;
    return Low.DeSerialize(stream) == XDR_FAILURE ? XDR_FAILURE : 0;
  }
  unsigned int SerializeSize() override {
    return HasOwnList() ? CXDRContainer::SerializeSize() : 8u;
  }

 protected:
  int RegisterMembers() override {
    RegisterMember("High", &High);
    RegisterMember("Low", &Low);
    return 0;
  }
};

}  // namespace com::vx::korvane::ndmpc
