// Expected (number, text) rows written compactly, for tests that pin whole
// name tables: whitespace-separated tokens, where "@1A" sets the next number
// (hexadecimal), "=NDMP_FOO_" sets the prefix of the names that follow ("="
// clears it), and any other token is a name that takes the next number.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace com::vx::korvane::ndmpc::testing {

inline std::vector<std::pair<std::uint32_t, std::string>> CompactRows(const char* text) {
  std::vector<std::pair<std::uint32_t, std::string>> rows;
  std::istringstream in(text);
  std::string token;
  std::string prefix;
  std::uint32_t next = 0;
  while (in >> token) {
    if (token[0] == '@') {
      next = static_cast<std::uint32_t>(std::strtoul(token.c_str() + 1, nullptr, 16));
    } else if (token[0] == '=') {
      prefix = token.substr(1);
    } else {
      rows.emplace_back(next++, prefix + token);
    }
  }
  return rows;
}

}  // namespace com::vx::korvane::ndmpc::testing
