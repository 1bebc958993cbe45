#include "ndmpc/ndmp/enums/enum_table.h"

#include <cstring>

namespace com::vx::korvane::ndmpc::enums {

const char* CEnumTable::Find(std::uint32_t value) const {
  for (std::size_t i = 0; i < count; ++i) {
    if (rows[i].value == value) return rows[i].name;
  }
  return nullptr;
}

VxString CEnumTable::Name(std::uint32_t value) const {
  const char* name = Find(value);
  return name != nullptr ? name : "UNKNOWN";
}

bool CEnumTable::Lookup(const char* name, std::uint32_t* value) const {
  if (name == nullptr) return false;
  for (std::size_t i = 0; i < count; ++i) {
    if (std::strcmp(rows[i].name, name) == 0) {
      if (value != nullptr) *value = rows[i].value;
      return true;
    }
  }
  return false;
}

}  // namespace com::vx::korvane::ndmpc::enums
