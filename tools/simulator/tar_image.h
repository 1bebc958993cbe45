// POSIX ustar headers with pax extended headers, as the simulator's data
// engine writes and reads them. An entry's header blocks are a pax header
// ('x') with its records when a field does not fit ustar (long or non-ASCII
// names and link names, sizes from 8 GiB, ids or times out of the octal
// range, modification times with a fraction of a second), then the ustar header; the file's data
// follows, padded to 512.
//
//   std::string blocks = EncodeTarHeader(entry);      // multiple of 512
//   CTarEntry back;
//   ReadTarHeader(readExact, &back, &error);          // kEntry, kEnd, ...
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace com::vx::korvane::ndmpc::tools {

constexpr std::size_t kTarBlockSize = 512;

inline std::uint64_t TarPadded(std::uint64_t size) {
  return (size + kTarBlockSize - 1) / kTarBlockSize * kTarBlockSize;
}

struct CTarEntry {
  std::string name;      // as stored: "./a/b.txt"; directories end with '/'
  std::string linkName;  // target of a symbolic or hard link
  char type = '0';       // '0' file, '5' directory, '2' symbolic link, '1' hard link, ...
  std::uint32_t mode = 0, uid = 0, gid = 0;
  std::uint64_t size = 0;  // data bytes that follow the header
  std::int64_t mtime = 0;
  std::uint32_t mtimeNsec = 0;  // carried in a pax record when not zero
};

// The header blocks of `entry` (a pax header first when one is needed).
std::string EncodeTarHeader(const CTarEntry& entry);

enum class CTarRead { kEntry, kEnd, kBad, kIoFailed };

// Reads the next entry's headers through `readExact` (which fills exactly
// the bytes asked for or fails): pax 'x' and long-name 'L'/'K' headers are
// applied to the ustar header that follows, pax 'g' headers skipped. kEnd at
// a zero block; kBad (and *error) for a corrupt header; kIoFailed when
// `readExact` fails. The entry's data is left for the caller to read.
CTarRead ReadTarHeader(const std::function<bool(void*, std::size_t)>& readExact, CTarEntry* entry,
                       std::string* error);

}  // namespace com::vx::korvane::ndmpc::tools
