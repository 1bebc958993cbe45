#include "ndmpc/ndmp/messages/snapshot_messages.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/ndmp/messages/round_trip_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

// The overloads below for arrays of unions and nested arrays add to the generic one.
using ::com::vx::korvane::ndmpc::testing::AddTwo;

using enums::CNDMPMessageCode;

// Names are unions: one of each of two arms.
void AddTwo(CXDRArray<CNDMPFileName>& array, unsigned& seed) {
  CNDMPFileName posix;
  posix.FileSystemType = enums::CNDMPEnumFSType::NDMP_FS_UNIX;
  posix.UnixFileName = std::string(seed++ % 4 + 1, 'u');
  array.AddItem(posix);
  CNDMPFileName windows;
  windows.FileSystemType = enums::CNDMPEnumFSType::NDMP_FS_NT;
  windows.WindowsFileName.NTPath = "C:\\x";
  windows.WindowsFileName.DOSPath = "X~1";
  array.AddItem(windows);
}

void AddTwo(CXDRArray<CNDMPFile>& array, unsigned& seed) {
  for (int i = 0; i < 2; ++i) {
    CNDMPFile file = Filled<CNDMPFile>(seed);
    AddTwo(file.FileNameList, seed);
    AddTwo(file.FileStatList, seed);
    array.AddItem(file);
  }
}

const std::vector<CRoundTripCase>& Catalogue() {
  static const std::vector<CRoundTripCase> cases = {
      Record<CNDMPSName>("SName"),
      Request<CNDMPSnapCreateRequest>("SnapCreateRequest", 0x20500100),
      Reply<CNDMPSnapCreateReply>("SnapCreateReply", 0x20500100),
      Request<CNDMPSnapDeleteRequest>("SnapDeleteRequest", 0x20500101),
      Reply<CNDMPSnapDeleteReply>("SnapDeleteReply", 0x20500101),
      Request<CNDMPSnapRecoverRequest>("SnapRecoverRequest", 0x20500102,
                                       [](auto& m, unsigned& s) { AddTwo(m.NameList, s); }),
      Reply<CNDMPSnapRecoverReply>("SnapRecoverReply", 0x20500102),
      Request<CNDMPSnapRenameRequest>("SnapRenameRequest", 0x20500103),
      Reply<CNDMPSnapRenameReply>("SnapRenameReply", 0x20500103),
      Request<CNDMPSnapGetServerInfoRequest>("SnapGetServerInfoRequest", 0x20500104),
      Reply<CNDMPSnapGetServerInfoReply>("SnapGetServerInfoReply", 0x20500104),
      Request<CNDMPSnapGetSnapshotNamesRequest>("SnapGetSnapshotNamesRequest", 0x20500105),
      Reply<CNDMPSnapGetSnapshotNamesReply>(
          "SnapGetSnapshotNamesReply", 0x20500105,
          [](auto& m, unsigned& s) { AddTwo(m.SnapshotNames, s); }),
      Request<CNDMPSnapGetSnapshotStateRequest>("SnapGetSnapshotStateRequest", 0x20500106),
      Reply<CNDMPSnapGetSnapshotStateReply>("SnapGetSnapshotStateReply", 0x20500106),
      Request<CNDMPSnapGetCdrOpStateRequest>("SnapGetCdrOpStateRequest", 0x20500107),
      Reply<CNDMPSnapGetCdrOpStateReply>("SnapGetCdrOpStateReply", 0x20500107),
      Request<CNDMPSnapGetSnapshotPathRequest>("SnapGetSnapshotPathRequest", 0x20500108),
      Reply<CNDMPSnapGetSnapshotPathReply>("SnapGetSnapshotPathReply", 0x20500108),
      Request<CNDMPSnapSetReserveRequest>("SnapSetReserveRequest", 0x20500109),
      Reply<CNDMPSnapSetReserveReply>("SnapSetReserveReply", 0x20500109),
      Request<CNDMPSnapGetReserveInfoRequest>("SnapGetReserveInfoRequest", 0x2050010A),
      Reply<CNDMPSnapGetReserveInfoReply>("SnapGetReserveInfoReply", 0x2050010A),
      Request<CNDMPSnapSetScheduleRequest>("SnapSetScheduleRequest", 0x2050010B,
                                           [](auto& m, unsigned& s) { AddTwo(m.HourList, s); }),
      Reply<CNDMPSnapSetScheduleReply>("SnapSetScheduleReply", 0x2050010B),
      Request<CNDMPSnapGetScheduleInfoRequest>("SnapGetScheduleInfoRequest", 0x2050010C),
      Reply<CNDMPSnapGetScheduleInfoReply>("SnapGetScheduleInfoReply", 0x2050010C,
                                           [](auto& m, unsigned& s) { AddTwo(m.HourList, s); }),
      Request<CNDMPSnapDirListRequest>("SnapDirListRequest", 0x2050010D),
      Reply<CNDMPSnapDirListReply>("SnapDirListReply", 0x2050010D,
                                   [](auto& m, unsigned& s) { AddTwo(m.DirList, s); }),
      Post<CNDMPSnapNotifyCreateEndPost>("SnapNotifyCreateEndPost", 0x20500180),
      Post<CNDMPSnapNotifyDeleteEndPost>("SnapNotifyDeleteEndPost", 0x20500181),
      Post<CNDMPSnapNotifyRecoverEndPost>("SnapNotifyRecoverEndPost", 0x20500182),
  };
  return cases;
}

TEST(SnapshotMessages, EveryClassRoundTrips) { ExpectRoundTrips(Catalogue()); }

TEST(SnapshotMessages, FactoryCoversExactlyTheSnapshotCodes) {
  ExpectFactoryCoversExactly(Catalogue(), 0x20500100, 0x205001FF);
}

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
