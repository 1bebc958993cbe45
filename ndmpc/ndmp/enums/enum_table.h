// Number-to-name tables shared by every enumeration class.
//
// An enumeration class is declared once with an X-macro list of (name, number)
// pairs; the same list produces the C++ enumerators and the name table, so a
// value's text is always exactly its name:
//
//   #define NDMPC_AUTH_TYPE_VALUES(X) X(NDMP_AUTH_NONE, 0) X(NDMP_AUTH_TEXT, 1)
//   NDMPC_DECLARE_ENUM_CLASS(CNDMPEnumAuthType, NDMPC_AUTH_TYPE_VALUES)
//   NDMPC_DEFINE_ENUM_CLASS(CNDMPEnumAuthType, NDMPC_AUTH_TYPE_VALUES)  // in a .cc
#pragma once

#include <cstddef>
#include <cstdint>

#include "ndmpc/foundation/vx_string.h"

namespace com::vx::korvane::ndmpc::enums {

// One row of a name table.
struct CEnumName {
  std::uint32_t value;
  const char* name;
};

// A whole table; the rows need not be sorted or dense.
struct CEnumTable {
  const CEnumName* rows;
  std::size_t count;

  // The row's name for `value`, or nullptr when the table has no such row.
  const char* Find(std::uint32_t value) const;
  // The name for `value`, or "UNKNOWN".
  VxString Name(std::uint32_t value) const;
  // The number for `name`, if the table has it.
  bool Lookup(const char* name, std::uint32_t* value) const;
};

}  // namespace com::vx::korvane::ndmpc::enums

#define NDMPC_ENUM_ENUMERATOR_(name, number) name = (number),
#define NDMPC_ENUM_ROW_(name, number) {static_cast<std::uint32_t>(number), #name},

// Declares class `cls` with its `enum_value`, `ToString` and the name table.
#define NDMPC_DECLARE_ENUM_CLASS(cls, LIST)                              \
  class cls {                                                            \
   public:                                                               \
    enum enum_value : std::uint32_t { LIST(NDMPC_ENUM_ENUMERATOR_) };    \
    cls() = default;                                                     \
    cls(const cls&) = default;                                           \
    cls& operator=(const cls&) = default;                                \
    /* The value's name, or "UNKNOWN" for a number without one. */       \
    static ::com::vx::korvane::ndmpc::VxString ToString(std::uint32_t v) \
    {                                                                    \
      return Table().Name(v);                                            \
    }                                                                    \
    static const ::com::vx::korvane::ndmpc::enums::CEnumTable& Table();  \
  };

// Defines the name table of `cls`; used once, in a source file.
#define NDMPC_DEFINE_ENUM_CLASS(cls, LIST)                                   \
  const ::com::vx::korvane::ndmpc::enums::CEnumTable& cls::Table() {         \
    static const ::com::vx::korvane::ndmpc::enums::CEnumName rows[] = {      \
        LIST(NDMPC_ENUM_ROW_)};                                              \
    static const ::com::vx::korvane::ndmpc::enums::CEnumTable table = {      \
        rows, sizeof(rows) / sizeof(rows[0])};                               \
    return table;                                                            \
  }
