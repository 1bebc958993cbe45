// VxString: 8-bit text carried through the library without any conversion.
// It is a plain std::string; the name is kept because every interface uses it.
#pragma once

#include <string>

namespace com::vx::korvane::ndmpc {

using VxString = std::string;

}  // namespace com::vx::korvane::ndmpc
