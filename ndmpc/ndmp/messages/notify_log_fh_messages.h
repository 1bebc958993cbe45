// Notifications, log posts and file-history posts: what a server tells the
// client about a running operation (NDMP_NOTIFY_*, NDMP_LOG_*, NDMP_FH_*),
// with the records they carry: file names, file statistics and the
// file-history entries, and CNDMPName, the recovery name list entry.
//
// A backup can post millions of file-history entries, so these records are
// kept plain: members and registration only, nothing allocated beyond what
// the members themselves hold.
//
//   CNDMPFhAddFilePost post;                 // as received
//   for (CNDMPFile& file : post.Files) { file.FileNameList[0].UnixFileName ... }
#pragma once

#include <cstdint>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/ndmp/messages/union_record.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

// ---- Records --------------------------------------------------------------

// One entry of a recovery's name list.
class CNDMPName : public CXDRContainer {
 public:
  CXDRString OriginalPath;
  CXDRString DestinationDir;
  CXDRString Name;
  CXDRString OtherName;
  CNDMPUQuad Node;
  CNDMPUQuad FileHistoryInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("OriginalPath", &OriginalPath);
    RegisterMember("DestinationDir", &DestinationDir);
    RegisterMember("Name", &Name);
    RegisterMember("OtherName", &OtherName);
    RegisterMember("Node", &Node);
    RegisterMember("FileHistoryInfo", &FileHistoryInfo);
    return 0;
  }
};

// A Windows file name: the full path and its short (8.3) form.
class CNDMPNtPath : public CXDRContainer {
 public:
  CXDRString NTPath;
  CXDRString DOSPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("NTPath", &NTPath);
    RegisterMember("DOSPath", &DOSPath);
    return 0;
  }
};

// A file name as the file system type spells it; a type without a name form
// carries nothing after the type.
class CNDMPFileName : public CNDMPUnionRecord {
 public:
  CXDREnumBase<enums::CNDMPEnumFSType> FileSystemType;
  CXDRString UnixFileName;
  CNDMPNtPath WindowsFileName;
  CXDRString OtherFileName;

 protected:
  const char* DiscriminantName() const override { return "FileSystemType"; }
  CXDRULong& Discriminant() override { return FileSystemType; }
  CIXDR* SelectArm(std::uint32_t value, const char** name) override {
    switch (value) {
      case enums::CNDMPEnumFSType::NDMP_FS_UNIX:
        *name = "UnixFileName";
        return &UnixFileName;
      case enums::CNDMPEnumFSType::NDMP_FS_NT:
        *name = "WindowsFileName";
        return &WindowsFileName;
      case enums::CNDMPEnumFSType::NDMP_FS_OTHER:
        *name = "OtherFileName";
        return &OtherFileName;
      default:
        return nullptr;
    }
  }
};

class CNDMPFileStat : public CXDRContainer {
 public:
  CXDRULong Unsupported;
  CXDREnumBase<enums::CNDMPEnumFSType> FSType;
  CXDREnumBase<enums::CNDMPEnumFileType> FileType;
  CXDRULong MTime;
  CXDRULong ATime;
  CXDRULong CTime;
  CXDRULong Owner;
  CXDRULong Group;
  CXDRULong FSAttributes;
  CNDMPUQuad Size;
  CXDRULong Links;

 protected:
  int RegisterMembers() override {
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("FSType", &FSType);
    RegisterMember("FileType", &FileType);
    RegisterMember("MTime", &MTime);
    RegisterMember("ATime", &ATime);
    RegisterMember("CTime", &CTime);
    RegisterMember("Owner", &Owner);
    RegisterMember("Group", &Group);
    RegisterMember("FSAttributes", &FSAttributes);
    RegisterMember("Size", &Size);
    RegisterMember("Links", &Links);
    return 0;
  }
};

// A file-history entry by path.
class CNDMPFile : public CXDRContainer {
 public:
  CXDRArray<CNDMPFileName> FileNameList;
  CXDRArray<CNDMPFileStat> FileStatList;
  CNDMPUQuad Node;
  CNDMPUQuad FileHistInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("FileNameList", &FileNameList);
    RegisterMember("FileStatList", &FileStatList);
    RegisterMember("Node", &Node);
    RegisterMember("FileHistInfo", &FileHistInfo);
    return 0;
  }
};

// A file-history directory entry: a name of node "Node" inside "Parent".
class CNDMPDir : public CXDRContainer {
 public:
  CXDRArray<CNDMPFileName> DirNameList;
  CNDMPUQuad Node;
  CNDMPUQuad Parent;

 protected:
  int RegisterMembers() override {
    RegisterMember("DirNameList", &DirNameList);
    RegisterMember("Node", &Node);
    RegisterMember("Parent", &Parent);
    return 0;
  }
};

// A file-history node entry: the statistics of node "Node".
class CNDMPNode : public CXDRContainer {
 public:
  CXDRArray<CNDMPFileStat> Stats;
  CNDMPUQuad Node;
  CNDMPUQuad FileHistInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("Stats", &Stats);
    RegisterMember("Node", &Node);
    RegisterMember("FileHistInfo", &FileHistInfo);
    return 0;
  }
};

// ---- Notifications --------------------------------------------------------

class CNDMPNotifyDataHaltedPost
    : public CNDMPMessageImpl<CNDMPNotifyDataHaltedPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED> {
 public:
  CXDREnumBase<enums::CNDMPEnumDataHaltReason> Reason;
  CXDRString TextReason;  // on the wire up to version 3 only

 protected:
  int RegisterMembers() override {
    RegisterMember("Reason", &Reason);
    if (Version() <= 3) RegisterMember("TextReason", &TextReason);
    return 0;
  }
};

class CNDMPNotifyConnectionStatusPost
    : public CNDMPMessageImpl<CNDMPNotifyConnectionStatusPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_NOTIFY_CONNECTION_STATUS> {
 public:
  CXDREnumBase<enums::CNDMPEnumConnectionStatusReason> Reason;
  CXDREnumBase<enums::CNDMPProtocolVersion> Protocol;
  CXDRString TextReason;

 protected:
  int RegisterMembers() override {
    RegisterMember("Reason", &Reason);
    RegisterMember("Protocol", &Protocol);
    RegisterMember("TextReason", &TextReason);
    return 0;
  }
};

class CNDMPNotifyMoverHaltedPost
    : public CNDMPMessageImpl<CNDMPNotifyMoverHaltedPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_NOTIFY_MOVER_HALTED> {
 public:
  CXDREnumBase<enums::CNDMPEnumMoverHaltReason> Reason;
  CXDRString TextReason;  // up to version 3: the version 4 post is the reason alone

 protected:
  int RegisterMembers() override {
    RegisterMember("Reason", &Reason);
    if (Version() <= 3) RegisterMember("TextReason", &TextReason);
    return 0;
  }
};

class CNDMPNotifyMoverPausedPost
    : public CNDMPMessageImpl<CNDMPNotifyMoverPausedPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_NOTIFY_MOVER_PAUSED> {
 public:
  CXDREnumBase<enums::CNDMPEnumMoverPauseReason> Reason;
  CNDMPUQuad SeekPosition;

 protected:
  int RegisterMembers() override {
    RegisterMember("Reason", &Reason);
    RegisterMember("SeekPosition", &SeekPosition);
    return 0;
  }
};

// The data server asks for "Length" bytes of the backup image from "Offset".
class CNDMPNotifyDataReadPost
    : public CNDMPMessageImpl<CNDMPNotifyDataReadPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_NOTIFY_DATA_READ> {
 public:
  CNDMPUQuad Offset;
  CNDMPUQuad Length;

 protected:
  int RegisterMembers() override {
    RegisterMember("Offset", &Offset);
    RegisterMember("Length", &Length);
    return 0;
  }
};

// ---- Log ------------------------------------------------------------------

class CNDMPLogMessagePost
    : public CNDMPMessageImpl<CNDMPLogMessagePost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_LOG_MESSAGE> {
 public:
  CXDREnumBase<enums::CNDMPEnumLogType> LogType;
  CXDRULong MesssageID;  // the triple "s" is intentional: it is the registered name
  CXDRString Entry;
  // On the wire from version 4 only.
  CXDREnumBase<enums::CNDMPEnumHasAssociatedMessage> AssocMessageValid;
  CXDRULong AssocMessageSequence;

 protected:
  int RegisterMembers() override {
    RegisterMember("LogType", &LogType);
    RegisterMember("MesssageID", &MesssageID);
    RegisterMember("Entry", &Entry);
    if (Version() >= 4) {
      RegisterMember("AssocMessageValid", &AssocMessageValid);
      RegisterMember("AssocMessageSequence", &AssocMessageSequence);
    }
    return 0;
  }
};

// The outcome of recovering one file.
class CNDMPLogFilePost
    : public CNDMPMessageImpl<CNDMPLogFilePost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_LOG_FILE> {
 public:
  CXDRString Name;
  CXDREnumBase<enums::CNDMPError> Error;

 protected:
  int RegisterMembers() override {
    RegisterMember("Name", &Name);
    RegisterMember("Error", &Error);
    return 0;
  }
};

// ---- File history ---------------------------------------------------------

class CNDMPFhAddFilePost
    : public CNDMPMessageImpl<CNDMPFhAddFilePost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_FH_ADD_FILE> {
 public:
  CXDRArray<CNDMPFile> Files;

 protected:
  int RegisterMembers() override {
    RegisterMember("Files", &Files);
    return 0;
  }
};

class CNDMPFhAddDirPost
    : public CNDMPMessageImpl<CNDMPFhAddDirPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_FH_ADD_DIR> {
 public:
  CXDRArray<CNDMPDir> Directories;

 protected:
  int RegisterMembers() override {
    RegisterMember("Directories", &Directories);
    return 0;
  }
};

class CNDMPFhAddNodePost
    : public CNDMPMessageImpl<CNDMPFhAddNodePost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_FH_ADD_NODE> {
 public:
  CXDRArray<CNDMPNode> Nodes;

 protected:
  int RegisterMembers() override {
    RegisterMember("Nodes", &Nodes);
    return 0;
  }
};

}  // namespace com::vx::korvane::ndmpc
