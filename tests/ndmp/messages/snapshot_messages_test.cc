#include "ndmpc/ndmp/messages/snapshot_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <typeindex>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using enums::CNDMPMessageCode;

// ---- Populated values --------------------------------------------------

// Gives every scalar member a distinct non-zero value (strings of 1 to 4
// characters and opaques of odd length, so that padding is exercised) and
// descends into nested records. Arrays are left to the caller.
void FillScalars(CXDRContainer& record, unsigned& seed) {
  for (std::size_t i = 0; i < record.GetMemberCount(); ++i) {
    CIXDR* member = record.GetMember(i).member;
    ++seed;
    switch (member->GetMemberType()) {
      case CIXDR::MEMBER_ULONG:
      case CIXDR::MEMBER_ENUM:
        *dynamic_cast<CXDRULong*>(member) = seed;
        break;
      case CIXDR::MEMBER_BOOL:
        *dynamic_cast<CXDRBool*>(member) = true;
        break;
      case CIXDR::MEMBER_STRING:
        dynamic_cast<CXDRString*>(member)->SetString(
            std::string(seed % 4 + 1, static_cast<char>('a' + seed % 26)));
        break;
      case CIXDR::MEMBER_OPAQUE: {
        const unsigned char data[] = {0xA1, 0xB2, 0xC3, 0xD4, 0xE5};
        dynamic_cast<CXDROpaque*>(member)->SetData(data, seed % 2 == 0 ? 3 : 5);
        break;
      }
      case CIXDR::MEMBER_CONTAINER:
        FillScalars(*dynamic_cast<CXDRContainer*>(member), seed);
        break;
      case CIXDR::MEMBER_ARRAY:
        break;
    }
  }
}

template <class T>
T Filled(unsigned& seed) {
  T value;
  if constexpr (std::is_base_of_v<CXDRContainer, T>) {
    FillScalars(value, seed);
  } else {
    static_cast<CXDRULong&>(value) = ++seed;
  }
  return value;
}

template <class T>
void AddTwo(CXDRArray<T>& array, unsigned& seed) {
  array.AddItem(Filled<T>(seed));
  array.AddItem(Filled<T>(seed));
}

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

// ---- The catalogue -----------------------------------------------------

struct CRoundTripCase {
  const char* name;
  std::uint32_t code;  // 0 for a record
  unsigned type;       // the message type the factory is asked for
  bool anyType;        // a post: every type yields the same class
  std::type_index cls;
  std::function<std::unique_ptr<CXDRContainer>()> filled;
  // What the value is decoded into: the factory's body for messages.
  std::function<std::unique_ptr<CXDRContainer>()> fresh;
};

template <class T>
using Hook = void (*)(T&, unsigned&);

template <class T>
CRoundTripCase Case(const char* name, std::uint32_t code, unsigned type, bool anyType,
                    Hook<T> hook) {
  return {name,
          code,
          type,
          anyType,
          std::type_index(typeid(T)),
          [hook] {
            auto value = std::make_unique<T>();
            unsigned seed = 0;
            FillScalars(*value, seed);
            if (hook != nullptr) hook(*value, seed);
            return std::unique_ptr<CXDRContainer>(std::move(value));
          },
          [code, type]() -> std::unique_ptr<CXDRContainer> {
            if (code == 0) return std::make_unique<T>();
            return std::unique_ptr<CXDRContainer>(CNDMPMessageAccess::Make(code, type));
          }};
}
template <class T>
CRoundTripCase Request(const char* name, std::uint32_t code, Hook<T> hook = nullptr) {
  return Case<T>(name, code, 0, false, hook);
}
template <class T>
CRoundTripCase Reply(const char* name, std::uint32_t code, Hook<T> hook = nullptr) {
  return Case<T>(name, code, 1, false, hook);
}
template <class T>
CRoundTripCase Post(const char* name, std::uint32_t code) {
  return Case<T>(name, code, 0, true, nullptr);
}
template <class T>
CRoundTripCase Record(const char* name) {
  return Case<T>(name, 0, 0, false, nullptr);
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

// A populated value encodes, decodes into a fresh one (from the factory for
// messages, of the expected class) and re-encodes to the same bytes; its
// size agrees and a clone encodes the same.
TEST(SnapshotMessages, EveryClassRoundTrips) {
  for (const CRoundTripCase& c : Catalogue()) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<CXDRContainer> source = c.filled();
    const std::vector<unsigned char> bytes = EncodeValue(*source);
    EXPECT_EQ(source->SerializeSize(), bytes.size());

    std::unique_ptr<CXDRContainer> target = c.fresh();
    ASSERT_NE(target, nullptr);
    if (c.code != 0) {
      auto& message = dynamic_cast<CNDMPMessage&>(*source);
      EXPECT_EQ(CNDMPMessageAccess::Code(message).getInt32(), c.code);
      EXPECT_EQ(CNDMPMessageAccess::Type(message).getInt32(), c.type);
      std::unique_ptr<CNDMPMessage> clone(CNDMPMessageAccess::Clone(message));
      EXPECT_EQ(Hex(EncodeValue(*clone)), Hex(bytes));
    }
    CXDRContainer& fresh = *target;
    EXPECT_EQ(std::type_index(typeid(fresh)), c.cls);
    EXPECT_EQ(DecodeValue(bytes, fresh), 0);
    EXPECT_EQ(Hex(EncodeValue(fresh)), Hex(bytes));
    EXPECT_EQ(fresh.SerializeSize(), bytes.size());
    if (c.anyType) {
      for (unsigned type : {1u, 2u}) {
        std::unique_ptr<CNDMPMessage> other(CNDMPMessageAccess::Make(c.code, type));
        ASSERT_NE(other, nullptr);
        CNDMPMessage& post = *other;
        EXPECT_EQ(std::type_index(typeid(post)), c.cls);
      }
    }
  }
}

// The factory knows exactly the snapshot codes of the catalogue, no other
// code of the extension's snapshot range.
TEST(SnapshotMessages, FactoryCoversExactlyTheSnapshotCodes) {
  std::set<std::uint32_t> known;
  for (const CRoundTripCase& c : Catalogue()) {
    if (c.code != 0) known.insert(c.code);
  }
  for (std::uint32_t code = 0x20500100; code <= 0x205001FF; ++code) {
    std::unique_ptr<CNDMPMessage> message(CNDMPMessageAccess::Make(code, 0));
    EXPECT_EQ(message != nullptr, known.count(code) == 1) << std::hex << code;
  }
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
