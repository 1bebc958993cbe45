#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using enums::CNDMPEnumFSType;

// Big-endian 4-byte words.
std::vector<unsigned char> Words(std::initializer_list<std::uint32_t> words) {
  std::vector<unsigned char> out;
  for (std::uint32_t w : words) {
    for (int shift = 24; shift >= 0; shift -= 8)
      out.push_back(static_cast<unsigned char>(w >> shift));
  }
  return out;
}

CXDREnumBase<enums::CNDMPProtocolVersion> V(unsigned int version) {
  return CXDREnumBase<enums::CNDMPProtocolVersion>(version);
}

CNDMPFileName UnixName(const char* path) {
  CNDMPFileName name;
  name.FileSystemType = CNDMPEnumFSType::NDMP_FS_UNIX;
  name.UnixFileName = path;
  return name;
}

CNDMPFileName NtName(const char* path, const char* dos) {
  CNDMPFileName name;
  name.FileSystemType = CNDMPEnumFSType::NDMP_FS_NT;
  name.WindowsFileName.NTPath = path;
  name.WindowsFileName.DOSPath = dos;
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
  ntFile.FileNameList.AddItem(NtName("C:\\x", "X"));
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

TEST(FileName, EncodesTheArmItsTypeSelects) {
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
  }
}

TEST(FileName, DumpsTheNtArmAfterDecoding) {
  CNDMPFileName name = UnixName("old");
  name.DumpContents(0);
  ASSERT_EQ(DecodeValue(Concat({Words({1, 4}), Bytes({'C', ':', '\\', 'x'}), Words({1}),
                                Bytes({'X', 0, 0, 0})}),
                        name),
            0);
  EXPECT_EQ(name.DumpContents(0),
            "\nFileSystemType = 0x1:NDMP_FS_NT"
            "\nWindowsFileName = \n{"
            "\n    NTPath = \"C:\\x\""
            "\n    DOSPath = \"X\""
            "\n}");
}

const std::type_info& TypeOf(const CNDMPMessage& message) { return typeid(message); }

// Every class of the family, populated.
struct RoundTripCase {
  const char* name;
  std::function<std::unique_ptr<CNDMPMessage>()> make;
};

template <class T>
std::unique_ptr<CNDMPMessage> OffsetLength() {
  auto m = std::make_unique<T>();
  m->Offset = CNDMPUQuad(0x123456789ull);
  m->Length = CNDMPUQuad(0xABCDEFull);
  return m;
}

const std::vector<RoundTripCase>& Cases() {
  static const std::vector<RoundTripCase> cases = {
      {"NotifyDataHaltedPost",
       [] {
         auto m = std::make_unique<CNDMPNotifyDataHaltedPost>();
         m->Reason = enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_CONNECT_ERROR;
         m->TextReason = "lost";
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"NotifyConnectionStatusPost",
       [] {
         auto m = std::make_unique<CNDMPNotifyConnectionStatusPost>();
         m->Reason = enums::CNDMPEnumConnectionStatusReason::NDMP_SHUTDOWN;
         m->Protocol = enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4;
         m->TextReason = "bye";
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"NotifyMoverHaltedPost",
       [] {
         auto m = std::make_unique<CNDMPNotifyMoverHaltedPost>();
         m->Reason = enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_MEDIA_ERROR;
         m->TextReason = "tape";
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"NotifyMoverPausedPost",
       [] {
         auto m = std::make_unique<CNDMPNotifyMoverPausedPost>();
         m->Reason = enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_SEEK;
         m->SeekPosition = CNDMPUQuad(0x200000003ull);
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"NotifyDataReadPost", OffsetLength<CNDMPNotifyDataReadPost>},
      {"LogFilePost",
       [] {
         auto m = std::make_unique<CNDMPLogFilePost>();
         m->Name = "/vol/a/file";
         m->Error = enums::CNDMPError::NDMP_PERMISSION_ERR;
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"LogMessagePost",
       [] {
         auto m = std::make_unique<CNDMPLogMessagePost>();
         m->LogType = enums::CNDMPEnumLogType::NDMP_LOG_WARNING;
         m->MesssageID = 42u;
         m->Entry = "disk nearly full";
         m->AssocMessageValid = enums::CNDMPEnumHasAssociatedMessage::NDMP_HAS_ASSOCIATED_MESSAGE;
         m->AssocMessageSequence = 9u;
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"FhAddFilePost",
       [] {
         auto m = std::make_unique<CNDMPFhAddFilePost>();
         for (std::uint32_t i = 0; i < 2; ++i) {
           CNDMPFile file;
           file.FileNameList.AddItem(UnixName("/a/b"));
           file.FileNameList.AddItem(NtName("C:\\long name", "LONGNA~1"));
           file.FileStatList.AddItem(Stat(i));
           file.FileStatList.AddItem(Stat(i + 100));
           file.Node = CNDMPUQuad(1000u + i);
           file.FileHistInfo = CNDMPUQuad(0x500000000ull + i);
           m->Files.AddItem(file);
         }
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"FhAddDirPost",
       [] {
         auto m = std::make_unique<CNDMPFhAddDirPost>();
         for (std::uint32_t i = 0; i < 2; ++i) {
           CNDMPDir dir;
           dir.DirNameList.AddItem(UnixName("sub"));
           CNDMPFileName other;
           other.FileSystemType = CNDMPEnumFSType::NDMP_FS_OTHER;
           other.OtherFileName = "SUB.DIR;1";
           dir.DirNameList.AddItem(other);
           dir.Node = CNDMPUQuad(20u + i);
           dir.Parent = CNDMPUQuad(2);
           m->Directories.AddItem(dir);
         }
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
      {"FhAddNodePost",
       [] {
         auto m = std::make_unique<CNDMPFhAddNodePost>();
         for (std::uint32_t i = 0; i < 2; ++i) {
           CNDMPNode node;
           node.Stats.AddItem(Stat(i * 3));
           node.Stats.AddItem(Stat(i * 3 + 1));
           node.Node = CNDMPUQuad(20u + i);
           node.FileHistInfo = CNDMPUQuad(0xFFFFFFFF00000001ull);
           m->Nodes.AddItem(node);
         }
         return std::unique_ptr<CNDMPMessage>(std::move(m));
       }},
  };
  return cases;
}

TEST(NotifyLogFhMessages, EveryClassRoundTripsThroughTheFactory) {
  for (const RoundTripCase& c : Cases()) {
    for (unsigned int version : {3u, 4u}) {
      SCOPED_TRACE(std::string(c.name) + " v" + std::to_string(version));
      std::unique_ptr<CNDMPMessage> original = c.make();
      original->SetProtocolVersion(V(version));
      const auto wire = EncodeValue(*original);
      EXPECT_EQ(original->SerializeSize(), wire.size());
      EXPECT_EQ(CNDMPMessageAccess::Type(*original).getInt32(), 0u);  // posts travel as requests

      // A post is the same class whatever the type in the header.
      const unsigned int code = CNDMPMessageAccess::Code(*original).getInt32();
      std::unique_ptr<CNDMPMessage> asReply(CNDMPMessageAccess::Make(code, 1));
      ASSERT_NE(asReply, nullptr);
      EXPECT_EQ(TypeOf(*asReply), TypeOf(*original));

      std::unique_ptr<CNDMPMessage> fresh(CNDMPMessageAccess::Make(code, 0));
      ASSERT_NE(fresh, nullptr);
      ASSERT_EQ(TypeOf(*fresh), TypeOf(*original));
      fresh->SetProtocolVersion(V(version));
      ASSERT_EQ(DecodeValue(wire, *fresh), 0);
      EXPECT_EQ(Hex(EncodeValue(*fresh)), Hex(wire));

      std::unique_ptr<CNDMPMessage> copy(CNDMPMessageAccess::Clone(*fresh));
      fresh.reset();  // the copy must not lean on its source
      EXPECT_EQ(Hex(EncodeValue(*copy)), Hex(wire));
    }
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
