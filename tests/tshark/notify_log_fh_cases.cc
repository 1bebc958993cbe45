// Notification, log and file-history posts as tshark must read them.
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/tshark/tshark_cases.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using namespace enums;  // NOLINT: the value names read like the protocol's

CXDREnumBase<CNDMPError> Err(CNDMPError::enum_value e) { return CXDREnumBase<CNDMPError>(e); }

std::vector<CExpectedField> Join(std::vector<CExpectedField> a, const std::vector<CExpectedField>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

void AddNotify(CCaseList& list) {
  for (unsigned version : {4u, 3u}) {
    std::vector<CExpectedField> fields = {
        Num("ndmp.halt", CNDMPEnumDataHaltReason::NDMP_DATA_HALT_CONNECT_ERROR)};
    if (version <= 3) fields.push_back(Str("ndmp.halt.reason", "mover connection lost"));
    list.Add<CNDMPNotifyDataHaltedPost>(
        "notify", version,
        [](auto& m) {
          m.Reason = CNDMPEnumDataHaltReason::NDMP_DATA_HALT_CONNECT_ERROR;
          m.TextReason = "mover connection lost";
        },
        fields);
    fields = {Num("ndmp.halt", CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_MEDIA_ERROR)};
    if (version <= 3) fields.push_back(Str("ndmp.halt.reason", "medium error on /dev/nst0"));
    CTsharkCase& moverHalted = list.Add<CNDMPNotifyMoverHaltedPost>(
        "notify", version,
        [](auto& m) {
          m.Reason = CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_MEDIA_ERROR;
          m.TextReason = "medium error on /dev/nst0";  // 25 bytes
        },
        fields);
    if (version >= 4) {
      moverHalted.TsharkStopsEarly(
          4 + 28, "the version 4 post is the reason alone; the class sends the text always");
    }
  }
  list.Add<CNDMPNotifyConnectionStatusPost>(
      "notify", 4,
      [](auto& m) {
        m.Reason = CNDMPEnumConnectionStatusReason::NDMP_SHUTDOWN;
        m.Protocol = CXDREnumBase<CNDMPProtocolVersion>(4u);
        m.TextReason = "server going down for maintenance";
      },
      {Num("ndmp.connected", CNDMPEnumConnectionStatusReason::NDMP_SHUTDOWN), Num("ndmp.version", 4),
       Str("ndmp.connected.reason", "server going down for maintenance")});
  list.Add<CNDMPNotifyMoverPausedPost>(
      "notify", 4,
      [](auto& m) {
        m.Reason = CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_SEEK;
        m.SeekPosition = CNDMPUQuad(0x0000000700000123ull);
      },
      {Num("ndmp.mover.pause", CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_SEEK),
       Num("ndmp.seek.position", 0x0000000700000123ull)});
  list.Add<CNDMPNotifyDataReadPost>(
      "notify", 4,
      [](auto& m) {
        m.Offset = CNDMPUQuad(0x0000000400000800ull);
        m.Length = CNDMPUQuad(524288ull);
      },
      {Num("ndmp.window.offset", 0x0000000400000800ull), Num("ndmp.window.length", 524288)});
}

void AddLog(CCaseList& list) {
  list.Add<CNDMPLogFilePost>(
      "log", 4,
      [](auto& m) {
        m.Name = "/vol/vol1/home/alice/report.txt";
        m.Error = Err(CNDMPError::NDMP_FILE_NOT_FOUND_ERR);
      },
      {Str("ndmp.file", "/vol/vol1/home/alice/report.txt"),
       Num("ndmp.error", CNDMPError::NDMP_FILE_NOT_FOUND_ERR)});
  for (unsigned version : {4u, 3u}) {
    CTsharkCase& c = list.Add<CNDMPLogMessagePost>(
        "log", version,
        [](auto& m) {
          m.LogType = CNDMPEnumLogType::NDMP_LOG_WARNING;
          m.MesssageID = 70123u;
          m.Entry = "DUMP: 1024 blocks skipped";
          m.AssocMessageValid = CNDMPEnumHasAssociatedMessage::NDMP_HAS_ASSOCIATED_MESSAGE;
          m.AssocMessageSequence = 31u;
        },
        {Num("ndmp.log.type", CNDMPEnumLogType::NDMP_LOG_WARNING),
         Num("ndmp.log.message.id", 70123), Str("ndmp.log.message", "DUMP: 1024 blocks skipped")});
    if (version >= 4) {
      c.TsharkStopsEarly(8, "tshark 4.0 does not read the associated-message fields of version 4");
    }
  }
}

CNDMPFileName UnixName(const char* name) {
  CNDMPFileName n;
  n.FileSystemType = CNDMPEnumFSType::NDMP_FS_UNIX;
  n.UnixFileName = name;
  return n;
}

CNDMPFileName NtName(const char* nt, const char* dos) {
  CNDMPFileName n;
  n.FileSystemType = CNDMPEnumFSType::NDMP_FS_NT;
  n.WindowsFileName.NTPath = nt;
  n.WindowsFileName.DOSPath = dos;
  return n;
}

CNDMPFileStat Stat(CNDMPEnumFileType::enum_value type, std::uint32_t seed) {
  CNDMPFileStat s;
  s.Unsupported = 0x2u;
  s.FSType = CNDMPEnumFSType::NDMP_FS_UNIX;
  s.FileType = type;
  s.MTime = 1600000000u + seed;
  s.ATime = 1600000100u + seed;
  s.CTime = 1600000200u + seed;
  s.Owner = 1000u + seed;
  s.Group = 100u + seed;
  s.FSAttributes = 0x1EDu;
  s.Size = CNDMPUQuad(0x0000000100000000ull + seed);
  s.Links = 2u + seed;
  return s;
}

std::vector<unsigned char> Be32(std::uint32_t v) {
  return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
}

// What tshark shows of Stat(type, seed).
std::vector<CExpectedField> StatFields(CNDMPEnumFileType::enum_value type, std::uint32_t seed) {
  return {Num("ndmp.file.invalid", 0x2),       Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_UNIX),
          Num("ndmp.file.type", type),         Raw("ndmp.file.mtime", Be32(1600000000u + seed)),
          Raw("ndmp.file.atime", Be32(1600000100u + seed)),
          Raw("ndmp.file.ctime", Be32(1600000200u + seed)),
          Num("ndmp.file.owner", 1000 + seed), Num("ndmp.file.group", 100 + seed),
          Num("ndmp.file.fattr", 0x1ED),       Num("ndmp.file.size", 0x0000000100000000ull + seed),
          Num("ndmp.file.links", 2 + seed)};
}

void AddFileHistory(CCaseList& list) {
  list.Add<CNDMPFhAddFilePost>(
      "fh", 4,
      [](auto& m) {
        CNDMPFile a;
        a.FileNameList.AddItem(UnixName("/home/alice/report.txt"));
        a.FileNameList.AddItem(NtName("\\home\\alice\\report.txt", "REPORT~1.TXT"));
        a.FileStatList.AddItem(Stat(CNDMPEnumFileType::NDMP_FILE_REG, 1));
        a.Node = CNDMPUQuad(0x0000000200000011ull);
        a.FileHistInfo = CNDMPUQuad(0x0000001000000400ull);
        CNDMPFile b;
        b.FileNameList.AddItem(UnixName("/home/alice/link"));
        b.FileStatList.AddItem(Stat(CNDMPEnumFileType::NDMP_FILE_SLINK, 2));
        b.Node = CNDMPUQuad(99ull);
        b.FileHistInfo = CNDMPUQuad(8192ull);
        m.Files.AddItem(a);
        m.Files.AddItem(b);
      },
      // In wire order: names, statistics, node and history info, per file.
      Join(Join(Join(Join({Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_UNIX),
                           Str("ndmp.file", "/home/alice/report.txt"),
                           Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_NT),
                           Str("ndmp.file", "\\home\\alice\\report.txt"),
                           Str("ndmp.file", "REPORT~1.TXT")},
                          StatFields(CNDMPEnumFileType::NDMP_FILE_REG, 1)),
                     {Num("ndmp.file.node", 0x0000000200000011ull),
                      Num("ndmp.file.fh_info", 0x0000001000000400ull),
                      Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_UNIX),
                      Str("ndmp.file", "/home/alice/link")}),
                StatFields(CNDMPEnumFileType::NDMP_FILE_SLINK, 2)),
           {Num("ndmp.file.node", 99), Num("ndmp.file.fh_info", 8192)}));
  list.Add<CNDMPFhAddDirPost>(
      "fh", 4,
      [](auto& m) {
        CNDMPDir a;
        a.DirNameList.AddItem(UnixName("alice"));
        a.Node = CNDMPUQuad(0x0000000200000010ull);
        a.Parent = CNDMPUQuad(2ull);
        CNDMPDir b;
        b.DirNameList.AddItem(NtName("Documents and Settings", "DOCUME~1"));
        b.Node = CNDMPUQuad(77ull);
        b.Parent = CNDMPUQuad(0x0000000200000010ull);
        m.Directories.AddItem(a);
        m.Directories.AddItem(b);
      },
      {Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_UNIX),
       Num("ndmp.file.fs_type", CNDMPEnumFSType::NDMP_FS_NT), Str("ndmp.file", "alice"),
       Str("ndmp.file", "Documents and Settings"),
       Str("ndmp.file", "DOCUME~1"), Num("ndmp.file.node", 0x0000000200000010ull),
       Num("ndmp.file.node", 77), Num("ndmp.file.parent", 2),
       Num("ndmp.file.parent", 0x0000000200000010ull)});
  list.Add<CNDMPFhAddNodePost>(
      "fh", 4,
      [](auto& m) {
        CNDMPNode a;
        a.Stats.AddItem(Stat(CNDMPEnumFileType::NDMP_FILE_DIR, 3));
        a.Node = CNDMPUQuad(0x0000000200000010ull);
        a.FileHistInfo = CNDMPUQuad(512ull);
        CNDMPNode b;
        b.Stats.AddItem(Stat(CNDMPEnumFileType::NDMP_FILE_REG, 4));
        b.Node = CNDMPUQuad(78ull);
        b.FileHistInfo = CNDMPUQuad(0x0000000300000000ull);
        m.Nodes.AddItem(a);
        m.Nodes.AddItem(b);
      },
      Join(Join(StatFields(CNDMPEnumFileType::NDMP_FILE_DIR, 3), StatFields(CNDMPEnumFileType::NDMP_FILE_REG, 4)),
           {Num("ndmp.file.node", 0x0000000200000010ull), Num("ndmp.file.node", 78),
            Num("ndmp.file.fh_info", 512), Num("ndmp.file.fh_info", 0x0000000300000000ull)}));
}

}  // namespace

void AddNotifyLogFhCases(CCaseList& list) {
  AddNotify(list);
  AddLog(list);
  AddFileHistory(list);
}

}  // namespace com::vx::korvane::ndmpc::testing
