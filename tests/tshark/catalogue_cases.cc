// The standard messages shown to tshark straight from the factory table:
// each body is populated through its registered members and the expected
// tshark fields follow from the same walk, through the table below that
// names tshark's field for each of our members. Messages whose meaning
// tshark reads from their values (the open exchange, CDBs) keep
// hand-written cases in special_cases.cc.
#include <cstdio>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/message_filler.h"
#include "tests/support/wire_support.h"
#include "tests/tshark/tshark_cases.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

enum class EShown {
  kValue,  // number, text or bytes, by the member's kind
  kIp,     // a dotted IPv4 address
  kWord,   // the four bytes of the word (tshark shows a time)
};

struct CFieldName {
  const char* member;  // a member path suffix, most specific first wins
  const char* field;   // tshark's field
  EShown shown = EShown::kValue;
};

// Our member (by the end of its path "family.Record.Member", or
// "0xCODE.Member" for one message) to tshark's field.
// clang-format off
const CFieldName kFields[] = {
    {"Error", "ndmp.error"}, {"NDMP_Error", "ndmp.error"}, {"AuthenticationType", "ndmp.auth_type"},
    {"AuthType", "ndmp.auth_type"}, {"AuthenticationTypes", "ndmp.auth_type"},
    {"AuthenticationID", "ndmp.auth.id"}, {"AuthenticationPassword", "ndmp.auth.password"},
    {"AuthenticationDigest", "ndmp.auth.digest"}, {"Challenge", "ndmp.auth.challenge"},
    {"hostname", "ndmp.hostname"}, {"OSType", "ndmp.os.type"}, {"OSVersion", "ndmp.os.version"},
    {"HostID", "ndmp.hostid"}, {"AddressTypes", "ndmp.addr_type"},
    {"AddressType", "ndmp.addr_type"}, {"BackupTypeName", "ndmp.butype.name"},
    {"BUTypeName", "ndmp.butype.name"}, {"Environments.Name", "ndmp.butype.env.name"},
    {"Environments.Value", "ndmp.butype.env.value"},
    {"DefaultEnvironment.Name", "ndmp.butype.env.name"},
    {"DefaultEnvironment.Value", "ndmp.butype.env.value"},
    {"BackupTypeInfo.Attributes", "ndmp.butype.attr"},
    {"FsInfoArray.Unsupported", "ndmp.fs.invalid"}, {"FsInfoArray.FSType", "ndmp.fs.type"},
    {"LogDeviceName", "ndmp.fs.logical_device"}, {"PhysDeviceName", "ndmp.fs.physical_device"},
    {"TotalSize", "ndmp.fs.total_size"}, {"UsedSize", "ndmp.fs.used_size"},
    {"AvailSize", "ndmp.fs.avail_size"}, {"TotalInodes", "ndmp.fs.total_inodes"},
    {"UsedInodes", "ndmp.fs.used_inodes"}, {"FSEnvironment.Name", "ndmp.fs.env.name"},
    {"FSEnvironment.Value", "ndmp.fs.env.value"}, {"FSStatus", "ndmp.fs.status"},
    {"TapeInfoArray.Model", "ndmp.tape.model"}, {"SCSIInfoArray.Model", "ndmp.scsi.model"},
    {"CapabilityList.Device", "ndmp.tape.device"}, {"CapabilityList.Attributes", "ndmp.tape.attr"},
    {"Capability.Name", "ndmp.tape.cap.name"}, {"Capability.Value", "ndmp.tape.cap.value"},
    {"VenderName", "ndmp.server.vendor"}, {"ProductName", "ndmp.server.product"},
    {"RevisionNumber", "ndmp.server.revision"}, {"ExtensionClassID", "ndmp.class.id"},
    {"ExtentionVersion", "ndmp.class.version"},
    {"ExtentionVersions", "ndmp.ext_version_list.version"}, {"scsi.Device", "ndmp.scsi.device"},
    {"TargetController", "ndmp.scsi.controller"}, {"TargetID", "ndmp.scsi.id"},
    {"TargetLun", "ndmp.scsi.lun"}, {"tape.Device", "ndmp.tape.device"},
    {"tape.Mode", "ndmp.tape.open_mode"}, {"tape.Unsupported", "ndmp.tape.invalid"},
    {"tape.Flags", "ndmp.tape.flags"}, {"FileNum", "ndmp.tape.status.file_num"},
    {"SoftErrors", "ndmp.tape.status.soft_errors"}, {"BlockSize", "ndmp.tape.status.block_size"},
    {"BlockNo", "ndmp.tape.status.block_no"}, {"TotalSpace", "ndmp.tape.status.total_space"},
    {"SpaceRemaining", "ndmp.tape.status.space_remain"},
    {"Partition", "ndmp.tape.status.partition"}, {"TapeOp", "ndmp.tape.mtio.op"},
    {"Count", "ndmp.count"}, {"ResidCount", "ndmp.resid_count"}, {"DataOut", "ndmp.data"},
    {"tape.Data", "ndmp.data"}, {"data.Unsupported", "ndmp.bu.state.invalid"},
    {"Operation", "ndmp.bu.operation"}, {"data.State", "ndmp.data.state"},
    {"data.HaltReason", "ndmp.data.halted"}, {"BytesProcessed", "ndmp.data.bytes_processed"},
    {"EstBytesRemain", "ndmp.data.est_bytes_remain"},
    {"EstTimeRemain", "ndmp.data.est_time_remain", EShown::kWord},
    {"ReadOffset", "ndmp.window.offset"}, {"ReadLength", "ndmp.window.length"},
    {"OriginalPath", "ndmp.bu.original_path"}, {"DestinationDir", "ndmp.bu.destination_dir"},
    {"NameList.Name", "ndmp.bu.new_name"}, {"OtherName", "ndmp.bu.other_name"},
    {"Node", "ndmp.file.node"}, {"FileHistoryInfo", "ndmp.file.fh_info"},
    {"FileHistInfo", "ndmp.file.fh_info"}, {"IPAddress", "ndmp.addr.ip", EShown::kIp},
    {"Port", "ndmp.addr.tcp_port"}, {"AddressEnv.Name", "ndmp.tcp.env.name"},
    {"AddressEnv.Value", "ndmp.tcp.env.value"}, {"CommData", "ndmp.addr.ipc"},
    {"mover.Mode", "ndmp.mover.mode"}, {"mover.State", "ndmp.mover.state"},
    {"PauseReason", "ndmp.mover.pause"}, {"mover.HaltReason", "ndmp.halt"},
    {"RecordSize", "ndmp.record.size"}, {"RecordLength", "ndmp.record.size"},
    {"RecordNum", "ndmp.record.num"}, {"BytesMoved", "ndmp.data.written"},
    {"SeekPosition", "ndmp.seek.position"}, {"BytesLeftToRead", "ndmp.bytes_left_to_read"},
    {"WindowOffset", "ndmp.window.offset"}, {"WindowLength", "ndmp.window.length"},
    {"Offset", "ndmp.window.offset"}, {"Length", "ndmp.window.length"},
    {"0x501.Reason", "ndmp.halt"}, {"0x503.Reason", "ndmp.halt"},
    {"TextReason", "ndmp.halt.reason"}, {"0x502.Reason", "ndmp.connected"},
    {"0x502.Protocol", "ndmp.version"}, {"0x502.TextReason", "ndmp.connected.reason"},
    {"0x504.Reason", "ndmp.mover.pause"}, {"log.Name", "ndmp.file"}, {"LogType", "ndmp.log.type"},
    {"MesssageID", "ndmp.log.message.id"}, {"Entry", "ndmp.log.message"},
    {"FileSystemType", "ndmp.file.fs_type"}, {"UnixFileName", "ndmp.file"}, {"NTPath", "ndmp.file"},
    {"DOSPath", "ndmp.file"}, {"OtherFileName", "ndmp.file"},
    {"fh.Unsupported", "ndmp.file.invalid"}, {"fh.FSType", "ndmp.file.fs_type"},
    {"FileType", "ndmp.file.type"}, {"MTime", "ndmp.file.mtime", EShown::kWord},
    {"ATime", "ndmp.file.atime", EShown::kWord}, {"CTime", "ndmp.file.ctime", EShown::kWord},
    {"Owner", "ndmp.file.owner"}, {"Group", "ndmp.file.group"}, {"FSAttributes", "ndmp.file.fattr"},
    {"fh.Size", "ndmp.file.size"}, {"Links", "ndmp.file.links"}, {"Parent", "ndmp.file.parent"},
};
// clang-format on

// Where tshark 4.0 and our bytes part ways on purpose.
struct CQuirk {
  std::uint32_t code;
  unsigned type;     // 2: any
  unsigned version;  // 0: any
  const char* firstUnread;  // tshark stops before this member; null: message unknown to it
  const char* why;
};
const CQuirk kQuirks[] = {
    {0x603, 2, 4, "AssocMessageValid",
     "tshark 4.0 does not read the associated-message fields of version 4"},
    {0x40B, 2, 0, nullptr, "tshark 4.0 does not know NDMP_DATA_START_RECOVER_FILEHIST"},
};

// Codes with hand-written cases: the open exchange sets the conversation's
// version, CDBs and their data go to tshark's SCSI decoder.
const std::set<std::uint32_t> kHandWritten = {0x900, 0x206, 0x307};

// The family by the code's second byte (0x1.. config, 0x2.. scsi, ...).
const char* Family(std::uint32_t code) {
  static const char* const kByByte[] = {"mover", "config", "scsi", "tape",    "data",
                                        "notify", "log",   "fh",   "mover", "connect"};
  return (code >> 8) < std::size(kByByte) ? kByByte[code >> 8] : "mover";
}

std::vector<std::string>& UnnamedMembers() {
  static std::vector<std::string> unnamed;
  return unnamed;
}

// Tries "0xCODE.Member" (top-level members of one message), then the path
// without its family from the longest suffix down, then "family.Member",
// then the member's name alone.
const CFieldName* FieldOf(const std::string& code, const std::string& path) {
  const std::size_t dot = path.find('.');
  const std::string local = path.substr(dot + 1);
  const std::size_t lastDot = local.rfind('.');
  const std::string last = lastDot == std::string::npos ? local : local.substr(lastDot + 1);
  std::vector<std::string> keys = {code + "." + local};
  for (std::size_t at = 0; at < lastDot + 1 && lastDot != std::string::npos;
       at = local.find('.', at) + 1) {
    keys.push_back(local.substr(at));
  }
  keys.push_back(path.substr(0, dot + 1) + last);
  keys.push_back(last);
  for (const std::string& key : keys) {
    for (const CFieldName& f : kFields) {
      if (key == f.member) return &f;
    }
  }
  return nullptr;
}

// Appends what tshark must show for `value` (at `path`) to `fields`.
void Expect(CIXDR& value, const std::string& code, const std::string& path,
            std::vector<CExpectedField>& fields, std::vector<std::string>& unnamed) {
  if (value.GetMemberType() == CIXDR::MEMBER_ARRAY) {
    VisitArray(value, [&](auto& array) {
      for (auto& item : array) Expect(item, code, path, fields, unnamed);
    });
    return;
  }
  auto* record = dynamic_cast<CXDRContainer*>(&value);
  if (record != nullptr && dynamic_cast<CNDMPUQuad*>(record) == nullptr) {
    for (std::size_t i = 0; i < record->GetMemberCount(); ++i) {
      Expect(*record->GetMember(i).member, code, path + "." + record->GetMember(i).name, fields,
             unnamed);
    }
    return;
  }
  const CFieldName* name = FieldOf(code, path);
  if (name == nullptr) {
    unnamed.push_back(path);
    return;
  }
  if (auto* quad = dynamic_cast<CNDMPUQuad*>(&value)) {
    fields.push_back(Num(name->field, quad->getUint64()));
  } else if (auto* text = dynamic_cast<CXDRString*>(&value)) {
    fields.push_back(Str(name->field, text->GetString()));
  } else if (auto* opaque = dynamic_cast<CXDROpaque*>(&value)) {
    fields.push_back(Raw(name->field, OpaqueBytes(*opaque)));
  } else if (auto* word = dynamic_cast<CXDRULong*>(&value)) {
    const std::uint32_t v = word->getInt32();
    if (name->shown == EShown::kIp) {
      fields.push_back(Ip(name->field, v));
    } else if (name->shown == EShown::kWord) {
      fields.push_back(Raw(name->field, Words({v})));
    } else {
      fields.push_back(Num(name->field, v));
    }
  }
}

const CQuirk* QuirkOf(std::uint32_t code, unsigned type, unsigned version) {
  for (const CQuirk& q : kQuirks) {
    if (q.code == code && (q.type == 2 || q.type == type) && (q.version == 0 || q.version == version)) {
      return &q;
    }
  }
  return nullptr;
}

// True when the value holds a union anywhere, so that its variants differ.
bool HasUnion(CIXDR& value) {
  if (dynamic_cast<CNDMPUnionRecord*>(&value) != nullptr) return true;
  bool found = false;
  if (value.GetMemberType() == CIXDR::MEMBER_ARRAY) {
    VisitArray(value, [&](auto& array) {
      for (auto& item : array) found = found || HasUnion(item);
    });
  } else if (auto* record = dynamic_cast<CXDRContainer*>(&value)) {
    for (std::size_t i = 0; i < record->GetMemberCount(); ++i) {
      found = found || HasUnion(*record->GetMember(i).member);
    }
  }
  return found;
}

std::unique_ptr<CNDMPMessage> Filled(std::uint32_t code, unsigned type, unsigned version,
                                     unsigned variant) {
  std::unique_ptr<CNDMPMessage> m(CNDMPMessageAccess::Make(code, type));
  m->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  unsigned seed = variant * 100;
  FillMembers(*m, seed, variant);
  return m;
}

void AddOne(CCaseList& list, std::uint32_t code, unsigned type, unsigned version,
            unsigned variant) {
  std::unique_ptr<CNDMPMessage> sample = Filled(code, type, version, variant);
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%X", code);
  const CQuirk* quirk = QuirkOf(code, type, version);
  std::vector<CExpectedField> fields;
  std::vector<std::string> unnamed;
  std::size_t tail = 0;
  bool unread = false;
  for (std::size_t i = 0; i < sample->GetMemberCount(); ++i) {
    const CXDRContainer::MemberItem& item = sample->GetMember(i);
    unread = unread || (quirk != nullptr && quirk->firstUnread != nullptr &&
                        std::string(item.name) == quirk->firstUnread);
    if (unread) {
      tail += item.member->SerializeSize();
    } else {
      Expect(*item.member, hex, std::string(Family(code)) + "." + item.name, fields, unnamed);
    }
  }
  // tshark 4.0 knows no Fibre Channel address: such bodies are not shown.
  for (const std::string& path : unnamed) {
    if (path.find(".FcAddress.") != std::string::npos) return;
  }
  UnnamedMembers().insert(UnnamedMembers().end(), unnamed.begin(), unnamed.end());
  CTsharkCase& c = list.AddMade(
      Family(code), version, [=] { return Filled(code, type, version, variant); },
      std::move(fields), variant == 0 ? "" : "Arm" + std::to_string(variant));
  if (quirk != nullptr && quirk->firstUnread == nullptr) c.TsharkDoesNotKnow(quirk->why);
  if (tail != 0) c.TsharkStopsEarly(tail, quirk->why);
}

}  // namespace

void AddCatalogueCases(CCaseList& list) {
  for (unsigned version : {4u, 3u}) {
    for (const CNDMPFactoryEntry& row : NDMPFactoryTable()) {
      if (row.code >= 0x2000 || kHandWritten.count(row.code) != 0) continue;
      for (unsigned type : {0u, 1u}) {
        if (type == 1 && row.makeRequest == row.makeReply) continue;
        const unsigned variants = HasUnion(*Filled(row.code, type, version, 0)) ? 4 : 1;
        for (unsigned variant = 0; variant < variants; ++variant) {
          AddOne(list, row.code, type, version, variant);
        }
      }
    }
  }
}

const std::vector<std::string>& MembersWithoutTsharkField() {
  AllTsharkCases();
  return UnnamedMembers();
}

}  // namespace com::vx::korvane::ndmpc::testing
