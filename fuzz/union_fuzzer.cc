// Fuzz target: the discriminated unions. Byte 0 picks the record
// (CNDMPAuthData, CNDMPAuthAttr, CNDMPAddr under version 3 or 4,
// CNDMPFileName); the rest is its encoding, sent as one record. The record
// is decoded, dumped, and encoded again.
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

namespace ndmpc = com::vx::korvane::ndmpc;

namespace {

void Run(ndmpc::CXDRContainer& record, const std::uint8_t* data, std::size_t size) {
  auto framed = ndmpc::fuzz::Frame(data, size, 4096);
  int result = ndmpc::XDR_FAILURE;
  ndmpc::fuzz::FeedStream(framed.data(), framed.size(),
                          [&](ndmpc::CXDRStream& stream) { result = record.DeSerialize(stream); });
  record.DumpContents(0);
  record.SerializeSize();
  if (result != ndmpc::XDR_FAILURE) {
    ndmpc::fuzz::WithDrainedStream([&](ndmpc::CXDRStream& stream) {
      if (record.Serialize(stream) != ndmpc::XDR_FAILURE) stream.flushRecord();
    });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t* payload = data + 1;
  const std::size_t length = size - 1;
  switch (data[0] % 5) {
    case 0: {
      ndmpc::CNDMPAuthData record;
      Run(record, payload, length);
      break;
    }
    case 1: {
      ndmpc::CNDMPAuthAttr record;
      Run(record, payload, length);
      break;
    }
    case 2:
    case 3: {
      ndmpc::CNDMPAddr record;
      record.SetProtocolVersion(ndmpc::CXDREnumBase<ndmpc::enums::CNDMPProtocolVersion>(
          data[0] % 5 == 2 ? 3u : 4u));
      Run(record, payload, length);
      break;
    }
    default: {
      ndmpc::CNDMPFileName record;
      Run(record, payload, length);
      break;
    }
  }
  return 0;
}
