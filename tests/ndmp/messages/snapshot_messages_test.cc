#include "ndmpc/ndmp/messages/snapshot_messages.h"

#include <gtest/gtest.h>

#include <memory>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using enums::CNDMPMessageCode;

TEST(SnapshotMessages, CdrOpStateRequestCarriesAMessageCode) {
  CNDMPSnapGetCdrOpStateRequest request;
  request.OperationType = CNDMPMessageCode::NDMP_SNAP_RECOVER;
  EXPECT_EQ(Hex(EncodeValue(request)), "20 50 01 02");
  EXPECT_EQ(request.DumpContents(0), "\nOperationType = 0x20500102:NDMP_SNAP_RECOVER");

  std::unique_ptr<CNDMPMessage> received(CNDMPMessageAccess::Make(0x20500107, 0));
  ASSERT_EQ(DecodeValue(Bytes({0x20, 0x50, 0x01, 0x02}), *received), 0);
  EXPECT_EQ(dynamic_cast<CNDMPSnapGetCdrOpStateRequest&>(*received).OperationType,
            CNDMPMessageCode::NDMP_SNAP_RECOVER);
}

TEST(SnapshotMessages, EncodesRepresentativeBodies) {
  CNDMPSnapSetReserveRequest reserve;  // a percentage takes a whole word
  reserve.PathName = "/a";
  reserve.Percent = 20;

  CNDMPSnapNotifyCreateEndPost created;  // counted opaque, padded
  created.SnapEndReason = enums::CNDMPEnumSnapEndReason::NDMP_SNAP_END_REASON_SUCCESS;
  const unsigned char id[] = {0xAB, 0xCD, 0xEF};
  created.SnapID.SetData(id, sizeof id);

  CNDMPSnapGetSnapshotPathReply path;
  path.Error = enums::CNDMPError::NDMP_SNAP_NOT_FOUND_ERR;
  path.MaxSnapshots = 255;
  path.PathType = enums::CNDMPEnumSnapPathType::NDMP_SNAP_PATH_TYPE_FULLY_CONSTRAINED;
  path.SnapPath = "/.snap";

  CNDMPSnapCreateReply done;  // the generic error-only reply

  struct {
    const char* name;
    CIXDR& body;
    const char* hex;
  } cases[] = {
      {"SetReserve", reserve, "00 00 00 02 2F 61 00 00 00 00 00 14"},
      {"CreateEnd", created, "00 00 00 01 00 00 00 00 00 00 00 03 AB CD EF 00"},
      {"SnapshotPath", path,
       "20 50 01 01 00 00 00 FF 00 00 00 03 00 00 00 06 2F 2E 73 6E 61 70 00 00"},
      {"CreateReply", done, "00 00 00 00"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Hex(EncodeValue(c.body)), c.hex);
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
