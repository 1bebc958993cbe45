// CXDREnumBase<E>: an XDR enum (one 4-byte word) whose value names come from
// the enumeration class E.
//
//   CXDREnumBase<enums::CNDMPError> err = enums::CNDMPError::NDMP_IO_ERR;
//   err.ToString();        // "NDMP_IO_ERR"
//   err.DumpContents(0);   // "0x7:NDMP_IO_ERR"
#pragma once

#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

template <class E>
class CXDREnumBase : public CXDRULong {
 public:
  using enum_type = E;

  CXDREnumBase() : CXDRULong(MEMBER_ENUM) {}
  CXDREnumBase(typename E::enum_value value) : CXDRULong(MEMBER_ENUM) { value_ = value; }
  // A number from the wire or from a caller; E need not know it.
  explicit CXDREnumBase(unsigned int value) : CXDRULong(MEMBER_ENUM) { value_ = value; }
  CXDREnumBase(const CXDREnumBase&) = default;
  ~CXDREnumBase() override = default;

  CXDREnumBase& operator=(const CXDREnumBase& other) {
    value_ = other.value_;
    return *this;
  }
  CXDREnumBase& operator=(typename E::enum_value value) {
    value_ = value;
    return *this;
  }
  // A plain number, known to E or not.
  CXDREnumBase& operator=(unsigned int value) {
    value_ = value;
    return *this;
  }
  bool operator==(const CXDREnumBase& other) const { return value_ == other.value_; }
  bool operator!=(const CXDREnumBase& other) const { return value_ != other.value_; }
  bool operator==(typename E::enum_value value) const { return value_ == value; }
  bool operator!=(typename E::enum_value value) const { return value_ != value; }
  bool operator==(unsigned int value) const { return value_ == value; }
  bool operator!=(unsigned int value) const { return value_ != value; }

  VxString ToString() const { return E::ToString(value_); }
  VxString DumpContents(int /*level*/) override {
    return detail::Format("0x%X:", value_) + E::ToString(value_);
  }
};

}  // namespace com::vx::korvane::ndmpc
