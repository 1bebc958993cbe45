// Building any request of the catalogue from text, for `ndmpc send`:
//
//   std::uint32_t code;
//   std::string error;
//   if (FindMessageCode("tape_open", &code, &error)) {
//     std::unique_ptr<CNDMPMessage> request = MakeRequest(code, 4);
//     ApplyAssignment(*request, "Device=tape0", &error);
//     ApplyAssignment(*request, "Mode=NDMP_TAPE_RDWR_MODE", &error);
//   }
//
// A field is named by its registered name, nested records with dots
// ("Address.AddressType"), array elements by index ("Env[0].Name", "[]"
// appends) or, for lists of plain values, by repeating the field. Values:
// numbers (decimal or 0x hex), enumeration names (exact, any case, or a
// unique part such as "rdwr") or numbers, strings, opaques as "0x0a0b..",
// "hex:0a0b.." or "text:abc", yes/no for booleans, "NAME=VALUE" for an
// element of a name/value list.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/message.h"

namespace com::vx::korvane::ndmpc::tools {

struct CMessageInfo {
  std::string name;
  std::uint32_t code;
  // Sent without a reply: notifications, file history, log posts and
  // NDMP_CONNECT_CLOSE.
  bool noReply;
};

// Every message that can be sent, sorted by code.
const std::vector<CMessageInfo>& KnownMessages();
// Finds a message by name (exact, any case, with or without "NDMP_") or by
// number; false with `*error` saying what is wrong and what is close.
bool FindMessageCode(const std::string& text, std::uint32_t* code, std::string* error);
const CMessageInfo* FindMessageInfo(std::uint32_t code);
// The request body for `code` encoded under `version`; null when the
// catalogue has none.
std::unique_ptr<CNDMPMessage> MakeRequest(std::uint32_t code, unsigned int version);
// Applies "FIELD=VALUE" to `message`; false with `*error` set.
bool ApplyAssignment(CXDRContainer& message, const std::string& assignment, std::string* error);
// Sets one value from text; false with `*error` set.
bool SetValueFromText(CIXDR& value, const std::string& text, std::string* error);
// Registers every nested record anew under the message's version, so that
// union arms chosen after the version was set are encoded under it too.
void SettleVersion(CNDMPMessage& message, unsigned int version);
// Lines describing the fields of `record`, indented by `level`.
void DescribeFields(CXDRContainer& record, int level, std::string* out);
// True when a reply body reports an error in its first error member;
// `*name` is the error's name.
bool ReplyCarriesError(CXDRContainer& reply, std::string* name);

// Parses a number: decimal, 0x hex; false when the text is not one or is
// larger than `max`.
bool ParseNumber(const std::string& text, std::uint64_t max, std::uint64_t* value);

}  // namespace com::vx::korvane::ndmpc::tools
