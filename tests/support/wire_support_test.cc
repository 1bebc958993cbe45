#include "tests/support/wire_support.h"

#include <gtest/gtest.h>

#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

TEST(WireSupport, CapturesFragmentsLargerThanTheSocketBuffer) {
  std::vector<unsigned char> big(300000, 0x5A);
  std::vector<unsigned char> raw = CaptureRecordBytes([&](CXDRStream& stream) {
    for (std::size_t at = 0; at < big.size(); at += 1000) stream.putBytes(1000, &big[at]);
    stream.flushRecord();
  });
  // Four 1000-byte values fit in a fragment; the fifth starts the next one.
  EXPECT_EQ(raw.size(), big.size() + 4 * 75);
  EXPECT_EQ(StripRecordMarks(raw), big);
}

TEST(WireSupport, DecodesLargePayloadsAndStopsAWriterNobodyReads) {
  std::vector<unsigned char> text(20000, 'x');
  std::vector<unsigned char> payload = Concat({Bytes({0, 0, 0x4E, 0x20}), text});
  CXDRString value;
  EXPECT_EQ(DecodeValue(payload, value), 20004);
  EXPECT_EQ(value.GetString().size(), 20000u);
  // Decoding stops after one word; the writer still has most of 1 MB queued.
  CXDRULong word;
  EXPECT_EQ(DecodeValue(std::vector<unsigned char>(1 << 20, 0), word), 4);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
