// The messages shown to tshark: one case per message (and per protocol
// version where the layout differs), each a populated body and the fields
// tshark must read back from its bytes.
//
//   list.Add<CNDMPTapeMtioRequest>("tape", 4,
//       [](auto& m) { m.TapeOp = NDMP_MTIO_FSF; m.Count = 3; },
//       {Num("ndmp.tape.mtio.op", NDMP_MTIO_FSF), Num("ndmp.count", 3)});
//
// For each tshark field named in a case, the values tshark shows for that
// field in the message body, in order, must be exactly the listed ones, so
// array elements that are lost or invented fail too. The header is checked
// for every case without being listed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/messages/message.h"

namespace com::vx::korvane::ndmpc::testing {

struct CExpectedField {
  enum Kind {
    kNumber,  // the shown value as a number (decimal or 0x hex)
    kText,    // the field's bytes are exactly the text
    kIpv4,    // the shown dotted address
    kBytes,   // the field's bytes, as lower-case hex
  };
  std::string field;
  Kind kind;
  std::string expected;  // decimal number, text, dotted address or hex
};

CExpectedField Num(const char* field, std::uint64_t value);
CExpectedField Str(const char* field, const std::string& text);
CExpectedField Ip(const char* field, std::uint32_t address);
CExpectedField Raw(const char* field, const std::vector<unsigned char>& bytes);

struct CTsharkCase {
  std::string name;     // e.g. "MOVER_GET_STATE_Reply_v3"
  std::string family;   // "connect", "config", "scsi", "tape", "data", ...
  unsigned version = 4;
  std::uint32_t code = 0;
  std::uint32_t type = 0;
  std::uint32_t headerError = 0;
  // Where tshark 4.0 and the bytes part ways on purpose: tshark may leave
  // the last `undecodedTail` bytes of the body unread (it reads this
  // message with a shorter layout), or not know the message at all. `note`
  // says why; fields in such a tail are not listed in `fields`.
  std::size_t undecodedTail = 0;
  bool unknownToTshark = false;
  std::string note;
  std::function<std::unique_ptr<CNDMPMessage>()> make;
  std::vector<CExpectedField> fields;

  CTsharkCase& TsharkStopsEarly(std::size_t bytes, const std::string& why) {
    undecodedTail = bytes;
    note = why;
    return *this;
  }
  CTsharkCase& TsharkDoesNotKnow(const std::string& why) {
    unknownToTshark = true;
    note = why;
    return *this;
  }
};

class CCaseList {
 public:
  // A case for body class T under `version`, filled by `fill`. `suffix`
  // tells apart two cases of one message and version.
  template <class T, class Fill>
  CTsharkCase& Add(const char* family, unsigned version, Fill fill,
                   std::vector<CExpectedField> fields, const std::string& suffix = "") {
    auto make = [version, fill]() -> std::unique_ptr<CNDMPMessage> {
      auto m = std::make_unique<T>();
      m->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
      fill(*m);
      return m;
    };
    return AddMade(family, version, make, std::move(fields), suffix);
  }
  // A case for the body `make` returns, already at `version`.
  CTsharkCase& AddMade(const char* family, unsigned version,
                       std::function<std::unique_ptr<CNDMPMessage>()> make,
                       std::vector<CExpectedField> fields, const std::string& suffix) {
    CTsharkCase c;
    c.family = family;
    c.version = version;
    c.make = std::move(make);
    c.fields = std::move(fields);
    return Push(std::move(c), suffix);
  }

  std::vector<CTsharkCase>& Cases() { return cases_; }

 private:
  // Fills in code, type and name from a sample body.
  CTsharkCase& Push(CTsharkCase c, const std::string& suffix);

  std::vector<CTsharkCase> cases_;
};

// The standard messages populated from the factory table, and the
// hand-written cases of the messages whose values tshark interprets.
void AddCatalogueCases(CCaseList& list);
void AddSpecialCases(CCaseList& list);
// Member paths of the catalogue cases that have no tshark field named.
const std::vector<std::string>& MembersWithoutTsharkField();

// Every case, built once.
const std::vector<CTsharkCase>& AllTsharkCases();

// Helpers for filling bodies, and lower-case hex as tshark shows bytes.
std::vector<unsigned char> Pattern(std::size_t length, unsigned char first);
std::string HexOf(const std::string& bytes);

}  // namespace com::vx::korvane::ndmpc::testing
