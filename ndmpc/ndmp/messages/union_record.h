// CNDMPUnionRecord: the base of the discriminated unions (authentication
// data and attributes, addresses, file names). Every arm exists in the
// object, but only the discriminant and the arm it selects are registered,
// so only they are encoded, decoded and dumped.
//
// A subclass names its discriminant and says which arm a value selects:
//
//   CIXDR* SelectArm(std::uint32_t type, const char** name) override {
//     if (type == NDMP_AUTH_TEXT) { *name = "TextAuthenticationData"; return &Text; }
//     return nullptr;
//   }
#pragma once

#include <cstdint>

#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

class CNDMPUnionRecord : public CXDRContainer {
 public:
  CNDMPUnionRecord() { MarkKeyed(); }

  // Decodes the discriminant, then the arm it selects. Encoding, sizing and
  // dumping follow the current discriminant, whether received or set by a
  // caller.
  int DeSerialize(CXDRStream& stream) override;

 protected:
  virtual const char* DiscriminantName() const = 0;
  virtual CXDRULong& Discriminant() = 0;
  // The arm for `value` under the record's protocol version, with its
  // registered name; null when the value selects nothing.
  virtual CIXDR* SelectArm(std::uint32_t value, const char** name) = 0;
  int RegisterMembers() override;
  // Records whose discriminants select the same arm share a registration.
  std::uint32_t LayoutKey() override;
};

}  // namespace com::vx::korvane::ndmpc
