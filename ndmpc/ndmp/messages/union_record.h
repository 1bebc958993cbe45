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

  // Decodes the discriminant, then the arm it selects, then registers anew
  // so that later encoding and dumping follow the received discriminant.
  int DeSerialize(CXDRStream& stream) override;
  // These follow the current discriminant, also after a caller changed it.
  int Serialize(CXDRStream& stream) override;
  unsigned int SerializeSize() override;
  VxString DumpContents(int level) override;

 protected:
  virtual const char* DiscriminantName() const = 0;
  virtual CXDRULong& Discriminant() = 0;
  // The arm for `value` under the record's protocol version, with its
  // registered name; null when the value selects nothing.
  virtual CIXDR* SelectArm(std::uint32_t value, const char** name) = 0;
  int RegisterMembers() override;

 private:
  void Refresh();

  std::uint32_t registeredFor_ = 0;  // discriminant of the current registration
};

}  // namespace com::vx::korvane::ndmpc
