#include "ndmpc/ndmp/messages/data_mover_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/message_packet.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using enums::CNDMPEnumAddrType;

CNDMPTcpAddr Tcp(std::uint32_t ip, int port, std::initializer_list<CNDMPPVal> env) {
  CNDMPTcpAddr addr;
  addr.IPAddress = ip;
  addr.Port = port;
  for (const CNDMPPVal& pval : env) addr.AddressEnv.AddItem(pval);
  return addr;
}

// A TCP address filled for both layouts: two addresses with environments
// (version 4) and the single address (version 3).
void FillTcp(CNDMPAddr& addr) {
  addr.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP;
  addr.TcpAddressList.AddItem(Tcp(0x7F000001, 10000, {CNDMPPVal("ab", "c"), CNDMPPVal("d", "")}));
  addr.TcpAddressList.AddItem(Tcp(0x0A000002, 10001, {CNDMPPVal("e", "fgh"), CNDMPPVal("i", "j")}));
  addr.TcpAddress = Tcp(0xC0A80001, 10002, {CNDMPPVal("k", "l"), CNDMPPVal("m", "n")});
}

// Sets `value` to `version` and encodes it.
template <class T>
std::string EncodeAt(T& value, unsigned int version) {
  value.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  return Hex(EncodeValue(value));
}

TEST(MoverGetStateReply, Version3HasNoModeWord) {
  CNDMPMoverGetStateReply reply;
  reply.Error = enums::CNDMPError::NDMP_DEVICE_BUSY_ERR;
  reply.Mode = enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE;
  reply.State = enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_PAUSED;
  reply.PauseReason = enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOM;
  reply.HaltReason = enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_CONNECT_ERROR;
  reply.RecordSize = 0x2800u;
  reply.RecordNum = 7u;
  reply.BytesMoved = CNDMPUQuad(0x100000002ull);
  reply.SeekPosition = CNDMPUQuad(3);
  reply.BytesLeftToRead = CNDMPUQuad(4);
  reply.WindowOffset = CNDMPUQuad(5);
  reply.WindowLength = CNDMPUQuad(6);
  // Address type 0 (local): the type word alone.
  const auto tail = Words({3, 1, 4, 0x2800, 7, 1, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0});

  EXPECT_EQ(EncodeAt(reply, 4), Hex(Concat({Words({2, 1}), tail})));
  const auto v3 = Concat({Words({2}), tail});
  EXPECT_EQ(EncodeAt(reply, 3), Hex(v3));
  EXPECT_EQ(reply.SerializeSize(), v3.size());
}

TEST(Addr, TcpIsACountedListWithEnvironmentsFromVersion4) {
  CNDMPAddr addr;
  addr.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP;
  addr.TcpAddressList.AddItem(Tcp(0x7F000001, 10000, {CNDMPPVal("ab", "c")}));
  addr.TcpAddressList.AddItem(Tcp(0x0A000002, 10001, {}));
  addr.TcpAddress = Tcp(0xC0A80001, 10002, {CNDMPPVal("x", "y")});

  const auto v4 = Concat({Words({1, 2, 0x7F000001, 10000, 1, 2}), Bytes({'a', 'b', 0, 0}),
                          Words({1}), Bytes({'c', 0, 0, 0}), Words({0x0A000002, 10001, 0})});
  EXPECT_EQ(EncodeAt(addr, 4), Hex(v4));
  EXPECT_EQ(addr.SerializeSize(), v4.size());
  // Version 3: exactly one address, without an environment.
  EXPECT_EQ(EncodeAt(addr, 3), Hex(Words({1, 0xC0A80001, 10002})));
  EXPECT_EQ(addr.SerializeSize(), 12u);
}

TEST(Addr, EncodesTheArmItsTypeSelects) {
  struct Case {
    const char* name;
    std::uint32_t type;
    std::vector<unsigned char> expected;
  };
  const std::vector<Case> cases = {
      {"local", CNDMPEnumAddrType::NDMP_ADDR_LOCAL, Words({0})},
      {"reserved", CNDMPEnumAddrType::NDMP_ADDR_RESERVED, Words({2})},
      {"ipc", CNDMPEnumAddrType::NDMP_ADDR_IPC,
       Concat({Words({3, 5}), Bytes({1, 2, 3, 4, 5, 0, 0, 0})})},
      {"fc", CNDMPAddr::kFcAddressType, Words({4, 9})},
      {"unknown", 99, Words({99})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CNDMPAddr addr;
    FillTcp(addr);  // present in the object, never on the wire for these types
    const unsigned char comm[] = {1, 2, 3, 4, 5};
    addr.IPCAddress.CommData.SetData(comm, sizeof comm);
    addr.FcAddress.LoopID = 9u;
    addr.AddressType = CXDREnumBase<CNDMPEnumAddrType>(c.type);
    for (unsigned int version : {3u, 4u}) {
      EXPECT_EQ(EncodeAt(addr, version), Hex(c.expected));
      EXPECT_EQ(addr.SerializeSize(), c.expected.size());
    }
    // Decoding re-registers: a fresh TCP-typed record follows the new type.
    CNDMPAddr back;
    FillTcp(back);
    ASSERT_EQ(DecodeValue(c.expected, back), 0);
    EXPECT_EQ(back.AddressType.getInt32(), c.type);
    EXPECT_EQ(Hex(EncodeValue(back)), Hex(c.expected));
  }
}

TEST(Addr, TypeChosenAfterTheVersionStillEncodesAndDumpsUnderThatVersion) {
  CNDMPMoverConnectRequest request;
  request.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  // The address was local when the version reached it; now it becomes TCP.
  request.Mode = enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ;
  FillTcp(request.Address);
  EXPECT_EQ(Hex(EncodeValue(request)), Hex(Words({0, 1, 0xC0A80001, 10002})));
  EXPECT_EQ(request.Address.DumpContents(0),
            "\nAddressType = 0x1:NDMP_ADDR_TCP"
            "\nTcpAddress = \n{"
            "\n    IPAddress = 3232235521"
            "\n    Port = 10002"
            "\n}");
}

TEST(DataGetStateReply, PacketAtVersion3DecodesTheNestedAddressAsVersion3) {
  const auto header = Words({5, 0, 1, 0x400, 4, 0});
  const auto body = Words({0, 0, 1, 1, 0, 0, 100, 0, 0, 0,  // up to EstTimeRemain
                           1, 0x7F000001, 10000,            // one TCP address, no environment
                           0, 0, 0, 0x10});                 // ReadOffset, ReadLength
  CNDMPMessagePacket packet;
  packet.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  ASSERT_EQ(DecodeValue(Concat({header, body}), packet), 0);
  auto* reply = dynamic_cast<CNDMPDataGetStateReply*>(packet.GetMessage());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->DataConnAddress.TcpAddress.IPAddress.getInt32(), 0x7F000001u);
  EXPECT_EQ(reply->ReadLength.getUint64(), 0x10u);
  EXPECT_EQ(Hex(EncodeValue(*reply)), Hex(body));

  // The same bytes read under version 4 take the address word for a count
  // and run out of data.
  CNDMPMessagePacket packet4;
  EXPECT_EQ(DecodeValue(Concat({header, body}), packet4), XDR_FAILURE);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
