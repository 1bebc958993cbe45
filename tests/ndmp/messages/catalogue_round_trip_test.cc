// Every class the factory makes, populated through its registered members,
// survives encode -> decode into the factory's fresh body -> encode, at
// protocol versions 3 and 4 and with every arm of every union it holds.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/message_filler.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

std::unique_ptr<CNDMPMessage> Made(std::uint32_t code, unsigned type, unsigned version) {
  std::unique_ptr<CNDMPMessage> message(CNDMPMessageAccess::Make(code, type));
  if (message) message->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  return message;
}

TEST(MessageCatalogue, EveryClassRoundTripsPopulated) {
  for (const CNDMPFactoryEntry& entry : NDMPFactoryTable()) {
    for (unsigned type : {0u, 1u}) {
      for (unsigned version : {3u, 4u}) {
        for (unsigned variant = 0; variant < 4; ++variant) {
          SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << entry.code << " type "
                                            << type << " v" << version << " variant " << variant);
          std::unique_ptr<CNDMPMessage> source = Made(entry.code, type, version);
          ASSERT_NE(source, nullptr);
          unsigned seed = variant * 1000;
          FillMembers(*source, seed, variant);
          const std::vector<unsigned char> bytes = EncodeValue(*source);
          EXPECT_EQ(source->SerializeSize(), bytes.size());

          std::unique_ptr<CNDMPMessage> fresh = Made(entry.code, type, version);
          EXPECT_EQ(DecodeValue(bytes, *fresh), 0);
          EXPECT_EQ(Hex(EncodeValue(*fresh)), Hex(bytes));
          EXPECT_EQ(fresh->SerializeSize(), bytes.size());
          EXPECT_EQ(fresh->DumpContents(0), source->DumpContents(0));

          std::unique_ptr<CNDMPMessage> copy(CNDMPMessageAccess::Clone(*fresh));
          fresh.reset();  // the copy must not lean on its source
          EXPECT_EQ(Hex(EncodeValue(*copy)), Hex(bytes));
        }
      }
    }
  }
}

// Requests without arguments are the header alone, however they are filled.
TEST(MessageCatalogue, ArgumentlessRequestsHaveNoBody) {
  for (std::uint32_t code : {0x100u, 0x102u, 0x104u, 0x105u, 0x106u, 0x107u, 0x108u, 0x10Au,
                             0x201u, 0x202u, 0x204u, 0x205u, 0x301u, 0x302u, 0x902u}) {
    for (unsigned version : {3u, 4u}) {
      std::unique_ptr<CNDMPMessage> request = Made(code, 0, version);
      ASSERT_NE(request, nullptr) << std::hex << code;
      unsigned seed = 0;
      FillMembers(*request, seed, 0);
      EXPECT_TRUE(EncodeValue(*request).empty()) << std::hex << code;
      EXPECT_EQ(request->SerializeSize(), 0u) << std::hex << code;
    }
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
