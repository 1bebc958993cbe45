#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

#include <gtest/gtest.h>

#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

TEST(ScsiTapeMessages, TapeStateCarriesTwo64BitSpacesAfterSevenWordsAndPartitionInVersion3) {
  // Its dump shows the 64-bit numbers as nested records.
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
  EXPECT_EQ(reply.Flags, 0x22u);
  EXPECT_EQ(reply.BlockSize, 0x8000u);
  EXPECT_EQ(reply.BlockNo, 6u);
  EXPECT_EQ(reply.TotalSpace.getUint64(), 0x100000002ULL);
  EXPECT_EQ(reply.SpaceRemaining.getUint64(), 0x3F0000004ULL);
  EXPECT_EQ(reply.Partition, 9u);
  EXPECT_EQ(reply.SerializeSize(), 48u);
  EXPECT_EQ(Hex(EncodeValue(reply)), Hex(wire));
  EXPECT_EQ(reply.DumpContents(0),
            "\nUnsupported = 17"
            "\nNDMP_Error = 0x7:NDMP_IO_ERR"
            "\nFlags = 34"
            "\nFileNum = 3"
            "\nSoftErrors = 4"
            "\nBlockSize = 32768"
            "\nBlockNo = 6"
            "\nTotalSpace = \n{\n    High = 1\n    Low = 2\n}"
            "\nSpaceRemaining = \n{\n    High = 3\n    Low = 4026531844\n}"
            "\nPartition = 9");

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
    SetOpaque(request->CmdDataBlock, Counting(6, 0x12));
  }
  const auto requestWire = Bytes({0, 0, 0, 1, 0, 0, 0x75, 0x30, 0, 0, 0, 36,        //
                                  0, 0, 0, 6, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0, 0,  //
                                  0, 0, 0, 0});
  EXPECT_EQ(Hex(EncodeValue(tapeRequest)), Hex(requestWire));
  EXPECT_EQ(Hex(EncodeValue(scsiRequest)), Hex(requestWire));
  EXPECT_EQ(CNDMPMessageAccess::Code(tapeRequest), enums::CNDMPMessageCode::NDMP_TAPE_EXECUTE_CDB);
  EXPECT_EQ(CNDMPMessageAccess::Code(scsiRequest), enums::CNDMPMessageCode::NDMP_SCSI_EXECUTE_CDB);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
