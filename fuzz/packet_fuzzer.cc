// Fuzz target: one received NDMP packet. Byte 0 picks the protocol version
// (bit 0: 3 or 4) and the fragment size the record is cut into (bits 1-7);
// the rest is the record payload, header first. The packet is decoded as the
// receive thread decodes it, dumped, and its body encoded again.
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace ndmpc = com::vx::korvane::ndmpc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint32_t version = (data[0] & 1) ? 4 : 3;
  const std::size_t fragment = (data[0] >> 1) == 0 ? 4096 : (data[0] >> 1) * 13;
  auto record = ndmpc::fuzz::Frame(data + 1, size - 1, fragment);

  ndmpc::CNDMPMessagePacket packet;
  packet.SetProtocolVersion(ndmpc::CXDREnumBase<ndmpc::enums::CNDMPProtocolVersion>(version));
  ndmpc::fuzz::FeedStream(record.data(), record.size(), [&](ndmpc::CXDRStream& stream) {
    packet.DeSerialize(stream);
    stream.DiscardRecord();
  });
  packet.DumpContents();
  if (packet.GetMessage() != nullptr) {
    ndmpc::fuzz::WithDrainedStream([&](ndmpc::CXDRStream& stream) {
      if (packet.Serialize(stream) != ndmpc::XDR_FAILURE) stream.flushRecord();
    });
  }
  return 0;
}
