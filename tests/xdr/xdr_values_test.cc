// Scalar XDR values: exact encodings, decoding (including hostile lengths),
// the quirks kept on purpose, and exact dumps.
#include "ndmpc/xdr/xdr_values.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using testing::Bytes;
using testing::Concat;
using testing::DecodeValue;
using testing::EncodeValue;
using testing::Hex;

struct CEncodingCase {
  const char* name;
  std::function<std::unique_ptr<CIXDR>()> make;
  const char* hex;
  unsigned int size;
};

const unsigned char kSix[] = {1, 2, 3, 4, 5, 6};

std::unique_ptr<CIXDR> VariableOpaque(const unsigned char* data, std::size_t n) {
  auto value = std::make_unique<CXDROpaque>();
  value->SetData(data, n);
  return value;
}

TEST(XdrValues, EncodeToExactBytes) {
  const CEncodingCase cases[] = {
      {"ulong", [] { return std::make_unique<CXDRULong>(0x01020304u); }, "01 02 03 04", 4},
      {"ushort", [] { return std::make_unique<CXDRUShort>(7); }, "00 00 00 07", 4},
      {"ushort keeps 32 bits",
       [] {
         auto v = std::make_unique<CXDRUShort>();
         EXPECT_EQ(*v = 0x12345, 0x12345);
         return v;
       },
       "00 01 23 45", 4},
      {"bool true", [] { return std::make_unique<CXDRBool>(true); }, "00 00 00 01", 4},
      {"bool false", [] { return std::make_unique<CXDRBool>(false); }, "00 00 00 00", 4},
      {"empty string", [] { return std::make_unique<CXDRString>(""); }, "00 00 00 00", 4},
      {"string abcde", [] { return std::make_unique<CXDRString>("abcde"); },
       "00 00 00 05 61 62 63 64 65 00 00 00", 12},
      {"fixed opaque from data", [] { return std::make_unique<CXDROpaque>(kSix, 6u); },
       "01 02 03 04 05 06 00 00", 8},
      {"variable opaque", [] { return VariableOpaque(kSix, 6); },
       "00 00 00 06 01 02 03 04 05 06 00 00", 12},
      {"empty variable opaque", [] { return std::make_unique<CXDROpaque>(); }, "00 00 00 00", 4},
      {"fixed opaque of zeros", [] { return std::make_unique<CXDROpaque>(std::uint64_t{3}); },
       "00 00 00 00", 4},
      {"enum",
       [] {
         return std::make_unique<CXDREnumBase<enums::CNDMPError>>(enums::CNDMPError::NDMP_IO_ERR);
       },
       "00 00 00 07", 4},
      {"uquad",
       [] {
         auto v = std::make_unique<CNDMPUQuad>();
         v->High = 1u;
         v->Low = 2u;
         return v;
       },
       "00 00 00 01 00 00 00 02", 8},
  };
  for (const CEncodingCase& c : cases) {
    std::unique_ptr<CIXDR> value = c.make();
    EXPECT_EQ(Hex(EncodeValue(*value)), c.hex) << c.name;
    EXPECT_EQ(value->SerializeSize(), c.size) << c.name;
  }
}

TEST(XdrValues, DecodeScalarsReportConsumedBytesAndFailWhenCutShort) {
  CXDRULong number;
  EXPECT_EQ(DecodeValue(Bytes({1, 2, 3, 4}), number), 4);
  EXPECT_EQ(number.getInt32(), 0x01020304u);

  CXDRString text;
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 5, 'a', 'b', 'c', 'd', 'e', 0, 0, 0}), text), 12);
  EXPECT_EQ(text.GetString(), "abcde");
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 0}), text), 4);
  EXPECT_EQ(text.GetString(), "");

  CXDROpaque variable;
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 6, 1, 2, 3, 4, 5, 6, 0, 0}), variable), 12);
  ASSERT_EQ(variable.GetSize(), 6u);
  EXPECT_EQ(std::memcmp(variable.GetData(), kSix, 6), 0);

  CXDROpaque fixed(std::uint64_t{6});
  EXPECT_EQ(DecodeValue(Bytes({9, 8, 7, 6, 5, 4, 0, 0}), fixed), 8);
  EXPECT_EQ(fixed.GetSize(), 6u);
  EXPECT_EQ(static_cast<const unsigned char*>(fixed.GetData())[5], 4);

  // An enum keeps a number its class has no text for.
  CXDREnumBase<enums::CNDMPError> error;
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 0x63}), error), 4);
  EXPECT_EQ(error.getInt32(), 0x63u);
  EXPECT_EQ(error.DumpContents(0), "0x63:UNKNOWN");

  // Cut short: a number keeps its old value, a string is emptied.
  EXPECT_EQ(DecodeValue(Bytes({1, 2}), number), XDR_FAILURE);
  EXPECT_EQ(number.getInt32(), 0x01020304u);
  text.SetString("old");
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 5, 'a', 'b'}), text), XDR_FAILURE);
  EXPECT_EQ(text.GetString(), "");
}

class CStringThenWord : public CXDRContainer {
 public:
  CXDRString S;
  CXDRULong After;

 protected:
  int RegisterMembers() override {
    RegisterMember("S", &S);
    RegisterMember("After", &After);
    return 0;
  }
};

TEST(XdrValues, StringEndsAtEmbeddedZeroButConsumesTheWholeItem) {
  const auto item = Bytes({0, 0, 0, 5, 'a', 'b', 0, 'c', 'd', 0, 0, 0});
  CXDRString text;
  EXPECT_EQ(DecodeValue(item, text), 12);
  EXPECT_EQ(text.GetString(), "ab");

  // The word behind the item proves exactly 8 bytes followed the length.
  CStringThenWord record;
  EXPECT_EQ(DecodeValue(Concat({item, Bytes({0x11, 0x22, 0x33, 0x44})}), record), 0);
  EXPECT_EQ(record.S.GetString(), "ab");
  EXPECT_EQ(record.After.getInt32(), 0x11223344u);
}

TEST(XdrValues, BoolWordTwoIsTrueButEqualToNeither) {
  CXDRBool flag;
  ASSERT_EQ(DecodeValue(Bytes({0, 0, 0, 2}), flag), 4);
  EXPECT_TRUE(static_cast<bool>(flag));
  // Deliberately asymmetric: neither equal nor unequal to true or false.
  EXPECT_FALSE(flag == true);
  EXPECT_FALSE(flag != true);
  EXPECT_FALSE(flag == false);
  EXPECT_FALSE(flag != false);
  EXPECT_EQ(flag.DumpContents(0), "true");
  EXPECT_EQ(flag.getInt32(), 2u);

  CXDRBool plain(true);
  EXPECT_TRUE(plain == true);
  EXPECT_FALSE(plain == flag);
  EXPECT_EQ(CXDRBool(false).DumpContents(0), "false");
}

TEST(XdrValues, UQuadJoinsAndSplitsSixtyFourBits) {
  CNDMPUQuad q;
  q.High = 1u;
  q.Low = 2u;
  EXPECT_EQ(q.getUint64(), 4294967298ull);

  EXPECT_EQ((CNDMPUQuad(1) + CNDMPUQuad(0xFFFFFFFFull)).High.getInt32(), 1u);
  EXPECT_EQ((CNDMPUQuad(0x100000000ull) - CNDMPUQuad(1)).Low.getInt32(), 0xFFFFFFFFu);
  EXPECT_EQ((CNDMPUQuad(0) - CNDMPUQuad(1)).getUint64(), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ((CNDMPUQuad(0xFFFFFFFFFFFFFFFFull) + CNDMPUQuad(2)).getUint64(), 1u);

  CNDMPUQuad decoded;
  EXPECT_EQ(DecodeValue(Bytes({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}), decoded), 0);
  EXPECT_EQ(decoded.getUint64(), 0x0102030405060708ull);

  EXPECT_EQ(CNDMPUQuad(5).DumpContents(0), "\nHigh = 0\nLow = 5");
}

TEST(XdrValues, ScalarAndOpaqueDumps) {
  EXPECT_EQ(CXDRULong(0xFFFFFFFFu).DumpContents(3), "4294967295");
  EXPECT_EQ(CXDRString("a b").DumpContents(2), "\"a b\"");
  EXPECT_EQ(CXDROpaque().DumpContents(0), "");
  EXPECT_EQ(CXDREnumBase<enums::CNDMPError>(4u).DumpContents(0), "0x4:NDMP_NOT_AUTHORIZED_ERR");
  // A part line is padded; non-graphic bytes show as dots.
  const unsigned char data[] = {'a', 'b', '%', 0x01, ' '};
  CXDROpaque value(data, 5u);
  EXPECT_EQ(value.DumpContents(1), "\n    0000: 61 62 25 01 20 " + std::string(3 * 11, ' ') +
                                       "  ab..." + std::string(11, ' '));

  std::vector<unsigned char> seventeen(17, 'z');
  CXDROpaque two;
  two.SetData(seventeen.data(), seventeen.size());
  EXPECT_EQ(two.DumpContents(0),
            "\n0000: 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A 7A   zzzzzzzzzzzzzzzz"
            "\n0010: 7A " +
                std::string(3 * 15, ' ') + "  z" + std::string(15, ' '));
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (;;) {
    std::size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return lines;
    start = end + 1;
  }
}

TEST(XdrValues, OpaqueDumpOfLongDataSkipsTheMiddle) {
  std::vector<unsigned char> data(300);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i);
  CXDROpaque value;
  value.SetData(data.data(), data.size());
  std::vector<std::string> lines = SplitLines(value.DumpContents(1));
  ASSERT_EQ(lines.size(), 18u);
  EXPECT_EQ(lines[0], "");
  EXPECT_EQ(lines[1],
            "    0000: 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F   ................");
  EXPECT_EQ(lines[8].substr(0, 10), "    0070: ");
  EXPECT_EQ(lines[9], "    <<Skipped 44 bytes>>");
  EXPECT_EQ(lines[10],
            "    00AC: AC AD AE AF B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB   ................");
  EXPECT_EQ(lines[17],
            "    011C: 1C 1D 1E 1F 20 21 22 23 24 25 26 27 28 29 2A 2B   .....!\"#$.&'()*+");

  // Up to 256 bytes everything is shown; one more hides exactly one byte.
  value.SetData(data.data(), 256);
  EXPECT_EQ(value.DumpContents(0).find("Skipped"), std::string::npos);
  value.SetData(data.data(), 257);
  std::vector<std::string> skipped = SplitLines(value.DumpContents(0));
  ASSERT_EQ(skipped.size(), 18u);
  EXPECT_EQ(skipped[9], "<<Skipped 1 bytes>>");
  EXPECT_EQ(skipped[10].substr(0, 6), "0081: ");
}

long PeakResidentKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(XdrValues, HugeDeclaredLengthFailsWithoutAllocatingIt) {
  const auto hostile = Bytes({0xFF, 0xFF, 0xFF, 0xF0, 'a', 'b', 'c'});
  const long before = PeakResidentKb();

  CXDRString text("old");
  EXPECT_EQ(DecodeValue(hostile, text), XDR_FAILURE);
  EXPECT_EQ(text.GetString(), "");

  // The opaque's data read is deliberately not checked; it keeps at most
  // what arrived and never the declared length.
  CXDROpaque data;
  DecodeValue(hostile, data);
  EXPECT_LE(data.GetSize(), 3u);

  CXDRArray<CXDRULong> numbers;
  EXPECT_EQ(DecodeValue(Bytes({0xFF, 0xFF, 0xFF, 0xF0, 0, 0, 0, 1}), numbers), XDR_FAILURE);
  EXPECT_EQ(numbers.size(), 1u);

  EXPECT_LT(PeakResidentKb() - before, 256 * 1024) << "a declared length was allocated ahead";
}

TEST(XdrValues, OpaqueSizeFollowsTheDataLength) {
  const unsigned char ten[10] = {};
  CXDROpaque fixed(6u);
  fixed.SetData(ten, sizeof(ten));
  EXPECT_EQ(fixed.SerializeSize(), 12u);
  CXDROpaque variable;
  variable.SetData(ten, sizeof(ten));
  EXPECT_EQ(variable.SerializeSize(), 16u);
}

// A 10,000-byte value whose record is cut off after 5,000 bytes: the first
// 4096-byte chunk is delivered (its first 4 bytes are the length word), the
// second never completes.
TEST(XdrValues, CutOffValueKeepsWhatWasDeliveredAndLogsTheWholeShortfall) {
  std::vector<unsigned char> data(5000);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7);
  const auto raw = Concat({testing::FragmentHeader(10004, true), Bytes({0, 0, 0x27, 0x10}), data});
  const std::string expectedLog = "CXDRStream::getBytes Failed to obtain 5908 bytes";

  testing::CCapturingLog opaqueLog;
  CXDROpaque opaque;
  testing::DecodeValueRaw(raw, opaque, &opaqueLog);
  ASSERT_EQ(opaque.GetSize(), 4092u);
  EXPECT_EQ(std::memcmp(opaque.GetData(), data.data(), 4092), 0);
  EXPECT_EQ(opaqueLog.Count(expectedLog), 1);

  testing::CCapturingLog stringLog;
  CXDRString text("old");
  EXPECT_EQ(testing::DecodeValueRaw(raw, text, &stringLog), XDR_FAILURE);
  EXPECT_EQ(text.GetString(), "");
  EXPECT_EQ(stringLog.Count(expectedLog), 1);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
