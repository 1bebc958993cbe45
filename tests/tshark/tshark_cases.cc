#include "tests/tshark/tshark_cases.h"

#include <cstdio>

#include "ndmpc/ndmp/messages/message_access.h"

namespace com::vx::korvane::ndmpc::testing {

std::string HexOf(const std::string& bytes) {
  std::string hex;
  char buffer[3];
  for (unsigned char b : bytes) {
    std::snprintf(buffer, sizeof buffer, "%02x", b);
    hex += buffer;
  }
  return hex;
}

CExpectedField Num(const char* field, std::uint64_t value) {
  return {field, CExpectedField::kNumber, std::to_string(value)};
}

CExpectedField Str(const char* field, const std::string& text) {
  return {field, CExpectedField::kText, text};
}

CExpectedField Ip(const char* field, std::uint32_t address) {
  return {field, CExpectedField::kIpv4,
          std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
              std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF)};
}

CExpectedField Raw(const char* field, const std::vector<unsigned char>& bytes) {
  return {field, CExpectedField::kBytes, HexOf(std::string(bytes.begin(), bytes.end()))};
}

std::vector<unsigned char> Pattern(std::size_t length, unsigned char first) {
  std::vector<unsigned char> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<unsigned char>(first + 7 * i);
  return bytes;
}

CTsharkCase& CCaseList::Push(CTsharkCase c, const std::string& suffix) {
  std::unique_ptr<CNDMPMessage> sample = c.make();
  c.code = CNDMPMessageAccess::Code(*sample).getInt32();
  c.type = CNDMPMessageAccess::Type(*sample).getInt32();
  std::string name = enums::CNDMPMessageCode::ToString(c.code);
  if (name.rfind("NDMP_", 0) == 0) name.erase(0, 5);
  const bool post = c.code >= 0x500 && c.code < 0x800;
  name += post ? "_Post" : c.type == enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST ? "_Request"
                                                                                   : "_Reply";
  name += "_v" + std::to_string(c.version);
  if (!suffix.empty()) name += "_" + suffix;
  c.name = name;
  cases_.push_back(std::move(c));
  return cases_.back();
}

const std::vector<CTsharkCase>& AllTsharkCases() {
  static const std::vector<CTsharkCase> all = [] {
    CCaseList list;
    AddSpecialCases(list);
    AddCatalogueCases(list);
    return list.Cases();
  }();
  return all;
}

}  // namespace com::vx::korvane::ndmpc::testing
