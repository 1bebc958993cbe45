// Fuzz target: the record stream reading arbitrary fragment sequences.
// Byte 0: bits 0-5 the number of operations n (at most 63), bits 6-7 the
// maximum record size (64 MiB, 24, 100 or 4096 bytes). The next n bytes are
// the operations, the rest is the raw input, fragment headers included.
// Operation byte: low 2 bits pick getBytes / skipRecord / DiscardRecord /
// IsAvailable; for getBytes the high 6 bits pick the count (1..64, or a
// long read of 5000 bytes for 63).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_support.h"

namespace ndmpc = com::vx::korvane::ndmpc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  std::size_t count = data[0] & 63;
  if (size < 1 + count) return 0;
  const std::uint8_t* ops = data + 1;
  static const std::uint32_t kLimits[] = {ndmpc::CXDRStream::kDefaultMaxRecordSize, 24, 100, 4096};
  const std::uint32_t limit = kLimits[data[0] >> 6];
  ndmpc::fuzz::FeedStream(data + 1 + count, size - 1 - count, [&](ndmpc::CXDRStream& stream) {
    stream.SetMaxRecordSize(limit);
    std::vector<unsigned char> buffer(5000);
    for (std::size_t i = 0; i < count; ++i) {
      const unsigned int arg = ops[i] >> 2;
      switch (ops[i] & 3) {
        case 0: {
          const int want = arg == 63 ? 5000 : static_cast<int>(arg) + 1;
          int r = stream.getBytes(want, buffer.data());
          if (r != ndmpc::XDR_FAILURE && r != want) __builtin_trap();
          break;
        }
        case 1:
          if (stream.skipRecord() != 0) __builtin_trap();
          break;
        case 2: {
          int dropped = stream.DiscardRecord();
          if (dropped >= 0 && (!stream.AtRecordEnd() || stream.RecordOverLimit())) __builtin_trap();
          break;
        }
        default:
          stream.IsAvailable();
          break;
      }
      if (stream.GetBytesAvailable() < 0 || stream.GetBytesAvailable() > ndmpc::CXDRStream::kBufferSize) {
        __builtin_trap();
      }
      // Refused only for a record whose headers announced more than the limit.
      if (stream.RecordOverLimit() && stream.GetRecordSize() <= limit) __builtin_trap();
    }
  });
  return 0;
}
