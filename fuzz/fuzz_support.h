// Shared plumbing of the fuzz targets: feeds raw bytes to a CXDRStream over
// a socket pair and gives encoders a stream whose output is drained.
//
//   FeedStream(bytes, size, [](CXDRStream& in) { value.DeSerialize(in); });
//   WithDrainedStream([&](CXDRStream& out) { value.Serialize(out); out.flushRecord(); });
//
// The writer closes its end after the last byte, so every read past the
// input ends at once with end of data instead of waiting for more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/xdr/xdr_stream.h"

namespace com::vx::korvane::ndmpc::fuzz {

// A log that drops every line (the fuzzers would otherwise spend their time
// formatting error lines); the formatting itself still runs at level 0.
VxLog& QuietLog();

// Writes `size` bytes from a thread into one end of a socket pair, closes
// it, and runs `read` on a CXDRStream over the other end. When `read`
// returns, the reading end is shut down so that a writer blocked on a full
// socket ends too.
void FeedStream(const std::uint8_t* data, std::size_t size,
                const std::function<void(CXDRStream&)>& read);

// Runs `write` on a CXDRStream whose peer reads and discards everything.
void WithDrainedStream(const std::function<void(CXDRStream&)>& write);

// `payload` as one record cut into fragments of `fragment` data bytes
// (the last one marked); an empty payload is one empty last fragment.
std::vector<std::uint8_t> Frame(const std::uint8_t* payload, std::size_t size,
                                std::size_t fragment);

}  // namespace com::vx::korvane::ndmpc::fuzz
