#include "tools/cli/message_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/message_factory.h"
#include "ndmpc/ndmp/messages/union_record.h"
#include "tools/cli/xdr_reflect.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool EqualsIgnoreCase(const std::string& a, const std::string& b) { return Upper(a) == Upper(b); }

std::string Join(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i != 0) out += separator;
    out += items[i];
  }
  return out;
}

std::vector<std::string> MemberNames(CXDRContainer& record) {
  std::vector<std::string> names;
  const std::size_t n = MemberCount(record);
  for (std::size_t i = 0; i < n; ++i) names.push_back(record.GetMember(i).name);
  return names;
}

// One step of a field path: a member name and an optional index.
struct CPathStep {
  std::string name;
  bool indexed = false;
  bool append = false;  // "[]"
  std::size_t index = 0;
};

bool ParsePath(const std::string& path, std::vector<CPathStep>* steps, std::string* error) {
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t dot = path.find('.', start);
    if (dot == std::string::npos) dot = path.size();
    std::string part = path.substr(start, dot - start);
    CPathStep step;
    std::size_t bracket = part.find('[');
    if (bracket != std::string::npos) {
      if (part.back() != ']') {
        *error = "bad index in '" + part + "': use Field[0] or Field[] to append";
        return false;
      }
      std::string index = part.substr(bracket + 1, part.size() - bracket - 2);
      step.indexed = true;
      if (index.empty()) {
        step.append = true;
      } else {
        std::uint64_t value = 0;
        if (!ParseNumber(index, 0xFFFFFFFFu, &value)) {
          *error = "bad index '" + index + "' in '" + part + "'";
          return false;
        }
        step.index = static_cast<std::size_t>(value);
      }
      part = part.substr(0, bracket);
    }
    if (part.empty()) {
      *error = "empty field name in '" + path + "'";
      return false;
    }
    step.name = part;
    steps->push_back(step);
    start = dot + 1;
  }
  return true;
}

CIXDR* FindMember(CXDRContainer& record, const std::string& name) {
  const std::size_t n = MemberCount(record);
  for (std::size_t i = 0; i < n; ++i) {
    if (name == record.GetMember(i).name) return record.GetMember(i).member;
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (EqualsIgnoreCase(name, record.GetMember(i).name)) return record.GetMember(i).member;
  }
  return nullptr;
}

bool ParseBool(const std::string& text, bool* value) {
  const std::string t = Upper(text);
  if (t == "1" || t == "TRUE" || t == "YES" || t == "Y" || t == "ON") {
    *value = true;
    return true;
  }
  if (t == "0" || t == "FALSE" || t == "NO" || t == "N" || t == "OFF") {
    *value = false;
    return true;
  }
  return false;
}

bool ParseEnum(const CEnumInfo& info, const std::string& text, std::uint32_t* value,
               std::string* error) {
  if (info.table->Lookup(text.c_str(), value)) return true;
  const std::string upper = Upper(text);
  std::vector<std::string> partial;
  std::uint32_t partialValue = 0;
  for (std::size_t i = 0; i < info.table->count; ++i) {
    const std::string name = info.table->rows[i].name;
    if (Upper(name) == upper) {
      *value = info.table->rows[i].value;
      return true;
    }
    if (!upper.empty() && Upper(name).find(upper) != std::string::npos) {
      partial.push_back(name);
      partialValue = info.table->rows[i].value;
    }
  }
  if (partial.size() == 1) {
    *value = partialValue;
    return true;
  }
  std::uint64_t number = 0;
  if (ParseNumber(text, 0xFFFFFFFFu, &number)) {
    *value = static_cast<std::uint32_t>(number);
    return true;
  }
  if (partial.size() > 1) {
    *error = "'" + text + "' is ambiguous: " + Join(partial, ", ");
  } else {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < info.table->count && i < 40; ++i) {
      names.push_back(info.table->rows[i].name);
    }
    *error = "'" + text + "' is not a value of " + info.className +
             " (one of: " + Join(names, ", ") + (info.table->count > 40 ? ", ..." : "") + ")";
  }
  return false;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool ParseOpaque(const std::string& text, std::vector<unsigned char>* bytes, std::string* error) {
  std::string hex;
  if (text.rfind("text:", 0) == 0) {
    bytes->assign(text.begin() + 5, text.end());
    return true;
  }
  if (text.rfind("hex:", 0) == 0) {
    hex = text.substr(4);
  } else if (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0) {
    hex = text.substr(2);
  } else if (text.empty()) {
    bytes->clear();
    return true;
  } else {
    *error = "'" + text +
             "' is not an opaque value: write hex bytes as 0x0a0b.. or hex:0a0b.., "
             "or text as text:...";
    return false;
  }
  std::string digits;
  for (char c : hex) {
    if (c == ':' || c == ' ' || c == '-') continue;
    if (HexDigit(c) < 0) {
      *error = "'" + text + "' contains a character that is not a hex digit";
      return false;
    }
    digits += c;
  }
  if (digits.size() % 2 != 0) {
    *error = "'" + text + "' has an odd number of hex digits";
    return false;
  }
  bytes->clear();
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes->push_back(
        static_cast<unsigned char>(HexDigit(digits[i]) * 16 + HexDigit(digits[i + 1])));
  }
  return true;
}

// Describes the kind of one value in a few words.
std::string KindText(CIXDR& value) {
  switch (value.GetMemberType()) {
    case CIXDR::MEMBER_ULONG:
      return dynamic_cast<CXDRUShort*>(&value) != nullptr ? "number (16-bit)" : "number";
    case CIXDR::MEMBER_BOOL:
      return "yes/no";
    case CIXDR::MEMBER_STRING:
      return "string";
    case CIXDR::MEMBER_OPAQUE: {
      auto* opaque = dynamic_cast<CXDROpaque*>(&value);
      if (opaque != nullptr && opaque->IsFixedLength()) {
        return "bytes (exactly " + std::to_string(opaque->GetFixedSize()) + ", hex)";
      }
      return "bytes (hex)";
    }
    case CIXDR::MEMBER_ENUM: {
      const CEnumInfo* info = EnumInfoOf(&value);
      if (info == nullptr) return "enumeration";
      std::vector<std::string> names;
      for (std::size_t i = 0; i < info->table->count && i < 12; ++i) {
        names.push_back(info->table->rows[i].name);
      }
      return "one of " + Join(names, ", ") + (info->table->count > 12 ? ", ..." : "");
    }
    case CIXDR::MEMBER_CONTAINER:
      return dynamic_cast<CNDMPUQuad*>(&value) != nullptr ? "number (64-bit)" : "record";
    case CIXDR::MEMBER_ARRAY:
      return "list";
  }
  return "?";
}

}  // namespace

bool ParseNumber(const std::string& text, std::uint64_t max, std::uint64_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+' ||
      std::isspace(static_cast<unsigned char>(text[0]))) {
    return false;
  }
  errno = 0;
  char* end = nullptr;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  unsigned long long parsed = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || end == nullptr || *end != '\0' || parsed > max) return false;
  *value = parsed;
  return true;
}

const std::vector<CMessageInfo>& KnownMessages() {
  static const std::vector<CMessageInfo> messages = [] {
    std::vector<CMessageInfo> list;
    for (const CNDMPFactoryEntry& entry : NDMPFactoryTable()) {
      if (entry.makeRequest == nullptr) continue;
      list.push_back(CMessageInfo{enums::CNDMPMessageCode::ToString(entry.code), entry.code,
                                  entry.makeRequest == entry.makeReply});
    }
    std::sort(list.begin(), list.end(),
              [](const CMessageInfo& a, const CMessageInfo& b) { return a.code < b.code; });
    return list;
  }();
  return messages;
}

const CMessageInfo* FindMessageInfo(std::uint32_t code) {
  for (const CMessageInfo& info : KnownMessages()) {
    if (info.code == code) return &info;
  }
  return nullptr;
}

bool FindMessageCode(const std::string& text, std::uint32_t* code, std::string* error) {
  std::uint64_t number = 0;
  if (ParseNumber(text, 0xFFFFFFFFu, &number)) {
    if (FindMessageInfo(static_cast<std::uint32_t>(number)) == nullptr) {
      *error = "no message has the code " + text;
      return false;
    }
    *code = static_cast<std::uint32_t>(number);
    return true;
  }
  const std::string upper = Upper(text);
  for (const CMessageInfo& info : KnownMessages()) {
    if (info.name == upper || info.name == "NDMP_" + upper) {
      *code = info.code;
      return true;
    }
  }
  std::vector<std::string> close;
  for (const CMessageInfo& info : KnownMessages()) {
    if (!upper.empty() && info.name.find(upper) != std::string::npos) close.push_back(info.name);
  }
  *error = "unknown message '" + text + "'";
  if (!close.empty() && close.size() <= 12) {
    *error += "; did you mean " + Join(close, ", ") + "?";
  } else {
    *error += "; `ndmpc messages` lists them all";
  }
  return false;
}

std::unique_ptr<CNDMPMessage> MakeRequest(std::uint32_t code, unsigned int version) {
  std::unique_ptr<CNDMPMessage> message(
      CNDMPMessageAccess::Make(code, enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST));
  if (message) message->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  return message;
}

void SettleVersion(CNDMPMessage& message, unsigned int version) {
  // Setting another version and then the real one registers every record
  // anew, down through the union arms chosen meanwhile; the values stay.
  message.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version == 3 ? 4u : 3u));
  message.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
}

bool SetValueFromText(CIXDR& value, const std::string& text, std::string* error) {
  switch (value.GetMemberType()) {
    case CIXDR::MEMBER_ULONG: {
      const bool narrow = dynamic_cast<CXDRUShort*>(&value) != nullptr;
      std::uint64_t number = 0;
      in_addr address{};
      if (!narrow && ::inet_pton(AF_INET, text.c_str(), &address) == 1) {
        // An IPv4 address in dotted form, as the protocol carries it.
        static_cast<CXDRULong&>(value) = ntohl(address.s_addr);
        return true;
      }
      if (!ParseNumber(text, narrow ? 0xFFFFu : 0xFFFFFFFFu, &number)) {
        *error = "'" + text + "' is not a " + (narrow ? "16" : "32") + "-bit number";
        return false;
      }
      static_cast<CXDRULong&>(value) = static_cast<unsigned int>(number);
      return true;
    }
    case CIXDR::MEMBER_BOOL: {
      bool flag = false;
      if (!ParseBool(text, &flag)) {
        *error = "'" + text + "' is not yes/no (true/false, 1/0)";
        return false;
      }
      static_cast<CXDRULong&>(value) = flag ? 1u : 0u;
      return true;
    }
    case CIXDR::MEMBER_ENUM: {
      std::uint32_t number = 0;
      const CEnumInfo* info = EnumInfoOf(&value);
      if (info != nullptr) {
        if (!ParseEnum(*info, text, &number, error)) return false;
      } else {
        std::uint64_t parsed = 0;
        if (!ParseNumber(text, 0xFFFFFFFFu, &parsed)) {
          *error = "'" + text + "' is not a number";
          return false;
        }
        number = static_cast<std::uint32_t>(parsed);
      }
      static_cast<CXDRULong&>(value) = number;
      return true;
    }
    case CIXDR::MEMBER_STRING: {
      auto* string = dynamic_cast<CXDRString*>(&value);
      if (string == nullptr) break;
      string->SetString(text);
      return true;
    }
    case CIXDR::MEMBER_OPAQUE: {
      auto* opaque = dynamic_cast<CXDROpaque*>(&value);
      if (opaque == nullptr) break;
      std::vector<unsigned char> bytes;
      if (!ParseOpaque(text, &bytes, error)) return false;
      if (opaque->IsFixedLength() && bytes.size() != opaque->GetFixedSize()) {
        *error = "this field holds exactly " + std::to_string(opaque->GetFixedSize()) +
                 " bytes, '" + text + "' has " + std::to_string(bytes.size());
        return false;
      }
      opaque->SetData(bytes.data(), bytes.size());
      return true;
    }
    case CIXDR::MEMBER_CONTAINER: {
      if (auto* quad = dynamic_cast<CNDMPUQuad*>(&value)) {
        std::uint64_t number = 0;
        if (!ParseNumber(text, ~std::uint64_t{0}, &number)) {
          *error = "'" + text + "' is not a 64-bit number";
          return false;
        }
        *quad = CNDMPUQuad(number);
        return true;
      }
      auto* record = dynamic_cast<CXDRContainer*>(&value);
      *error = "this field is a record: set its fields one by one (" +
               (record != nullptr ? Join(MemberNames(*record), ", ") : std::string()) + ")";
      return false;
    }
    case CIXDR::MEMBER_ARRAY: {
      const CArrayAccess* access = ArrayAccessOf(value);
      if (access == nullptr) break;
      CIXDR& prototype = access->Prototype();
      if (dynamic_cast<CNDMPPVal*>(&prototype) != nullptr) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos) {
          *error = "this field is a list of name/value pairs: write NAME=VALUE";
          return false;
        }
        auto& element = static_cast<CNDMPPVal&>(access->Append(value));
        element.Name = text.substr(0, equals);
        element.Value = text.substr(equals + 1);
        return true;
      }
      if (prototype.GetMemberType() == CIXDR::MEMBER_CONTAINER &&
          dynamic_cast<CNDMPUQuad*>(&prototype) == nullptr) {
        *error = "this field is a list of records: set their fields as Field[0].Name=...";
        return false;
      }
      // A list of plain values: each assignment appends one. The text is
      // tried on the scratch element first, so a bad value appends nothing.
      if (!SetValueFromText(prototype, text, error)) return false;
      return SetValueFromText(access->Append(value), text, error);
    }
  }
  *error = "this field cannot be set from text";
  return false;
}

bool ApplyAssignment(CXDRContainer& message, const std::string& assignment, std::string* error) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) {
    *error = "'" + assignment + "' is not FIELD=VALUE";
    return false;
  }
  const std::string path = assignment.substr(0, equals);
  const std::string text = assignment.substr(equals + 1);
  std::vector<CPathStep> steps;
  if (!ParsePath(path, &steps, error)) return false;
  CXDRContainer* record = &message;
  std::string walked;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const CPathStep& step = steps[i];
    CIXDR* member = FindMember(*record, step.name);
    if (member == nullptr) {
      std::vector<std::string> names = MemberNames(*record);
      *error = (walked.empty() ? std::string("the message") : "'" + walked + "'") +
               " has no field '" + step.name + "'" +
               (names.empty() ? std::string("; it has no fields")
                              : "; its fields are: " + Join(names, ", "));
      return false;
    }
    walked += (walked.empty() ? "" : ".") + step.name;
    if (step.indexed) {
      const CArrayAccess* access = ArrayAccessOf(*member);
      if (access == nullptr) {
        *error = "'" + walked + "' is not a list";
        return false;
      }
      const std::size_t size = access->Size(*member);
      if (step.append || step.index == size) {
        member = &access->Append(*member);
      } else if (step.index < size) {
        member = &access->Element(*member, step.index);
      } else {
        *error = "'" + walked + "' has " + std::to_string(size) + " element(s): use index " +
                 std::to_string(size) + " (or []) to append";
        return false;
      }
      walked += "[" + std::to_string(step.append ? size : step.index) + "]";
    }
    const bool last = i + 1 == steps.size();
    if (last) {
      if (!SetValueFromText(*member, text, error)) {
        *error = walked + ": " + *error;
        return false;
      }
      return true;
    }
    auto* nested = dynamic_cast<CXDRContainer*>(member);
    if (nested == nullptr) {
      *error = "'" + walked + "' has no fields to set" +
               (member->GetMemberType() == CIXDR::MEMBER_ARRAY
                    ? std::string(": it is a list, name an element as ") + walked + "[0]"
                    : std::string());
      return false;
    }
    record = nested;
  }
  return true;
}

namespace {

void DescribeMember(const CXDRContainer::MemberItem& item, int level, std::string* out) {
  const std::string indent(static_cast<std::size_t>(level) * 2, ' ');
  CIXDR& member = *item.member;
  std::string line = indent + item.name;
  if (member.GetMemberType() == CIXDR::MEMBER_ARRAY) {
    const CArrayAccess* access = ArrayAccessOf(member);
    if (access == nullptr) {
      *out += line + "[]  list\n";
      return;
    }
    CIXDR& prototype = access->Prototype();
    auto* nested = dynamic_cast<CXDRContainer*>(&prototype);
    if (nested != nullptr && dynamic_cast<CNDMPUQuad*>(&prototype) == nullptr) {
      *out += line + "[]  list of records" +
              (dynamic_cast<CNDMPPVal*>(&prototype) != nullptr ? " (or NAME=VALUE)" : "") + "\n";
      DescribeFields(*nested, level + 1, out);
    } else {
      *out += line + "[]  list of " + KindText(prototype) + " (repeat to add)\n";
    }
    return;
  }
  auto* nested = dynamic_cast<CXDRContainer*>(&member);
  if (nested != nullptr && dynamic_cast<CNDMPUQuad*>(&member) == nullptr) {
    *out += line + "  record\n";
    DescribeFields(*nested, level + 1, out);
    return;
  }
  if (line.size() < 28) line.append(28 - line.size(), ' ');
  *out += line + "  " + KindText(member) + "\n";
}

}  // namespace

void DescribeFields(CXDRContainer& record, int level, std::string* out) {
  const std::size_t n = MemberCount(record);
  if (n == 0 && level == 1) *out += std::string(2, ' ') + "(no fields)\n";
  if (dynamic_cast<CNDMPUnionRecord*>(&record) != nullptr && n >= 1) {
    // A union: its discriminant, then the fields each of its values selects.
    const CXDRContainer::MemberItem discriminant = record.GetMember(0);
    DescribeMember(discriminant, level, out);
    const CEnumInfo* info = EnumInfoOf(discriminant.member);
    if (info == nullptr) return;
    auto& value = static_cast<CXDRULong&>(*discriminant.member);
    const unsigned int saved = value.getInt32();
    for (std::size_t row = 0; row < info->table->count; ++row) {
      value = info->table->rows[row].value;
      const std::size_t m = MemberCount(record);
      if (m <= 1) continue;
      *out += std::string(static_cast<std::size_t>(level) * 2, ' ') + "with " + discriminant.name +
              "=" + info->table->rows[row].name + ":\n";
      for (std::size_t i = 1; i < m; ++i) DescribeMember(record.GetMember(i), level + 1, out);
    }
    value = saved;
    MemberCount(record);
    return;
  }
  for (std::size_t i = 0; i < n; ++i) DescribeMember(record.GetMember(i), level, out);
}

bool ReplyCarriesError(CXDRContainer& reply, std::string* name) {
  const std::size_t n = MemberCount(reply);
  for (std::size_t i = 0; i < n; ++i) {
    CIXDR* member = reply.GetMember(i).member;
    auto* error = dynamic_cast<CXDREnumBase<enums::CNDMPError>*>(member);
    if (error == nullptr) continue;
    const unsigned int value = error->getInt32();
    // A SnapVault reply reports success with its own code.
    if (value == enums::CNDMPError::NDMP_NO_ERR ||
        value == enums::CNDMPError::NDMP_SV_RPL_SUCCESS) {
      return false;
    }
    *name = error->ToString();
    return true;
  }
  return false;
}

}  // namespace com::vx::korvane::ndmpc::tools
