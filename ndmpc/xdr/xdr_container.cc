#include "ndmpc/xdr/xdr_container.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>
#include <vector>

namespace com::vx::korvane::ndmpc {

// A registration: each member's name, kind and place, the place counted in
// bytes from the start of the record, so that one layout serves every record
// of its class.
struct CXDRContainer::Layout {
  struct Item {
    const char* name;
    std::intptr_t offset;
    MemberType memberType;
    bool word;  // a CXDRULong, whose encoding is known here
  };
  std::vector<Item> items;
  // Copies of the names that are not literals (own lists only); a deque
  // never moves its elements.
  std::deque<VxString> names;

  static CIXDR* Resolve(const CXDRContainer* record, const Item& item) {
    return reinterpret_cast<CIXDR*>(reinterpret_cast<std::intptr_t>(record) + item.offset);
  }
  void Add(const CXDRContainer* record, const char* name, CIXDR* member, bool copyName) {
    if (copyName) {
      names.emplace_back(name);
      name = names.back().c_str();
    }
    items.push_back(Item{name,
                         reinterpret_cast<std::intptr_t>(member) -
                             reinterpret_cast<std::intptr_t>(record),
                         member->GetMemberType(),
                         dynamic_cast<CXDRULong*>(member) != nullptr});
  }
};

namespace {

using Layout = CXDRContainer::Layout;

// A record's members lie within it; a registration pointing further away
// (or before it) is kept by that record alone.
constexpr std::intptr_t kMaxMemberOffset = 1 << 16;
// Shared layouts live as long as the process; a cap keeps odd version
// numbers from growing the table without end.
constexpr std::size_t kMaxSharedLayouts = 4096;

struct LayoutKeyOf {
  std::type_index type;
  std::uint32_t version;
  std::uint32_t key;
  bool operator==(const LayoutKeyOf& other) const {
    return type == other.type && version == other.version && key == other.key;
  }
};
struct LayoutKeyHash {
  std::size_t operator()(const LayoutKeyOf& k) const {
    return k.type.hash_code() ^ (static_cast<std::size_t>(k.version) * 0x9E3779B1u) ^
           (static_cast<std::size_t>(k.key) << 20);
  }
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<LayoutKeyOf, std::unique_ptr<Layout>, LayoutKeyHash> shared;
  std::unordered_map<const CXDRContainer*, std::unique_ptr<Layout>> own;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry();  // never destroyed: records may outlive statics
  return *registry;
}

// The last layouts this thread used, so that most lookups take no lock.
struct CacheSlot {
  const std::type_info* type = nullptr;
  std::uint32_t version = 0;
  std::uint32_t key = 0;
  const Layout* layout = nullptr;
};
constexpr std::size_t kCacheSlots = 64;
thread_local CacheSlot tCache[kCacheSlots];

CacheSlot& SlotFor(const std::type_info* type, std::uint32_t version, std::uint32_t key) {
  std::size_t h = (reinterpret_cast<std::uintptr_t>(type) >> 4) ^ (version * 31u) ^ (key * 131u);
  return tCache[h % kCacheSlots];
}

// The registration being recorded on this thread, if any.
struct Recorder {
  const CXDRContainer* record;
  std::unique_ptr<Layout> layout{new Layout()};
  bool shareable = true;
};
thread_local Recorder* tRecorder = nullptr;

}  // namespace

CXDRContainer& CXDRContainer::operator=(const CXDRContainer& other) {
  if (this != &other) {
    CIXDR::operator=(other);
    version_ = other.version_;
    // The registration points at this record's own members; it is rebuilt
    // on next use, since the assigned values may select other members.
    ClearRegistration();
  }
  return *this;
}

void CXDRContainer::DropOwnList() {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.own.erase(this);
}

void CXDRContainer::ClearRegistration() {
  if (stateBits_ & kOwnList) DropOwnList();
  stateBits_ = static_cast<std::uint8_t>(stateBits_ & ~(kOwnList | kRegistered));
}

int CXDRContainer::AddMember(const char* name, CIXDR* member, bool copyName) {
  if (member == nullptr) return XDR_FAILURE;
  if (tRecorder != nullptr && tRecorder->record == this) {
    const std::intptr_t offset =
        reinterpret_cast<std::intptr_t>(member) - reinterpret_cast<std::intptr_t>(this);
    if (copyName || offset < 0 || offset >= kMaxMemberOffset) tRecorder->shareable = false;
    tRecorder->layout->Add(this, name, member, copyName);
    return 0;
  }
  // Registered from outside RegisterMembers: from now on this record keeps
  // a list of its own, starting from what it had registered.
  Registry& registry = TheRegistry();
  if (!(stateBits_ & kOwnList)) {
    std::unique_ptr<Layout> own(new Layout());
    if (stateBits_ & kRegistered) own->items = SharedLayout().items;
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.own[this] = std::move(own);
    stateBits_ |= kOwnList;
  }
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.own[this]->Add(this, name, member, copyName);
  return 0;
}

int CXDRContainer::RegisterMember(const VxString& name, CIXDR* member) {
  return AddMember(name.c_str(), member, true);
}

const Layout& CXDRContainer::SharedLayout() {
  const std::type_info* type = &typeid(*this);
  const std::uint32_t key = (stateBits_ & kKeyed) ? LayoutKey() : 0;
  CacheSlot& slot = SlotFor(type, version_, key);
  if (slot.type == type && slot.version == version_ && slot.key == key) return *slot.layout;

  Registry& registry = TheRegistry();
  const LayoutKeyOf id{std::type_index(*type), version_, key};
  {
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.shared.find(id);
    if (found != registry.shared.end()) {
      slot = CacheSlot{type, version_, key, found->second.get()};
      return *slot.layout;
    }
  }
  Recorder recorder{this};
  {
    struct Restore {  // the enclosing recording, if any, goes on afterwards
      Recorder* outer = tRecorder;
      ~Restore() { tRecorder = outer; }
    } restore;
    tRecorder = &recorder;
    RegisterMembers();
  }

  std::lock_guard<std::mutex> lock(registry.mutex);
  if (recorder.shareable && registry.shared.size() < kMaxSharedLayouts) {
    auto inserted = registry.shared.emplace(id, std::move(recorder.layout));
    slot = CacheSlot{type, version_, key, inserted.first->second.get()};
    return *slot.layout;
  }
  std::unique_ptr<Layout>& own = registry.own[this];
  own = std::move(recorder.layout);
  stateBits_ |= kOwnList;
  return *own;
}

const Layout& CXDRContainer::CurrentLayout() {
  if (stateBits_ & kOwnList) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    return *registry.own[this];
  }
  stateBits_ |= kRegistered;
  return SharedLayout();
}

int CXDRContainer::Serialize(CXDRStream& stream) {
  for (const Layout::Item& item : CurrentLayout().items) {
    CIXDR* member = Layout::Resolve(this, item);
    // Member results are deliberately not examined; the stream logs failures.
    if (item.word) {
      static_cast<CXDRULong*>(member)->Serialize(stream);
    } else {
      member->Serialize(stream);
    }
  }
  return 0;
}

int CXDRContainer::DeSerialize(CXDRStream& stream) {
  for (const Layout::Item& item : CurrentLayout().items) {
    CIXDR* member = Layout::Resolve(this, item);
    int result = item.word ? static_cast<CXDRULong*>(member)->DeSerialize(stream)
                           : member->DeSerialize(stream);
    if (result == XDR_FAILURE) return XDR_FAILURE;
  }
  return 0;
}

unsigned int CXDRContainer::SerializeSize() {
  unsigned int total = 0;
  for (const Layout::Item& item : CurrentLayout().items) {
    total += item.word ? 4u : Layout::Resolve(this, item)->SerializeSize();
  }
  return (total + 3u) & ~3u;
}

VxString CXDRContainer::DumpContents(int level) {
  VxString text;
  const VxString indent(static_cast<std::size_t>(4 * (level > 0 ? level : 0)), ' ');
  for (const Layout::Item& item : CurrentLayout().items) {
    CIXDR* member = Layout::Resolve(this, item);
    text += "\n" + indent + item.name + " = ";
    if (item.memberType == MEMBER_ARRAY || item.memberType == MEMBER_CONTAINER) {
      text += "\n" + indent + "{" + member->DumpContents(level + 1) + "\n" + indent + "}";
    } else {
      text += member->DumpContents(level);
    }
  }
  return text;
}

CXDREnumBase<enums::CNDMPProtocolVersion> CXDRContainer::SetProtocolVersion(
    CXDREnumBase<enums::CNDMPProtocolVersion> version) {
  if (version.getInt32() != version_) {
    version_ = version.getInt32();
    ClearRegistration();
    for (const Layout::Item& item : CurrentLayout().items) {
      if (item.memberType == MEMBER_CONTAINER) {
        if (auto* nested = dynamic_cast<CXDRContainer*>(Layout::Resolve(this, item))) {
          nested->SetProtocolVersion(version);
        }
      }
    }
  }
  return GetProtocolVersion();
}

std::size_t CXDRContainer::GetMemberCount() { return CurrentLayout().items.size(); }

CXDRContainer::MemberItem CXDRContainer::GetMember(std::size_t index) {
  const Layout::Item& item = CurrentLayout().items.at(index);
  return MemberItem{item.name, Layout::Resolve(this, item), item.memberType};
}

namespace detail {
namespace {

struct SlabChunk {
  SlabChunk* next;
  std::size_t size;
  std::size_t used;
};
constexpr std::size_t kChunkHeader = (sizeof(SlabChunk) + 15) & ~std::size_t{15};
constexpr std::size_t kFirstChunk = 4096;
constexpr std::size_t kLargestChunk = 256 * 1024;

thread_local void** tSlab = nullptr;

}  // namespace

void* ArraySlab::Lend(std::size_t bytes) {
  if (tSlab == nullptr) return nullptr;
  bytes = (bytes + 15) & ~std::size_t{15};
  auto* head = static_cast<SlabChunk*>(*tSlab);
  if (head == nullptr || head->size - head->used < bytes) {
    // Chunks double up to a ceiling, so a short array wastes little and a
    // long one makes few chunks.
    std::size_t size = head == nullptr ? kFirstChunk : std::min(head->size * 2, kLargestChunk);
    size = std::max(size, bytes + kChunkHeader);
    auto* chunk = static_cast<SlabChunk*>(::operator new(size));
    *chunk = SlabChunk{head, size, kChunkHeader};
    *tSlab = chunk;
    head = chunk;
  }
  void* memory = reinterpret_cast<unsigned char*>(head) + head->used;
  head->used += bytes;
  return memory;
}

void ArraySlab::FreeAll(void* chunks) {
  while (chunks != nullptr) {
    auto* chunk = static_cast<SlabChunk*>(chunks);
    chunks = chunk->next;
    ::operator delete(chunk);
  }
}

ArraySlab::Scope::Scope(void** chunks) : active_(tSlab == nullptr) {
  if (active_) tSlab = chunks;
}

ArraySlab::Scope::~Scope() {
  if (active_) tSlab = nullptr;
}

}  // namespace detail

}  // namespace com::vx::korvane::ndmpc
