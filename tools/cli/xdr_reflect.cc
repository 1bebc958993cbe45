#include "tools/cli/xdr_reflect.h"

#include <memory>
#include <vector>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "ndmpc/ndmp/messages/snapshot_messages.h"
#include "ndmpc/ndmp/messages/snapvault_messages.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using namespace enums;  // NOLINT: the lists below name every enumeration

struct CEnumProbe {
  CEnumInfo info;
  bool (*matches)(CIXDR*);
};

template <class E>
bool IsEnumOf(CIXDR* value) {
  return dynamic_cast<CXDREnumBase<E>*>(value) != nullptr;
}

#define NDMPC_TOOLS_ENUM_PROBE(E) \
  { {#E, &E::Table()}, &IsEnumOf<E> }

const std::vector<CEnumProbe>& EnumProbes() {
  static const std::vector<CEnumProbe> probes = {
      NDMPC_TOOLS_ENUM_PROBE(CNDMPError),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPMessageCode),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPMessageType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPProtocolVersion),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumAuthType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumAddrType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumFSType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumFileType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSvRelState),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSvRelStatus),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSvSnapStatus),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumConnectionStatusReason),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumDataHaltReason),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumMoverHaltReason),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumMoverPauseReason),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSnapEndReason),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumMoverMode),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumMoverState),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumTapeOpenMode),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumMtioOp),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumHasAssociatedMessage),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumLogType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumRecoveryStatus),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumDataOperation),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumDataState),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSnapPathType),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSnapDays),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSvRecoverMethod),
      NDMPC_TOOLS_ENUM_PROBE(CNDMPEnumSvGranularity),
  };
  return probes;
}

template <class T>
class CTypedArrayAccess : public CArrayAccess {
 public:
  bool Matches(CIXDR& array) const override {
    return dynamic_cast<CXDRArray<T>*>(&array) != nullptr;
  }
  std::size_t Size(CIXDR& array) const override {
    return static_cast<std::size_t>(Cast(array).size());
  }
  CIXDR& Element(CIXDR& array, std::size_t index) const override {
    return Cast(array)[static_cast<unsigned int>(index)];
  }
  CIXDR& Append(CIXDR& array) const override { return Cast(array).AppendNew(); }
  CIXDR& Prototype() const override { return prototype_; }

 private:
  static CXDRArray<T>& Cast(CIXDR& array) { return static_cast<CXDRArray<T>&>(array); }
  mutable T prototype_;
};

template <class T>
std::unique_ptr<CArrayAccess> Access() {
  return std::unique_ptr<CArrayAccess>(new CTypedArrayAccess<T>());
}

const std::vector<std::unique_ptr<CArrayAccess>>& ArrayAccessors() {
  static const std::vector<std::unique_ptr<CArrayAccess>>* accessors = [] {
    auto* list = new std::vector<std::unique_ptr<CArrayAccess>>();
    list->push_back(Access<CNDMPPVal>());
    list->push_back(Access<CNDMPClassList>());
    list->push_back(Access<CNDMPClassVersion>());
    list->push_back(Access<CNDMPConfigButypeInfo>());
    list->push_back(Access<CNDMPDeviceCapability>());
    list->push_back(Access<CNDMPDeviceInfo>());
    list->push_back(Access<CNDMPFsInfo>());
    list->push_back(Access<CNDMPDir>());
    list->push_back(Access<CNDMPFile>());
    list->push_back(Access<CNDMPFileName>());
    list->push_back(Access<CNDMPFileStat>());
    list->push_back(Access<CNDMPName>());
    list->push_back(Access<CNDMPNode>());
    list->push_back(Access<CNDMPSName>());
    list->push_back(Access<CNDMPSvSnapSchedItem>());
    list->push_back(Access<CNDMPSvSnapStatusItem>());
    list->push_back(Access<CNDMPSvStatus>());
    list->push_back(Access<CNDMPSvTcpAddr>());
    list->push_back(Access<CNDMPSvsClientStatusItem>());
    list->push_back(Access<CNDMPTcpAddr>());
    list->push_back(Access<CXDRUShort>());
    list->push_back(Access<CXDREnumBase<CNDMPEnumAddrType>>());
    list->push_back(Access<CXDREnumBase<CNDMPEnumAuthType>>());
    list->push_back(Access<CXDREnumBase<CNDMPEnumSvGranularity>>());
    list->push_back(Access<CXDREnumBase<CNDMPEnumSvRecoverMethod>>());
    list->push_back(Access<CXDRULong>());
    list->push_back(Access<CXDRString>());
    return list;
  }();
  return *accessors;
}

}  // namespace

const CEnumInfo* EnumInfoOf(CIXDR* value) {
  if (value == nullptr || value->GetMemberType() != CIXDR::MEMBER_ENUM) return nullptr;
  for (const CEnumProbe& probe : EnumProbes()) {
    if (probe.matches(value)) return &probe.info;
  }
  return nullptr;
}

const CArrayAccess* ArrayAccessOf(CIXDR& value) {
  if (value.GetMemberType() != CIXDR::MEMBER_ARRAY) return nullptr;
  for (const auto& access : ArrayAccessors()) {
    if (access->Matches(value)) return access.get();
  }
  return nullptr;
}

std::string EnumValueName(CIXDR& value) {
  // An enumeration dumps as "0x<hex>:<name>".
  const std::string dump = value.DumpContents(0);
  const std::size_t colon = dump.find(':');
  return colon == std::string::npos ? dump : dump.substr(colon + 1);
}

std::string OpaqueHex(const CXDROpaque& opaque) {
  static const char kDigits[] = "0123456789abcdef";
  const auto* bytes = static_cast<const unsigned char*>(opaque.GetData());
  std::string hex;
  hex.reserve(static_cast<std::size_t>(opaque.GetSize()) * 2);
  for (std::uint64_t i = 0; i < opaque.GetSize(); ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0x0F];
  }
  return hex;
}

std::size_t MemberCount(CXDRContainer& record) {
  record.SerializeSize();  // a union registers the arm its discriminant selects
  return record.GetMemberCount();
}

void WriteJsonValue(CJsonWriter& json, CIXDR& value) {
  switch (value.GetMemberType()) {
    case CIXDR::MEMBER_ULONG:
      json.Number(static_cast<CXDRULong&>(value).getInt32());
      return;
    case CIXDR::MEMBER_BOOL:
      json.Bool(static_cast<CXDRULong&>(value).getInt32() != 0);
      return;
    case CIXDR::MEMBER_ENUM:
      json.BeginObject()
          .Key("value")
          .Number(static_cast<CXDRULong&>(value).getInt32())
          .Key("name")
          .String(EnumValueName(value))
          .EndObject();
      return;
    case CIXDR::MEMBER_STRING:
      json.String(static_cast<CXDRString&>(value).GetString());
      return;
    case CIXDR::MEMBER_OPAQUE:
      json.String(OpaqueHex(static_cast<CXDROpaque&>(value)));
      return;
    case CIXDR::MEMBER_ARRAY:
      if (const CArrayAccess* access = ArrayAccessOf(value)) {
        json.BeginArray();
        const std::size_t n = access->Size(value);
        for (std::size_t i = 0; i < n; ++i) WriteJsonValue(json, access->Element(value, i));
        json.EndArray();
      } else {
        json.Null();
      }
      return;
    case CIXDR::MEMBER_CONTAINER: {
      if (auto* quad = dynamic_cast<CNDMPUQuad*>(&value)) {
        json.Number(quad->getUint64());
        return;
      }
      auto* record = dynamic_cast<CXDRContainer*>(&value);
      if (record == nullptr) {
        json.Null();
        return;
      }
      json.BeginObject();
      const std::size_t n = MemberCount(*record);
      for (std::size_t i = 0; i < n; ++i) {
        const CXDRContainer::MemberItem& item = record->GetMember(i);
        json.Key(item.name);
        WriteJsonValue(json, *item.member);
      }
      json.EndObject();
      return;
    }
  }
  json.Null();
}

}  // namespace com::vx::korvane::ndmpc::tools
