// Every class the factory makes, populated through its registered members,
// survives encode -> decode into the factory's fresh body -> encode, at
// protocol versions 3 and 4 and with every arm of every union it holds.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/snapshot_messages.h"
#include "ndmpc/ndmp/messages/snapvault_messages.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

void Fill(CIXDR& value, unsigned& seed, unsigned variant);

// Appends two filled elements when `value` is an array of E.
template <class E>
bool FillArrayOf(CIXDR& value, unsigned& seed, unsigned variant) {
  auto* array = dynamic_cast<CXDRArray<E>*>(&value);
  if (array == nullptr) return false;
  const int count = array->GetFixedSize() > 0 ? array->GetFixedSize() : 2;
  for (int i = 0; i < count; ++i) Fill(array->AppendNew(), seed, variant + i);
  return true;
}

template <class... E>
void FillArray(CIXDR& value, unsigned& seed, unsigned variant) {
  const bool known = (FillArrayOf<E>(value, seed, variant) || ...);
  ASSERT_TRUE(known) << "an array of an element type the filler does not list";
}

// Chooses the arm `variant` picks among those the discriminant selects
// (values 0..15), so that running the variants covers every arm.
void FillUnion(CXDRContainer& record, unsigned& seed, unsigned variant) {
  auto* discriminant = dynamic_cast<CXDRULong*>(record.GetMember(0).member);
  ASSERT_NE(discriminant, nullptr);
  std::vector<std::uint32_t> arms;
  for (std::uint32_t v = 0; v < 16; ++v) {
    *discriminant = v;
    record.SerializeSize();  // registers the arm of the new value
    if (record.GetMemberCount() == 2) arms.push_back(v);
  }
  *discriminant = arms.empty() ? variant : arms[variant % arms.size()];
  record.SerializeSize();
  if (record.GetMemberCount() == 2) Fill(*record.GetMember(1).member, seed, variant);
}

// Distinct non-default values everywhere: numbers, strings of 1 to 4
// characters, opaques of odd length (so padding is exercised), two elements
// per array.
void Fill(CIXDR& value, unsigned& seed, unsigned variant) {
  ++seed;
  switch (value.GetMemberType()) {
    case CIXDR::MEMBER_ULONG:
    case CIXDR::MEMBER_ENUM:
      dynamic_cast<CXDRULong&>(value) = 0x100u + seed * 7u + variant;
      break;
    case CIXDR::MEMBER_BOOL:
      dynamic_cast<CXDRBool&>(value) = true;
      break;
    case CIXDR::MEMBER_STRING:
      dynamic_cast<CXDRString&>(value).SetString(
          std::string(seed % 4 + 1, static_cast<char>('a' + seed % 26)));
      break;
    case CIXDR::MEMBER_OPAQUE: {
      auto& opaque = dynamic_cast<CXDROpaque&>(value);
      std::vector<unsigned char> data(opaque.IsFixedLength() ? opaque.GetFixedSize()
                                                             : 3 + 2 * (seed % 3));
      for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(seed + i);
      opaque.SetData(data.data(), data.size());
      break;
    }
    case CIXDR::MEMBER_CONTAINER: {
      auto& record = dynamic_cast<CXDRContainer&>(value);
      if (dynamic_cast<CNDMPUnionRecord*>(&record) != nullptr) {
        FillUnion(record, seed, variant);
        break;
      }
      for (std::size_t i = 0; i < record.GetMemberCount(); ++i) {
        Fill(*record.GetMember(i).member, seed, variant);
      }
      break;
    }
    case CIXDR::MEMBER_ARRAY:
      FillArray<CNDMPPVal, CNDMPSvTcpAddr, CXDRUShort, CNDMPSvStatus, CNDMPName, CNDMPFileStat,
                CNDMPFileName, CNDMPFile, CNDMPDeviceInfo, CNDMPTcpAddr, CNDMPSvsClientStatusItem,
                CNDMPSvSnapStatusItem, CNDMPSvSnapSchedItem, CNDMPSName, CNDMPNode, CNDMPFsInfo,
                CNDMPDir, CNDMPDeviceCapability, CNDMPConfigButypeInfo, CNDMPClassVersion,
                CNDMPClassList, CXDREnumBase<enums::CNDMPEnumSvGranularity>,
                CXDREnumBase<enums::CNDMPEnumSvRecoverMethod>,
                CXDREnumBase<enums::CNDMPEnumAuthType>, CXDREnumBase<enums::CNDMPEnumAddrType>>(
          value, seed, variant);
      break;
  }
}

std::unique_ptr<CNDMPMessage> Made(std::uint32_t code, unsigned type, unsigned version) {
  std::unique_ptr<CNDMPMessage> message(CNDMPMessageAccess::Make(code, type));
  if (message) message->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  return message;
}

TEST(MessageCatalogue, EveryClassRoundTripsPopulated) {
  for (const CNDMPFactoryEntry& entry : NDMPFactoryTable()) {
    for (unsigned type : {0u, 1u}) {
      for (unsigned version : {3u, 4u}) {
        for (unsigned variant = 0; variant < 3; ++variant) {
          SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << entry.code << " type "
                                            << type << " v" << version << " variant " << variant);
          std::unique_ptr<CNDMPMessage> source = Made(entry.code, type, version);
          ASSERT_NE(source, nullptr);
          unsigned seed = variant * 1000;
          Fill(*source, seed, variant);
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
      Fill(*request, seed, 0);
      EXPECT_TRUE(EncodeValue(*request).empty()) << std::hex << code;
      EXPECT_EQ(request->SerializeSize(), 0u) << std::hex << code;
    }
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
