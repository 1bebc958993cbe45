#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using enums::CNDMPEnumFSType;

CXDREnumBase<enums::CNDMPProtocolVersion> V(unsigned int version) {
  return CXDREnumBase<enums::CNDMPProtocolVersion>(version);
}

CNDMPFileName UnixName(const char* path) {
  CNDMPFileName name;
  name.FileSystemType = CNDMPEnumFSType::NDMP_FS_UNIX;
  name.UnixFileName = path;
  return name;
}

CNDMPFileStat Stat(std::uint32_t seed) {
  CNDMPFileStat stat;
  stat.Unsupported = seed;
  stat.FSType = CNDMPEnumFSType::NDMP_FS_NT;
  stat.FileType = enums::CNDMPEnumFileType::NDMP_FILE_REG;
  stat.MTime = seed + 1;
  stat.ATime = seed + 2;
  stat.CTime = seed + 3;
  stat.Owner = seed + 4;
  stat.Group = seed + 5;
  stat.FSAttributes = seed + 6;
  stat.Size = CNDMPUQuad(0x100000000ull + seed);
  stat.Links = seed + 7;
  return stat;
}

TEST(NotifyDataHaltedPost, TextReasonOnlyUpToVersion3) {
  CNDMPNotifyDataHaltedPost post;
  post.Reason = enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_ABORTED;
  post.TextReason = "abcde";
  EXPECT_EQ(Hex(EncodeValue(post)), "00 00 00 02");
  post.SetProtocolVersion(V(3));
  const auto v3 = Concat({Words({2, 5}), Bytes({'a', 'b', 'c', 'd', 'e', 0, 0, 0})});
  EXPECT_EQ(Hex(EncodeValue(post)), Hex(v3));
}

TEST(LogMessagePost, AssociatedMessageOnlyFromVersion4) {
  CNDMPLogMessagePost post;
  post.LogType = enums::CNDMPEnumLogType::NDMP_LOG_ERROR;
  post.MesssageID = 0x11u;
  post.Entry = "hi";
  post.AssocMessageValid = enums::CNDMPEnumHasAssociatedMessage::NDMP_HAS_ASSOCIATED_MESSAGE;
  post.AssocMessageSequence = 5u;
  const auto v3 = Concat({Words({2, 0x11, 2}), Bytes({'h', 'i', 0, 0})});
  EXPECT_EQ(Hex(EncodeValue(post)), Hex(Concat({v3, Words({1, 5})})));
  post.SetProtocolVersion(V(3));
  EXPECT_EQ(Hex(EncodeValue(post)), Hex(v3));
  // The member name keeps its triple "s".
  EXPECT_EQ(post.DumpContents(0),
            "\nLogType = 0x2:NDMP_LOG_ERROR"
            "\nMesssageID = 17"
            "\nEntry = \"hi\"");
}

TEST(FhAddFilePost, EncodesUnixAndNtEntries) {
  CNDMPFile unixFile;
  unixFile.FileNameList.AddItem(UnixName("a"));
  unixFile.FileStatList.AddItem(Stat(0x10));
  unixFile.Node = CNDMPUQuad(8);
  unixFile.FileHistInfo = CNDMPUQuad(9);
  CNDMPFile ntFile;
  CNDMPFileName nt;
  nt.FileSystemType = CNDMPEnumFSType::NDMP_FS_NT;
  nt.WindowsFileName.NTPath = "C:\\x";
  nt.WindowsFileName.DOSPath = "X";
  ntFile.FileNameList.AddItem(nt);
  ntFile.Node = CNDMPUQuad(10);
  ntFile.FileHistInfo = CNDMPUQuad(0x100000000ull);
  CNDMPFhAddFilePost post;
  post.Files.AddItem(unixFile);
  post.Files.AddItem(ntFile);

  const auto expected = Concat({
      Words({2}),  // two files
      Words({1, 0, 1}),
      Bytes({'a', 0, 0, 0}),  // one UNIX name "a"
      Words({1, 0x10, 1, 4, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 1, 0x10, 0x17}),  // one stat
      Words({0, 8, 0, 9}),  // node, history info
      Words({1, 1, 4}),
      Bytes({'C', ':', '\\', 'x'}),  // one NT name: NT path
      Words({1}),
      Bytes({'X', 0, 0, 0}),  // and DOS path
      Words({0}),             // no stats
      Words({0, 10, 1, 0}),
  });
  EXPECT_EQ(Hex(EncodeValue(post)), Hex(expected));
  EXPECT_EQ(post.SerializeSize(), expected.size());
}

TEST(FileName, EncodesDecodesAndDumpsTheArmItsTypeSelects) {
  struct Case {
    const char* name;
    std::uint32_t type;
    std::vector<unsigned char> expected;
  };
  const std::vector<Case> cases = {
      {"unix", CNDMPEnumFSType::NDMP_FS_UNIX, Concat({Words({0, 1}), Bytes({'u', 0, 0, 0})})},
      {"nt", CNDMPEnumFSType::NDMP_FS_NT,
       Concat({Words({1, 1}), Bytes({'n', 0, 0, 0}), Words({2}), Bytes({'d', 'd', 0, 0})})},
      {"other", CNDMPEnumFSType::NDMP_FS_OTHER, Concat({Words({2, 3}), Bytes({'o', 'o', 'o', 0})})},
      {"unknown", 3, Words({3})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CNDMPFileName name;
    name.UnixFileName = "u";
    name.WindowsFileName.NTPath = "n";
    name.WindowsFileName.DOSPath = "dd";
    name.OtherFileName = "ooo";
    name.FileSystemType = CXDREnumBase<CNDMPEnumFSType>(c.type);
    EXPECT_EQ(Hex(EncodeValue(name)), Hex(c.expected));
    EXPECT_EQ(name.SerializeSize(), c.expected.size());

    // Decoding into a record registered for another arm follows the new type.
    CNDMPFileName back = UnixName("zz");
    EncodeValue(back);
    ASSERT_EQ(DecodeValue(c.expected, back), 0);
    EXPECT_EQ(Hex(EncodeValue(back)), Hex(c.expected));
    if (c.type == CNDMPEnumFSType::NDMP_FS_NT) {
      EXPECT_EQ(back.DumpContents(0),
                "\nFileSystemType = 0x1:NDMP_FS_NT"
                "\nWindowsFileName = \n{"
                "\n    NTPath = \"n\""
                "\n    DOSPath = \"dd\""
                "\n}");
    }
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
