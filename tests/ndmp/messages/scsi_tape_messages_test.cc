#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <typeinfo>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using testing::Bytes;
using testing::DecodeValue;
using testing::EncodeValue;
using testing::Hex;

void SetOpaque(CXDROpaque& opaque, unsigned int length, unsigned char first) {
  std::vector<unsigned char> bytes(length);
  for (unsigned int i = 0; i < length; ++i) bytes[i] = static_cast<unsigned char>(first + i);
  opaque.SetData(bytes.data(), bytes.size());
}

TEST(ScsiTapeMessages, TapeStateCarriesTwo64BitSpacesAfterSevenWordsAndPartitionInVersion3) {
  const auto wire = Bytes({0, 0, 0, 0x11,                       // Unsupported
                           0, 0, 0, 0x07,                       // NDMP_Error
                           0, 0, 0, 0x22,                       // Flags
                           0, 0, 0, 0x03,                       // FileNum
                           0, 0, 0, 0x04,                       // SoftErrors
                           0, 0, 0x80, 0,                       // BlockSize
                           0, 0, 0, 0x06,                       // BlockNo
                           0, 0, 0, 0x01, 0, 0, 0, 0x02,        // TotalSpace
                           0, 0, 0, 0x03, 0xF0, 0, 0, 0x04,     // SpaceRemaining
                           0, 0, 0, 0x09});                     // Partition
  CNDMPTapeGetStateReply reply;
  reply.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  ASSERT_EQ(DecodeValue(wire, reply), 0);
  EXPECT_EQ(reply.Unsupported, 0x11u);
  EXPECT_EQ(reply.NDMP_Error, enums::CNDMPError::NDMP_IO_ERR);
  EXPECT_EQ(reply.BlockSize, 0x8000u);
  EXPECT_EQ(reply.BlockNo, 6u);
  EXPECT_EQ(reply.TotalSpace.getUint64(), 0x100000002ULL);
  EXPECT_EQ(reply.SpaceRemaining.getUint64(), 0x3F0000004ULL);
  EXPECT_EQ(reply.Partition, 9u);
  EXPECT_EQ(reply.SerializeSize(), 48u);

  CNDMPTapeGetStateReply built;
  built.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  built.Unsupported = 0x11;
  built.NDMP_Error = enums::CNDMPError::NDMP_IO_ERR;
  built.Flags = 0x22;
  built.FileNum = 3;
  built.SoftErrors = 4;
  built.BlockSize = 0x8000;
  built.BlockNo = 6;
  built.TotalSpace = 0x100000002ULL;
  built.SpaceRemaining = 0x3F0000004ULL;
  built.Partition = 9;
  EXPECT_EQ(Hex(EncodeValue(built)), Hex(wire));

  // Version 4 ends with SpaceRemaining.
  CNDMPTapeGetStateReply v4;
  const std::vector<unsigned char> v4Wire(wire.begin(), wire.end() - 4);
  ASSERT_EQ(DecodeValue(v4Wire, v4), 0);
  EXPECT_EQ(v4.SpaceRemaining.getUint64(), 0x3F0000004ULL);
  EXPECT_EQ(v4.SerializeSize(), 44u);
  v4.Partition = 9;  // not part of the version 4 layout
  EXPECT_EQ(Hex(EncodeValue(v4)), Hex(v4Wire));
}

TEST(ScsiTapeMessages, ScsiTargetNumbersTravelAsFullWords) {
  CNDMPScsiGetStateReply reply;
  reply.TargetController = 0x0102;
  reply.TargetID = 0x0304;
  reply.TargetLun = 0x0506;
  const auto wire = Bytes({0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 3, 4, 0, 0, 5, 6});
  EXPECT_EQ(Hex(EncodeValue(reply)), Hex(wire));

}

TEST(ScsiTapeMessages, ArgumentlessRequestsAreEmpty) {
  const std::vector<std::pair<const char*, std::function<CNDMPMessage*()>>> requests = {
      {"TapeClose", [] { return new CNDMPTapeCloseRequest; }},
      {"TapeGetState", [] { return new CNDMPTapeGetStateRequest; }},
      {"ScsiClose", [] { return new CNDMPScsiCloseRequest; }},
      {"ScsiGetState", [] { return new CNDMPScsiGetStateRequest; }},
      {"ScsiResetDevice", [] { return new CNDMPScsiResetDeviceRequest; }},
      {"ScsiResetBus", [] { return new CNDMPScsiResetBusRequest; }},
  };
  for (const auto& [name, make] : requests) {
    SCOPED_TRACE(name);
    std::unique_ptr<CNDMPMessage> request(make());
    EXPECT_TRUE(EncodeValue(*request).empty());
    EXPECT_EQ(request->SerializeSize(), 0u);
  }
}

TEST(ScsiTapeMessages, CdbBodiesAreSharedAndDifferOnlyInCode) {
  // A fresh reply holds a one-byte status made from data: the byte and its
  // padding, no length word.
  const auto freshReply = Bytes({0, 0, 0, 0,               // NDMP_Error
                                 0, 0, 0, 0,               // Status
                                 0, 0, 0, 0,               // DataOutLength
                                 0, 0, 0, 0,               // DataIn
                                 0, 0, 0, 0});             // ExtSenseData
  CNDMPTapeExecuteCdbReply tapeReply;
  CNDMPScsiExecuteCdbReply scsiReply;
  EXPECT_EQ(Hex(EncodeValue(tapeReply)), Hex(freshReply));
  EXPECT_EQ(Hex(EncodeValue(scsiReply)), Hex(freshReply));
  EXPECT_EQ(CNDMPMessageAccess::Code(tapeReply), enums::CNDMPMessageCode::NDMP_TAPE_EXECUTE_CDB);
  EXPECT_EQ(CNDMPMessageAccess::Code(scsiReply), enums::CNDMPMessageCode::NDMP_SCSI_EXECUTE_CDB);

  CNDMPTapeExecuteCdbRequest tapeRequest;
  CNDMPScsiExecuteCdbRequest scsiRequest;
  for (CNDMPExecuteCdbRequest* request :
       std::initializer_list<CNDMPExecuteCdbRequest*>{&tapeRequest, &scsiRequest}) {
    request->Flags = 1;
    request->TimeOut = 30000;
    request->DataInLength = 36;
    SetOpaque(request->CmdDataBlock, 6, 0x12);
  }
  const auto requestWire = Bytes({0, 0, 0, 1, 0, 0, 0x75, 0x30, 0, 0, 0, 36,        //
                                  0, 0, 0, 6, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0, 0,  //
                                  0, 0, 0, 0});
  EXPECT_EQ(Hex(EncodeValue(tapeRequest)), Hex(requestWire));
  EXPECT_EQ(Hex(EncodeValue(scsiRequest)), Hex(requestWire));
  EXPECT_EQ(CNDMPMessageAccess::Code(tapeRequest), enums::CNDMPMessageCode::NDMP_TAPE_EXECUTE_CDB);
  EXPECT_EQ(CNDMPMessageAccess::Code(scsiRequest), enums::CNDMPMessageCode::NDMP_SCSI_EXECUTE_CDB);
}

TEST(ScsiTapeMessages, TapeStateDumpShowsNestedQuads) {
  CNDMPTapeGetStateReply reply;
  reply.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  reply.Flags = 2;
  reply.BlockSize = 512;
  reply.TotalSpace = 0x100000002ULL;
  reply.SpaceRemaining = 7;
  reply.Partition = 1;
  EXPECT_EQ(reply.DumpContents(0),
            "\nUnsupported = 0"
            "\nNDMP_Error = 0x0:NDMP_NO_ERR"
            "\nFlags = 2"
            "\nFileNum = 0"
            "\nSoftErrors = 0"
            "\nBlockSize = 512"
            "\nBlockNo = 0"
            "\nTotalSpace = \n{\n    High = 1\n    Low = 2\n}"
            "\nSpaceRemaining = \n{\n    High = 0\n    Low = 7\n}"
            "\nPartition = 1");
}

// ---------------------------------------------------------------------------
// Every class of the family: populated, encoded, decoded into the factory's
// fresh body, re-encoded to the same bytes.

struct RoundTripRow {
  const char* name;
  std::function<std::unique_ptr<CNDMPMessage>()> make;
};

template <class T>
RoundTripRow Row(const char* name, std::function<void(T&)> fill = nullptr) {
  return {name, [fill] {
            auto message = std::make_unique<T>();
            if (fill) fill(*message);
            return std::unique_ptr<CNDMPMessage>(std::move(message));
          }};
}

void FillCdbRequest(CNDMPExecuteCdbRequest& m) {
  m.Flags = 2;
  m.TimeOut = 600;
  m.DataInLength = 255;
  SetOpaque(m.CmdDataBlock, 10, 0x28);
  SetOpaque(m.DataOut, 7, 0x61);
}

void FillCdbReply(CNDMPExecuteCdbReply& m) {
  m.NDMP_Error = enums::CNDMPError::NDMP_IO_ERR;
  SetOpaque(m.Status, 1, 0x02);
  m.DataOutLength = 7;
  SetOpaque(m.DataIn, 37, 0x00);
  SetOpaque(m.ExtSenseData, 19, 0x70);
}

void FillError(CNDMPGenericReply& m) { m.NDMP_Error = enums::CNDMPError::NDMP_DEVICE_BUSY_ERR; }

const std::vector<RoundTripRow>& RoundTripRows() {
  static const std::vector<RoundTripRow> rows = {
      Row<CNDMPScsiOpenRequest>("ScsiOpenRequest", [](auto& m) { m.Device = "mc0"; }),
      Row<CNDMPScsiOpenReply>("ScsiOpenReply", FillError),
      Row<CNDMPScsiCloseRequest>("ScsiCloseRequest"),
      Row<CNDMPScsiCloseReply>("ScsiCloseReply", FillError),
      Row<CNDMPScsiGetStateRequest>("ScsiGetStateRequest"),
      Row<CNDMPScsiGetStateReply>("ScsiGetStateReply", [](auto& m) {
        m.NDMP_Error = enums::CNDMPError::NDMP_IO_ERR;
        m.TargetController = 1;
        m.TargetID = 5;
        m.TargetLun = 2;
      }),
      Row<CNDMPScsiSetTargetRequest>("ScsiSetTargetRequest", [](auto& m) {
        m.Device = "changer1";
        m.TargetController = 3;
        m.TargetID = 4;
        m.TargetLun = 1;
      }),
      Row<CNDMPScsiSetTargetReply>("ScsiSetTargetReply", FillError),
      Row<CNDMPScsiResetDeviceRequest>("ScsiResetDeviceRequest"),
      Row<CNDMPScsiResetDeviceReply>("ScsiResetDeviceReply", FillError),
      Row<CNDMPScsiResetBusRequest>("ScsiResetBusRequest"),
      Row<CNDMPScsiResetBusReply>("ScsiResetBusReply", FillError),
      Row<CNDMPScsiExecuteCdbRequest>("ScsiExecuteCdbRequest", FillCdbRequest),
      Row<CNDMPScsiExecuteCdbReply>("ScsiExecuteCdbReply", FillCdbReply),
      Row<CNDMPTapeOpenRequest>("TapeOpenRequest", [](auto& m) {
        m.Device = "nrst0a";
        m.Mode = enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE;
      }),
      Row<CNDMPTapeOpenReply>("TapeOpenReply", FillError),
      Row<CNDMPTapeCloseRequest>("TapeCloseRequest"),
      Row<CNDMPTapeCloseReply>("TapeCloseReply", FillError),
      Row<CNDMPTapeGetStateRequest>("TapeGetStateRequest"),
      Row<CNDMPTapeGetStateReply>("TapeGetStateReply", [](auto& m) {
        m.Unsupported = 1;
        m.NDMP_Error = enums::CNDMPError::NDMP_IO_ERR;
        m.Flags = 8;
        m.FileNum = 2;
        m.SoftErrors = 3;
        m.BlockSize = 65536;
        m.BlockNo = 99;
        m.TotalSpace = 0x1234567890ULL;
        m.SpaceRemaining = 0x90ABCDEFULL;
        m.Partition = 1;
      }),
      Row<CNDMPTapeMtioRequest>("TapeMtioRequest", [](auto& m) {
        m.TapeOp = enums::CNDMPEnumMtioOp::NDMP_MTIO_FSF;
        m.Count = 3;
      }),
      Row<CNDMPTapeMtioReply>("TapeMtioReply", [](auto& m) {
        m.NDMP_Error = enums::CNDMPError::NDMP_EOF_ERR;
        m.ResidCount = 1;
      }),
      Row<CNDMPTapeWriteRequest>("TapeWriteRequest", [](auto& m) { SetOpaque(m.DataOut, 1023, 5); }),
      Row<CNDMPTapeWriteReply>("TapeWriteReply", [](auto& m) {
        m.NDMP_Error = enums::CNDMPError::NDMP_EOM_ERR;
        m.Count = 1000;
      }),
      Row<CNDMPTapeReadRequest>("TapeReadRequest", [](auto& m) { m.Count = 1024; }),
      Row<CNDMPTapeReadReply>("TapeReadReply", [](auto& m) {
        m.NDMP_Error = enums::CNDMPError::NDMP_IO_ERR;
        SetOpaque(m.Data, 333, 9);
      }),
      Row<CNDMPTapeExecuteCdbRequest>("TapeExecuteCdbRequest", FillCdbRequest),
      Row<CNDMPTapeExecuteCdbReply>("TapeExecuteCdbReply", FillCdbReply),
  };
  return rows;
}

TEST(ScsiTapeMessages, EveryClassRoundTripsThroughTheFactory) {
  for (const RoundTripRow& row : RoundTripRows()) {
    SCOPED_TRACE(row.name);
    std::unique_ptr<CNDMPMessage> original = row.make();
    const auto bytes = EncodeValue(*original);
    EXPECT_EQ(original->SerializeSize(), bytes.size());

    const unsigned int code = CNDMPMessageAccess::Code(*original).getInt32();
    const unsigned int type = CNDMPMessageAccess::Type(*original).getInt32();
    std::unique_ptr<CNDMPMessage> fresh(CNDMPMessageAccess::Make(code, type));
    ASSERT_NE(fresh, nullptr);
    CNDMPMessage& freshBody = *fresh;
    CNDMPMessage& originalBody = *original;
    ASSERT_EQ(typeid(freshBody), typeid(originalBody));
    EXPECT_EQ(DecodeValue(bytes, freshBody), 0);
    EXPECT_EQ(Hex(EncodeValue(freshBody)), Hex(bytes));
    EXPECT_EQ(freshBody.DumpContents(0), originalBody.DumpContents(0));
    if (type != 0) {
      // Any type number other than 0 is a reply.
      std::unique_ptr<CNDMPMessage> other(CNDMPMessageAccess::Make(code, 7));
      ASSERT_NE(other, nullptr);
      CNDMPMessage& otherBody = *other;
      EXPECT_EQ(typeid(otherBody), typeid(originalBody));
    }
  }
  // Codes between the family's rows have no classes.
  for (unsigned int code : {0x207u, 0x306u, 0x308u}) {
    EXPECT_EQ(std::unique_ptr<CNDMPMessage>(CNDMPMessageAccess::Make(code, 0)), nullptr) << code;
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
