// `ndmpc send`, `ndmpc messages` and `ndmpc watch`: any message by name,
// the catalogue, and the server's notifications as they come.
#include <chrono>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "ndmpc/ndmp/connection/callbacks.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "tools/cli/client_session.h"
#include "tools/cli/commands.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/message_builder.h"
#include "tools/cli/xdr_reflect.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using enums::CNDMPError;

std::string HexCode(std::uint32_t code) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%X", code);
  return text;
}

// Prints each notification (every packet that is not a reply) as it arrives.
class CWatchPrinter : public CINDMPCallback {
 public:
  explicit CWatchPrinter(CCommandContext& context) : context_(context) {}

  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    const CNDMPHeader& header = packet.GetHeader();
    if (header.MessageType != enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST) return 0;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::lock_guard<std::mutex> lock(mutex_);
    CNDMPMessage* body = packet.GetMessage();
    if (context_.options.json) {
      CJsonWriter json(0);
      json.BeginObject()
          .Key("time")
          .String(stamp)
          .Key("message")
          .String(header.MessageCode.ToString())
          .Key("sequence")
          .Number(header.Sequence.getInt32())
          .Key("body");
      if (body != nullptr) {
        WriteJsonValue(json, *body);
      } else {
        json.Null();
      }
      json.EndObject();
      std::fprintf(context_.out, "%s\n", json.Text().c_str());
    } else {
      std::fprintf(context_.out, "%s %s%s\n", stamp, header.MessageCode.ToString().c_str(),
                   body != nullptr ? body->DumpContents(1).c_str() : "");
    }
    std::fflush(context_.out);
    ++count_;
    return 0;
  }

  unsigned int Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

 private:
  CCommandContext& context_;
  std::mutex mutex_;
  unsigned int count_ = 0;  // guarded by mutex_
};

}  // namespace

int CommandSend(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (args.size() < 2) {
    return Complain(context, kExitUsage,
                    "send needs a message name, e.g. ndmpc send NDMP_CONFIG_GET_HOST_INFO "
                    "(see ndmpc send --help)");
  }
  std::uint32_t code = 0;
  std::string error;
  if (!FindMessageCode(args[1], &code, &error)) return Complain(context, kExitUsage, error);
  const CMessageInfo* info = FindMessageInfo(code);
  // Check the fields before connecting, under the version asked for (or 4).
  const unsigned int checkVersion = context.options.protocol != 0 ? context.options.protocol : 4;
  std::unique_ptr<CNDMPMessage> probe = MakeRequest(code, checkVersion);
  if (!probe) return Complain(context, kExitUsage, "no request body for " + info->name);
  for (std::size_t i = 2; i < args.size(); ++i) {
    if (!ApplyAssignment(*probe, args[i], &error)) {
      return Complain(context, kExitUsage, info->name + ": " + error);
    }
  }

  CClientSession session(context);
  if (int status = session.Open()) return status;
  // Built again under the version agreed, whose fields may differ.
  std::unique_ptr<CNDMPMessage> request = MakeRequest(code, session.Version());
  for (std::size_t i = 2; i < args.size(); ++i) {
    if (!ApplyAssignment(*request, args[i], &error)) {
      return Complain(
          context, kExitUsage,
          info->name + " under NDMP version " + std::to_string(session.Version()) + ": " + error);
    }
  }
  SettleVersion(*request, session.Version());

  if (info->noReply) {
    CXDREnumBase<CNDMPError> result = session.Connection().SendMessage(*request, 0u);
    if (result != CNDMPError::NDMP_NO_ERR) {
      return Complain(context, kExitConnect, info->name + ": cannot send to " + session.Where());
    }
    if (context.options.json) {
      CJsonWriter json;
      json.BeginObject().Key("message").String(info->name).Key("sent").Bool(true).EndObject();
      std::fprintf(context.out, "%s\n", json.Text().c_str());
    } else {
      std::fprintf(context.out, "%s sent (no reply expected)\n", info->name.c_str());
    }
    return kExitOk;
  }

  std::unique_ptr<CNDMPMessage> reply;
  if (int status = session.Request(*request, &reply)) return status;
  std::string errorName;
  const bool failed = ReplyCarriesError(*reply, &errorName);
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject()
        .Key("message")
        .String(info->name)
        .Key("code")
        .Number(code)
        .Key("protocol_version")
        .Number(session.Version())
        .Key("reply");
    WriteJsonValue(json, *reply);
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
  } else {
    std::fprintf(context.out, "%s reply:%s\n", info->name.c_str(), reply->DumpContents(1).c_str());
  }
  if (failed) {
    std::string text = info->name + ": the reply carries " + errorName;
    std::uint32_t value = 0;
    if (enums::CNDMPError::Table().Lookup(errorName.c_str(), &value) && *ErrorHint(value) != '\0') {
      text += std::string(" (") + ErrorHint(value) + ")";
    }
    return Complain(context, kExitNdmpError, text);
  }
  return kExitOk;
}

int CommandMessages(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (args.size() > 2) return Complain(context, kExitUsage, "usage: ndmpc messages [MESSAGE]");
  if (args.size() == 2) {
    std::uint32_t code = 0;
    std::string error;
    if (!FindMessageCode(args[1], &code, &error)) return Complain(context, kExitUsage, error);
    const CMessageInfo* info = FindMessageInfo(code);
    const unsigned int version = context.options.protocol != 0 ? context.options.protocol : 4;
    std::unique_ptr<CNDMPMessage> request = MakeRequest(code, version);
    if (!request) return Complain(context, kExitUsage, "no request body for " + info->name);
    if (context.options.json) {
      CJsonWriter json;
      json.BeginObject()
          .Key("name")
          .String(info->name)
          .Key("code")
          .Number(code)
          .Key("no_reply")
          .Bool(info->noReply)
          .Key("protocol_version")
          .Number(version)
          .Key("fields");
      WriteJsonValue(json, *request);
      json.EndObject();
      std::fprintf(context.out, "%s\n", json.Text().c_str());
      return kExitOk;
    }
    std::string fields;
    DescribeFields(*request, 1, &fields);
    std::fprintf(context.out, "%s (%s)%s, NDMP version %u, fields:\n%s", info->name.c_str(),
                 HexCode(code).c_str(), info->noReply ? ", sent without a reply" : "", version,
                 fields.c_str());
    return kExitOk;
  }
  if (context.options.json) {
    CJsonWriter json;
    json.BeginArray();
    for (const CMessageInfo& info : KnownMessages()) {
      json.BeginObject()
          .Key("name")
          .String(info.name)
          .Key("code")
          .Number(info.code)
          .Key("no_reply")
          .Bool(info.noReply)
          .EndObject();
    }
    json.EndArray();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
    return kExitOk;
  }
  for (const CMessageInfo& info : KnownMessages()) {
    if (info.noReply) {
      std::fprintf(context.out, "%-44s %-11s  (no reply)\n", info.name.c_str(),
                   HexCode(info.code).c_str());
    } else {
      std::fprintf(context.out, "%-44s %s\n", info.name.c_str(), HexCode(info.code).c_str());
    }
  }
  return kExitOk;
}

int CommandWatch(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (args.size() > 2) return Complain(context, kExitUsage, "usage: ndmpc watch [SECONDS]");
  std::uint64_t seconds = 0;
  if (args.size() == 2 && !ParseNumber(args[1], 0xFFFFFFFFu, &seconds)) {
    return Complain(context, kExitUsage, "SECONDS must be a number, not '" + args[1] + "'");
  }
  CWatchPrinter printer(context);
  CClientSession session(context);
  InstallInterruptHandlers();
  if (int status = session.Open(&printer)) return status;
  if (!context.options.json) {
    std::fprintf(context.err, "Watching %s (NDMP version %u)%s; Ctrl-C to stop.\n",
                 session.Where().c_str(), session.Version(),
                 seconds != 0 ? (" for " + std::to_string(seconds) + " s").c_str() : "");
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!InterruptRequested() && session.Connection().IsConnected()) {
    if (seconds != 0 && std::chrono::steady_clock::now() >= deadline) break;
    VxThread::sleep(100);
  }
  const bool lost = !session.Connection().IsConnected();
  session.Connection().Disconnect();
  if (!context.options.json) {
    std::fprintf(context.err, "%u message%s received.\n", printer.Count(),
                 printer.Count() == 1 ? "" : "s");
  }
  if (lost && !InterruptRequested()) {
    return Complain(context, kExitConnect, "the connection to " + session.Where() + " was lost");
  }
  return kExitOk;
}

}  // namespace com::vx::korvane::ndmpc::tools
