// `ndmpc info`: everything the config interface tells about a server.
#include <memory>
#include <string>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tools/cli/client_session.h"
#include "tools/cli/commands.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/progress.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using enums::CNDMPError;

// Servers that do not know NDMP_CONFIG_GET_EXT_LIST often just ignore it.
constexpr unsigned int kExtListTimeout = 3;

// One query's outcome: its reply, or why there is none.
template <class Reply>
struct CQuery {
  std::unique_ptr<CNDMPMessage> owner;
  Reply* reply = nullptr;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  bool unanswered = false;

  // The text shown in place of a missing answer.
  std::string Why() const {
    if (unanswered) return "no answer";
    return "refused: " + enums::CNDMPError::ToString(error);
  }
};

template <class Request, class Reply>
int Ask(CClientSession& session, CQuery<Reply>* query, unsigned int timeout = 0) {
  Request request;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  int status = session.Request(request, &query->owner, timeout, true, &error);
  if (status == kExitConnect) return status;
  if (status != kExitOk) {
    query->error = error;
    query->unanswered = error == CNDMPError::NDMP_TIMEOUT_ERR;
    return kExitOk;
  }
  query->reply = dynamic_cast<Reply*>(query->owner.get());
  if (query->reply == nullptr) {
    query->error = CNDMPError::NDMP_UNDEFINED_ERR;
  } else if (query->reply->Error != CNDMPError::NDMP_NO_ERR) {
    query->error = query->reply->Error.getInt32();
    query->reply = nullptr;
  }
  return kExitOk;
}

std::string Short(const std::string& name, const char* prefix) {
  const std::string p = prefix;
  return name.rfind(p, 0) == 0 ? name.substr(p.size()) : name;
}

void JsonError(CJsonWriter& json, unsigned int error, bool unanswered) {
  json.BeginObject();
  if (unanswered) {
    json.Key("error").String("no answer");
  } else {
    json.Key("error").String(enums::CNDMPError::ToString(error)).Key("error_code").Number(error);
  }
  json.EndObject();
}

void JsonEnv(CJsonWriter& json, CXDRArray<CNDMPPVal>& env) {
  json.BeginObject();
  for (CNDMPPVal& pair : env) json.Key(pair.Name.GetString()).String(pair.Value.GetString());
  json.EndObject();
}

std::string EnvText(CXDRArray<CNDMPPVal>& env) {
  std::string text;
  for (CNDMPPVal& pair : env) {
    text += (text.empty() ? "" : " ") + pair.Name.GetString() + "=" + pair.Value.GetString();
  }
  return text;
}

void JsonDevices(CJsonWriter& json, CXDRArray<CNDMPDeviceInfo>& devices) {
  json.BeginArray();
  for (CNDMPDeviceInfo& info : devices) {
    for (CNDMPDeviceCapability& capability : info.CapabilityList) {
      json.BeginObject()
          .Key("device")
          .String(capability.Device.GetString())
          .Key("model")
          .String(info.Model.GetString())
          .Key("attributes")
          .Number(capability.Attributes.getInt32())
          .Key("capabilities");
      JsonEnv(json, capability.Capability);
      json.EndObject();
    }
  }
  json.EndArray();
}

void TextDevices(std::FILE* out, const char* title, CXDRArray<CNDMPDeviceInfo>& devices) {
  std::size_t count = 0;
  for (CNDMPDeviceInfo& info : devices) count += info.CapabilityList.size();
  std::fprintf(out, "%s:%s\n", title, count == 0 ? " none" : "");
  for (CNDMPDeviceInfo& info : devices) {
    for (CNDMPDeviceCapability& capability : info.CapabilityList) {
      std::fprintf(out, "  %-20s model %s, attributes 0x%X\n",
                   capability.Device.GetString().c_str(), info.Model.GetString().c_str(),
                   capability.Attributes.getInt32());
      if (capability.Capability.size() != 0) {
        std::fprintf(out, "    %s\n", EnvText(capability.Capability).c_str());
      }
    }
  }
}

}  // namespace

int CommandInfo(CCommandContext& context) {
  if (context.options.args.size() > 1) {
    return Complain(context, kExitUsage, "info takes no arguments (see ndmpc info --help)");
  }
  CClientSession session(context);
  if (int status = session.Open()) return status;

  CQuery<CNDMPConfigGetServerInfoReply> server;
  CQuery<CNDMPConfigGetHostInfoReply> host;
  CQuery<CNDMPConfigGetConnectionTypeReply> connection;
  CQuery<CNDMPConfigGetButypeAttrReply> butypes;
  CQuery<CNDMPConfigGetFsInfoReply> fs;
  CQuery<CNDMPConfigGetTapeInfoReply> tapes;
  CQuery<CNDMPConfigGetSCSIInfoReply> scsi;
  CQuery<CNDMPConfigGetExtListReply> extensions;
  int status = Ask<CNDMPConfigGetServerInfoRequest>(session, &server);
  if (status == kExitOk) status = Ask<CNDMPConfigGetHostInfoRequest>(session, &host);
  if (status == kExitOk) status = Ask<CNDMPConfigGetConnectionTypeRequest>(session, &connection);
  if (status == kExitOk) status = Ask<CNDMPConfigGetButypeAttrRequest>(session, &butypes);
  if (status == kExitOk) status = Ask<CNDMPConfigGetFsInfoRequest>(session, &fs);
  if (status == kExitOk) status = Ask<CNDMPConfigGetTapeInfoRequest>(session, &tapes);
  if (status == kExitOk) status = Ask<CNDMPConfigGetSCSIInfoRequest>(session, &scsi);
  if (status == kExitOk) {
    status = Ask<CNDMPConfigGetExtListRequest>(session, &extensions, kExtListTimeout);
  }
  if (status != kExitOk) {
    return Complain(context, status, "the connection to " + session.Where() + " was lost");
  }

  std::FILE* out = context.out;
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject()
        .Key("address")
        .String(session.Where())
        .Key("protocol_version")
        .Number(session.Version())
        .Key("authenticated")
        .Bool(session.Authenticated());
    json.Key("server");
    if (server.reply != nullptr) {
      json.BeginObject()
          .Key("vendor")
          .String(server.reply->VenderName.GetString())
          .Key("product")
          .String(server.reply->ProductName.GetString())
          .Key("revision")
          .String(server.reply->RevisionNumber.GetString())
          .Key("auth_types")
          .BeginArray();
      for (auto& type : server.reply->AuthenticationTypes) json.String(type.ToString());
      json.EndArray().EndObject();
    } else {
      JsonError(json, server.error, server.unanswered);
    }
    json.Key("host");
    if (host.reply != nullptr) {
      json.BeginObject()
          .Key("name")
          .String(host.reply->hostname.GetString())
          .Key("os_type")
          .String(host.reply->OSType.GetString())
          .Key("os_version")
          .String(host.reply->OSVersion.GetString())
          .Key("host_id")
          .String(host.reply->HostID.GetString())
          .EndObject();
    } else {
      JsonError(json, host.error, host.unanswered);
    }
    json.Key("connection_types");
    if (connection.reply != nullptr) {
      json.BeginArray();
      for (auto& type : connection.reply->AddressTypes) json.String(type.ToString());
      json.EndArray();
    } else {
      JsonError(json, connection.error, connection.unanswered);
    }
    json.Key("backup_types");
    if (butypes.reply != nullptr) {
      json.BeginArray();
      for (CNDMPConfigButypeInfo& info : butypes.reply->BackupTypeInfo) {
        json.BeginObject()
            .Key("name")
            .String(info.BackupTypeName.GetString())
            .Key("attributes")
            .Number(info.Attributes.getInt32())
            .Key("default_env");
        JsonEnv(json, info.DefaultEnvironment);
        json.EndObject();
      }
      json.EndArray();
    } else {
      JsonError(json, butypes.error, butypes.unanswered);
    }
    json.Key("file_systems");
    if (fs.reply != nullptr) {
      json.BeginArray();
      for (CNDMPFsInfo& info : fs.reply->FsInfoArray) {
        json.BeginObject()
            .Key("name")
            .String(info.LogDeviceName.GetString())
            .Key("type")
            .String(info.FSType.GetString())
            .Key("device")
            .String(info.PhysDeviceName.GetString())
            .Key("total_bytes")
            .Number(info.TotalSize.getUint64())
            .Key("used_bytes")
            .Number(info.UsedSize.getUint64())
            .Key("available_bytes")
            .Number(info.AvailSize.getUint64())
            .Key("total_inodes")
            .Number(info.TotalInodes.getUint64())
            .Key("used_inodes")
            .Number(info.UsedInodes.getUint64())
            .Key("status")
            .String(info.FSStatus.GetString())
            .Key("env");
        JsonEnv(json, info.FSEnvironment);
        json.EndObject();
      }
      json.EndArray();
    } else {
      JsonError(json, fs.error, fs.unanswered);
    }
    json.Key("tape_devices");
    if (tapes.reply != nullptr) {
      JsonDevices(json, tapes.reply->TapeInfoArray);
    } else {
      JsonError(json, tapes.error, tapes.unanswered);
    }
    json.Key("scsi_devices");
    if (scsi.reply != nullptr) {
      JsonDevices(json, scsi.reply->SCSIInfoArray);
    } else {
      JsonError(json, scsi.error, scsi.unanswered);
    }
    json.Key("extensions");
    if (extensions.reply != nullptr) {
      json.BeginArray();
      for (CNDMPClassList& item : extensions.reply->ExtClassList) {
        json.BeginObject().Key("class").Number(item.ExtensionClassID.getInt32()).Key("versions");
        json.BeginArray();
        for (CXDRUShort& version : item.ExtentionVersions) json.Number(version.getInt32());
        json.EndArray().EndObject();
      }
      json.EndArray();
    } else {
      JsonError(json, extensions.error, extensions.unanswered);
    }
    json.EndObject();
    std::fprintf(out, "%s\n", json.Text().c_str());
    return kExitOk;
  }

  std::fprintf(out, "Connected to %s, NDMP version %u%s\n", session.Where().c_str(),
               session.Version(), session.Authenticated() ? "" : " (not authenticated)");
  if (server.reply != nullptr) {
    std::string auth;
    for (auto& type : server.reply->AuthenticationTypes) {
      auth += (auth.empty() ? "" : ", ") + Short(type.ToString(), "NDMP_AUTH_");
    }
    std::fprintf(out, "Server:            %s %s, revision %s\n",
                 server.reply->VenderName.GetString().c_str(),
                 server.reply->ProductName.GetString().c_str(),
                 server.reply->RevisionNumber.GetString().c_str());
    std::fprintf(out, "Authentication:    %s\n", auth.empty() ? "(none listed)" : auth.c_str());
  } else {
    std::fprintf(out, "Server:            %s\n", server.Why().c_str());
  }
  if (host.reply != nullptr) {
    std::fprintf(out, "Host:              %s (%s %s), host id %s\n",
                 host.reply->hostname.GetString().c_str(), host.reply->OSType.GetString().c_str(),
                 host.reply->OSVersion.GetString().c_str(), host.reply->HostID.GetString().c_str());
  } else {
    std::fprintf(out, "Host:              %s\n", host.Why().c_str());
  }
  if (connection.reply != nullptr) {
    std::string types;
    for (auto& type : connection.reply->AddressTypes) {
      types += (types.empty() ? "" : ", ") + Short(type.ToString(), "NDMP_ADDR_");
    }
    std::fprintf(out, "Connection types:  %s\n", types.empty() ? "none" : types.c_str());
  } else {
    std::fprintf(out, "Connection types:  %s\n", connection.Why().c_str());
  }
  if (butypes.reply != nullptr) {
    std::fprintf(out, "Backup types:%s\n",
                 butypes.reply->BackupTypeInfo.size() == 0 ? " none" : "");
    for (CNDMPConfigButypeInfo& info : butypes.reply->BackupTypeInfo) {
      std::fprintf(out, "  %-20s attributes 0x%X\n", info.BackupTypeName.GetString().c_str(),
                   info.Attributes.getInt32());
      if (info.DefaultEnvironment.size() != 0) {
        std::fprintf(out, "    %s\n", EnvText(info.DefaultEnvironment).c_str());
      }
    }
  } else {
    std::fprintf(out, "Backup types:      %s\n", butypes.Why().c_str());
  }
  if (fs.reply != nullptr) {
    std::fprintf(out, "File systems:%s\n", fs.reply->FsInfoArray.size() == 0 ? " none" : "");
    for (CNDMPFsInfo& info : fs.reply->FsInfoArray) {
      std::fprintf(
          out, "  %-20s %s on %s, %s used of %s, %s free%s%s\n",
          info.LogDeviceName.GetString().c_str(), info.FSType.GetString().c_str(),
          info.PhysDeviceName.GetString().c_str(), HumanBytes(info.UsedSize.getUint64()).c_str(),
          HumanBytes(info.TotalSize.getUint64()).c_str(),
          HumanBytes(info.AvailSize.getUint64()).c_str(),
          info.FSStatus.GetString().empty() ? "" : ", ", info.FSStatus.GetString().c_str());
    }
  } else {
    std::fprintf(out, "File systems:      %s\n", fs.Why().c_str());
  }
  if (tapes.reply != nullptr) {
    TextDevices(out, "Tape devices", tapes.reply->TapeInfoArray);
  } else {
    std::fprintf(out, "Tape devices:      %s\n", tapes.Why().c_str());
  }
  if (scsi.reply != nullptr) {
    TextDevices(out, "SCSI devices", scsi.reply->SCSIInfoArray);
  } else {
    std::fprintf(out, "SCSI devices:      %s\n", scsi.Why().c_str());
  }
  if (extensions.reply != nullptr) {
    std::string list;
    for (CNDMPClassList& item : extensions.reply->ExtClassList) {
      char text[64];
      std::snprintf(text, sizeof(text), "0x%X (versions", item.ExtensionClassID.getInt32());
      list += (list.empty() ? "" : ", ") + std::string(text);
      for (CXDRUShort& version : item.ExtentionVersions) {
        list += " " + std::to_string(version.getInt32());
      }
      list += ")";
    }
    std::fprintf(out, "Extensions:        %s\n", list.empty() ? "none" : list.c_str());
  } else {
    std::fprintf(out, "Extensions:        %s\n", extensions.Why().c_str());
  }
  return kExitOk;
}

}  // namespace com::vx::korvane::ndmpc::tools
