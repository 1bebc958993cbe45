// Generic access to the XDR values of any message, for the command-line
// tool: which enumeration a member holds, the elements of an array, and a
// JSON rendering of whole records.
//
//   CIXDR* member = record.GetMember(i).member;
//   if (const enums::CEnumTable* table = EnumTableOf(member)) { ... }
//   if (const CArrayAccess* array = ArrayAccessOf(member)) {
//     for (std::size_t k = 0; k < array->Size(*member); ++k) Use(array->Element(*member, k));
//   }
//
// Enumerations and array element types are known from one list each in
// xdr_reflect.cc; a test walks every message of the catalogue to keep the
// lists complete.
#pragma once

#include <cstddef>
#include <string>

#include "ndmpc/ndmp/enums/enum_table.h"
#include "ndmpc/xdr/xdr_container.h"
#include "tools/cli/json_writer.h"

namespace com::vx::korvane::ndmpc::tools {

// The value table of an enumerated member, with the enumeration class's
// name; null for a value that is not one of the known enumerations.
struct CEnumInfo {
  const char* className;
  const enums::CEnumTable* table;
};
const CEnumInfo* EnumInfoOf(CIXDR* value);
inline const enums::CEnumTable* EnumTableOf(CIXDR* value) {
  const CEnumInfo* info = EnumInfoOf(value);
  return info != nullptr ? info->table : nullptr;
}

// Element access for a CXDRArray<T> of one known element type.
class CArrayAccess {
 public:
  virtual ~CArrayAccess() = default;
  virtual bool Matches(CIXDR& array) const = 0;
  virtual std::size_t Size(CIXDR& array) const = 0;
  virtual CIXDR& Element(CIXDR& array, std::size_t index) const = 0;
  // Appends a default element and returns it.
  virtual CIXDR& Append(CIXDR& array) const = 0;
  // A default element, for describing the element type; owned by the accessor.
  virtual CIXDR& Prototype() const = 0;
};
// Null for an array of an unknown element type.
const CArrayAccess* ArrayAccessOf(CIXDR& value);

// The name of an enumerated value as its dump shows it ("UNKNOWN" when the
// number has no name).
std::string EnumValueName(CIXDR& value);
// The bytes of an opaque as lower-case hex.
std::string OpaqueHex(const CXDROpaque& opaque);

// Writes any value as JSON: records as objects by registered member name,
// enumerations as {"value": n, "name": "..."}, 64-bit numbers as numbers,
// opaques as hex strings, arrays as lists.
void WriteJsonValue(CJsonWriter& json, CIXDR& value);

// The registered members of `record`, registering them (and refreshing a
// union's selected arm) first.
std::size_t MemberCount(CXDRContainer& record);

}  // namespace com::vx::korvane::ndmpc::tools
