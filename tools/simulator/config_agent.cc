#include "tools/simulator/config_agent.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tools/simulator/sim_server.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;

namespace {

CNDMPPVal Pair(const char* name, const std::string& value) { return CNDMPPVal(name, value); }

// The directories at the top of the data root, each as a file system with
// the figures of the file system it lives on.
std::vector<CSimFileSystem> DataRootFileSystems(const std::string& root) {
  std::vector<CSimFileSystem> systems;
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) return systems;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    const std::string path = root + "/" + name;
    struct stat st {};
    struct statvfs vfs {};
    if (name == "." || name == ".." || ::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        ::statvfs(path.c_str(), &vfs) != 0) {
      continue;
    }
    const std::uint64_t block = vfs.f_frsize;
    systems.push_back({"/" + name, "local", path, vfs.f_blocks * block,
                       (vfs.f_blocks - vfs.f_bfree) * block, vfs.f_files, vfs.f_files - vfs.f_ffree,
                       "online"});
  }
  ::closedir(dir);
  std::sort(systems.begin(), systems.end(),
            [](const CSimFileSystem& a, const CSimFileSystem& b) { return a.name < b.name; });
  return systems;
}

}  // namespace

void CSimConfigAgent::ConfigGetServerInfo(CSimRequest& request) {
  const CSimServerConfig& config = context_.server.Config();
  CNDMPConfigGetServerInfoReply reply;
  reply.VenderName = config.vendor;
  reply.ProductName = config.product;
  reply.RevisionNumber = config.revision;
  using Auth = enums::CNDMPEnumAuthType;
  if (config.authMD5) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_MD5);
  if (config.authText) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_TEXT);
  if (config.authNone) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_NONE);
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetHostInfo(CSimRequest& request) {
  const CSimServerConfig& config = context_.server.Config();
  CNDMPConfigGetHostInfoReply reply;
  reply.hostname = config.hostName;
  reply.OSType = config.osType;
  reply.OSVersion = config.osVersion;
  reply.HostID = config.hostId;
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetConnectionType(CSimRequest& request) {
  CNDMPConfigGetConnectionTypeReply reply;
  reply.AddressTypes.AddItem(enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL);
  reply.AddressTypes.AddItem(enums::CNDMPEnumAddrType::NDMP_ADDR_TCP);
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetButypeInfo(CSimRequest& request) {
  CNDMPConfigGetButypeAttrReply reply;
  if (!context_.server.Config().dataRoot.empty()) {
    // What the data agent does: tar images with path history ("tar") or
    // directory and node history ("dump"), whole or selective restores,
    // direct access by history offset, UTF-8 names; no incrementals.
    const std::pair<const char*, unsigned int> types[] = {{"tar", 0x0B95u}, {"dump", 0x0D95u}};
    for (const auto& [name, attributes] : types) {
      CNDMPConfigButypeInfo& type = reply.BackupTypeInfo.AppendNew();
      type.BackupTypeName = name;
      type.Attributes = attributes;
      type.DefaultEnvironment.AddItem(Pair("FILESYSTEM", ""));
      type.DefaultEnvironment.AddItem(Pair("HIST", "n"));
    }
    return request.Reply(reply);
  }
  CNDMPConfigButypeInfo& dump = reply.BackupTypeInfo.AppendNew();
  dump.BackupTypeName = "dump";
  dump.Attributes = 0x1466u;  // file lists, incrementals, directory and node history
  dump.DefaultEnvironment.AddItem(Pair("FILESYSTEM", ""));
  dump.DefaultEnvironment.AddItem(Pair("LEVEL", "0"));
  dump.DefaultEnvironment.AddItem(Pair("HIST", "y"));
  dump.DefaultEnvironment.AddItem(Pair("UPDATE", "y"));
  CNDMPConfigButypeInfo& tar = reply.BackupTypeInfo.AppendNew();
  tar.BackupTypeName = "tar";
  tar.Attributes = 0x0206u;  // file lists, file history
  tar.DefaultEnvironment.AddItem(Pair("FILESYSTEM", ""));
  tar.DefaultEnvironment.AddItem(Pair("HIST", "y"));
  tar.DefaultEnvironment.AddItem(Pair("BLOCKSIZE", "20"));
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetFsInfo(CSimRequest& request) {
  CNDMPConfigGetFsInfoReply reply;
  const std::string& root = context_.server.Config().dataRoot;
  for (const CSimFileSystem& fs :
       root.empty() ? context_.server.Config().fileSystems : DataRootFileSystems(root)) {
    CNDMPFsInfo& info = reply.FsInfoArray.AppendNew();
    info.FSType = fs.type;
    info.LogDeviceName = fs.name;
    info.PhysDeviceName = fs.device;
    info.TotalSize = CNDMPUQuad(fs.totalBytes);
    info.UsedSize = CNDMPUQuad(fs.usedBytes);
    info.AvailSize = CNDMPUQuad(fs.totalBytes - std::min(fs.usedBytes, fs.totalBytes));
    info.TotalInodes = CNDMPUQuad(fs.totalInodes);
    info.UsedInodes = CNDMPUQuad(fs.usedInodes);
    info.FSEnvironment.AddItem(Pair("LOCAL", "y"));
    info.FSEnvironment.AddItem(Pair("TYPE", fs.type));
    info.FSStatus = fs.status;
  }
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetTapeInfo(CSimRequest& request) {
  CNDMPConfigGetTapeInfoReply reply;
  for (const std::string& name : context_.server.TapeNames()) {
    CNDMPDeviceInfo& info = reply.TapeInfoArray.AppendNew();
    info.Model = "SIM-TAPE";
    CNDMPDeviceCapability& capability = info.CapabilityList.AppendNew();
    capability.Device = name;
    capability.Capability.AddItem(Pair("EXECUTE_CDB", "f"));
    capability.Capability.AddItem(Pair("SERIAL_NUMBER", "SIM" + name));
    capability.Capability.AddItem(
        Pair("MAX_RECORD_SIZE", std::to_string(context_.server.Config().maxRecordSize)));
  }
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetScsiInfo(CSimRequest& request) {
  CNDMPConfigGetSCSIInfoReply reply;
  CNDMPDeviceInfo& info = reply.SCSIInfoArray.AppendNew();
  info.Model = "SIM-CHANGER";
  CNDMPDeviceCapability& capability = info.CapabilityList.AppendNew();
  capability.Device = context_.server.Config().changerName;
  capability.Capability.AddItem(Pair("SERIAL_NUMBER", "SIMCHG0001"));
  request.Reply(reply);
}

void CSimConfigAgent::ConfigGetExtList(CSimRequest& request) {
  if (!context_.server.Config().answerExtList) return;  // deliberately silent, like some filers
  CNDMPConfigGetExtListReply reply;                     // no extensions
  request.Reply(reply);
}

void CSimConfigAgent::ConfigSetExtList(CSimRequest& request) {
  auto* body = request.Body<CNDMPConfigSetExtListRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPConfigSetExtListReply reply;
  if (body->SelectedExtensions.size() != 0) {
    reply.NDMP_Error = CNDMPError::NDMP_CLASS_NOT_SUPPORTED_ERR;
  }
  request.Reply(reply);
}

}  // namespace com::vx::korvane::ndmpc::tools
