#include "ndmpc/ndmp/jobs/file_history.h"

#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

namespace com::vx::korvane::ndmpc {

namespace {

CNDMPHistoryStat ToStat(const CNDMPFileStat& s) {
  CNDMPHistoryStat stat;
  stat.fileType = s.FileType.getInt32();
  stat.mtime = s.MTime.getInt32();
  stat.atime = s.ATime.getInt32();
  stat.ctime = s.CTime.getInt32();
  stat.owner = s.Owner.getInt32();
  stat.group = s.Group.getInt32();
  stat.fsAttributes = s.FSAttributes.getInt32();
  stat.size = s.Size.getUint64();
  stat.links = s.Links.getInt32();
  return stat;
}

// A name list holds one name per file-system type; the UNIX one is preferred,
// else the first that carries text.
std::string PickName(CXDRArray<CNDMPFileName>& names) {
  std::string fallback;
  for (CNDMPFileName& n : names) {
    switch (n.FileSystemType.getInt32()) {
      case enums::CNDMPEnumFSType::NDMP_FS_UNIX:
        return n.UnixFileName.GetString();
      case enums::CNDMPEnumFSType::NDMP_FS_NT:
        if (fallback.empty()) fallback = n.WindowsFileName.NTPath.GetString();
        break;
      default:
        if (fallback.empty()) fallback = n.OtherFileName.GetString();
        break;
    }
  }
  return fallback;
}

}  // namespace

unsigned int CNDMPFileHistoryHandler::HandleMessagePacket(CNDMPMessagePacket& packet) {
  CNDMPMessage* body = packet.GetMessage();
  if (auto* files = dynamic_cast<CNDMPFhAddFilePost*>(body)) {
    for (CNDMPFile& f : files->Files) {
      CNDMPHistoryFile entry;
      entry.path = PickName(f.FileNameList);
      if (f.FileStatList.size() > 0) entry.stat = ToStat(f.FileStatList[0]);
      entry.node = f.Node.getUint64();
      entry.fhInfo = f.FileHistInfo.getUint64();
      sink_.AddFile(entry);
      entries_.fetch_add(1);
    }
  } else if (auto* dirs = dynamic_cast<CNDMPFhAddDirPost*>(body)) {
    for (CNDMPDir& d : dirs->Directories) {
      CNDMPHistoryDir entry;
      entry.name = PickName(d.DirNameList);
      entry.node = d.Node.getUint64();
      entry.parent = d.Parent.getUint64();
      sink_.AddDir(entry);
    }
  } else if (auto* nodes = dynamic_cast<CNDMPFhAddNodePost*>(body)) {
    for (CNDMPNode& n : nodes->Nodes) {
      CNDMPHistoryNode entry;
      if (n.Stats.size() > 0) entry.stat = ToStat(n.Stats[0]);
      entry.node = n.Node.getUint64();
      entry.fhInfo = n.FileHistInfo.getUint64();
      sink_.AddNode(entry);
      entries_.fetch_add(1);
    }
  }
  return 0;
}

}  // namespace com::vx::korvane::ndmpc
