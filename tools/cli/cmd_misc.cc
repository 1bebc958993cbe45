// The remaining commands (scsi, mover/data state, serve, demo) and the
// command dispatch.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ndmpc/ndmp/helpers/scsi_helper.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tools/cli/client_session.h"
#include "tools/cli/commands.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/message_builder.h"
#include "tools/cli/progress.h"
#include "tools/cli/xdr_reflect.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using enums::CNDMPError;

volatile std::sig_atomic_t gInterrupted = 0;

extern "C" void OnInterrupt(int) { gInterrupted = 1; }

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) {
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

// Fills the simulator's configuration from the serve options; false with
// the reason on bad usage.
bool MakeServerConfig(const COptions& options, CSimServerConfig* config, std::string* error) {
  config->listenAddress = options.listen;
  config->port = options.port;
  config->tapeDir = options.tapeDir.empty() ? "ndmp-tapes" : options.tapeDir;
  config->user = options.user;
  config->password = options.password;
  config->maxRecordSize = options.maxRecord;
  config->tapeCapacity = options.capacity;
  config->dataRoot = options.dataRoot;
  std::vector<std::string> methods = SplitList(!options.auth.empty()  ? options.auth
                                               : options.user.empty() ? "none"
                                                                      : "md5,text");
  config->authNone = config->authText = config->authMD5 = false;
  for (const std::string& method : methods) {
    if (method == "none") {
      config->authNone = true;
    } else if (method == "text") {
      config->authText = true;
    } else if (method == "md5") {
      config->authMD5 = true;
    } else {
      *error = "--auth takes md5, text and none, not '" + method + "'";
      return false;
    }
  }
  if (methods.empty()) {
    *error = "--auth needs at least one of md5, text, none";
    return false;
  }
  if ((config->authText || config->authMD5) && options.user.empty()) {
    *error = "--auth md5 or text needs --user and --password: the credentials clients must give";
    return false;
  }
  config->versions.clear();
  for (const std::string& version : SplitList(options.versions)) {
    if (version != "3" && version != "4") {
      *error = "--versions takes 3 and 4, not '" + version + "'";
      return false;
    }
    config->versions.push_back(version == "3" ? 3u : 4u);
  }
  if (config->versions.empty()) {
    *error = "--versions needs 3, 4 or both";
    return false;
  }
  return true;
}

std::string AuthText(const CSimServerConfig& config) {
  std::string text;
  if (config.authMD5) text += "md5";
  if (config.authText) text += std::string(text.empty() ? "" : ", ") + "text";
  if (config.authNone) text += std::string(text.empty() ? "" : ", ") + "none";
  if (config.authMD5 || config.authText) text += " (user " + config.user + ")";
  return text;
}

// Gives an empty tape directory one blank tape, so that there is a device to try.
void EnsureOneTape(CNDMPSimServer& server) {
  if (!server.TapeNames().empty()) return;
  std::string error;
  CVirtualTape::Open(server.Config().tapeDir + "/tape0", true, server.Config().tapeCapacity,
                     &error);
}

// A small tree for the demo's backup: nested directories, text, binary and
// empty files, a symbolic link.
void WriteDemoTree(const std::string& root) {
  std::filesystem::create_directories(root + "/src/lib");
  std::filesystem::create_directories(root + "/docs");
  std::ofstream(root + "/README") << "Project notes\n";
  std::ofstream(root + "/src/main.c") << "int main(void) { return 0; }\n";
  std::ofstream(root + "/src/lib/util.c") << "int util(void) { return 42; }\n";
  std::ofstream(root + "/docs/empty.txt").close();
  std::mt19937 random(7);
  std::ofstream blob(root + "/docs/data.bin", std::ios::binary);
  for (int i = 0; i < 200000; ++i) blob.put(static_cast<char>(random()));
  blob.close();
  std::filesystem::create_symlink("src/main.c", root + "/main-link");
}

// Each entry of a tree: type, permission bits, and the content or link
// target, by path relative to the root.
std::map<std::string, std::string> DescribeTree(const std::string& root) {
  std::map<std::string, std::string> tree;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    std::string text = std::to_string(st.st_mode) + ":";
    if (S_ISLNK(st.st_mode)) {
      text += std::filesystem::read_symlink(it->path(), error).string();
    } else if (S_ISREG(st.st_mode)) {
      std::ifstream file(it->path(), std::ios::binary);
      text.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    tree[std::filesystem::relative(it->path(), root, error).string()] = text;
  }
  return tree;
}

}  // namespace

bool InterruptRequested() { return gInterrupted != 0; }

void InstallInterruptHandlers() {
  gInterrupted = 0;
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int Complain(CCommandContext& context, int status, const std::string& text) {
  std::fprintf(context.err, "ndmpc: %s\n", text.c_str());
  std::fflush(context.err);
  return status;
}

int CommandScsi(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (args.size() != 2) {
    return Complain(context, kExitUsage, "usage: ndmpc scsi DEVICE (see ndmpc scsi --help)");
  }
  const std::string& device = args[1];
  CClientSession session(context);
  if (int status = session.Open()) return status;
  unsigned int error = CNDMPScsiHelper::SCSIOpen(&session.Connection(), device.c_str()).getInt32();
  if (error != CNDMPError::NDMP_NO_ERR) {
    return session.Report("cannot open SCSI device " + device, error);
  }
  CNDMPScsiGetStateRequest request;
  std::unique_ptr<CNDMPMessage> reply;
  int status = session.Request(request, &reply);
  CNDMPScsiHelper::SCSIClose(&session.Connection());
  if (status != kExitOk) return status;
  auto* state = dynamic_cast<CNDMPScsiGetStateReply*>(reply.get());
  if (state == nullptr) return Complain(context, kExitFailure, "unexpected reply to SCSI state");
  if (state->NDMP_Error != CNDMPError::NDMP_NO_ERR) {
    return session.Report("SCSI state of " + device, state->NDMP_Error.getInt32());
  }
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("device").String(device).Key("state");
    WriteJsonValue(json, *state);
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
  } else {
    std::fprintf(context.out, "SCSI device %s: controller %u, target id %u, lun %u\n",
                 device.c_str(), state->TargetController.getInt32(), state->TargetID.getInt32(),
                 state->TargetLun.getInt32());
  }
  return kExitOk;
}

int CommandAgentState(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  const std::string& agent = args[0];
  if (args.size() != 2 || args[1] != "state") {
    return Complain(context, kExitUsage, "usage: ndmpc " + agent + " state");
  }
  CClientSession session(context);
  if (int status = session.Open()) return status;
  std::unique_ptr<CNDMPMessage> request;
  if (agent == "mover") {
    request.reset(new CNDMPMoverGetStateRequest());
  } else {
    request.reset(new CNDMPDataGetStateRequest());
  }
  std::unique_ptr<CNDMPMessage> reply;
  if (int status = session.Request(*request, &reply)) return status;
  std::string errorName;
  if (ReplyCarriesError(*reply, &errorName)) {
    std::uint32_t value = CNDMPError::NDMP_UNDEFINED_ERR;
    CNDMPError::Table().Lookup(errorName.c_str(), &value);
    return session.Report(agent + " state", value);
  }
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("agent").String(agent).Key("state");
    WriteJsonValue(json, *reply);
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
  } else {
    std::fprintf(context.out, "%s state (NDMP version %u):%s\n",
                 agent == "mover" ? "Mover" : "Data", session.Version(),
                 reply->DumpContents(1).c_str());
  }
  return kExitOk;
}

int CommandServe(CCommandContext& context) {
  if (context.options.args.size() != 1) {
    return Complain(context, kExitUsage, "serve takes no arguments (see ndmpc serve --help)");
  }
  CSimServerConfig config;
  std::string error;
  if (!MakeServerConfig(context.options, &config, &error)) {
    return Complain(context, kExitUsage, error);
  }
  CNDMPSimServer server(config, context.log);
  InstallInterruptHandlers();
  if (!server.Start(&error)) return Complain(context, kExitFailure, error);
  EnsureOneTape(server);
  std::string tapes;
  for (const std::string& name : server.TapeNames()) tapes += (tapes.empty() ? "" : ", ") + name;
  std::string versions;
  for (unsigned int v : config.versions) {
    versions += (versions.empty() ? "" : ", ") + std::to_string(v);
  }
  std::fprintf(context.out,
               "Simulated NDMP server listening on %s:%u\n"
               "  tapes in %s: %s\n"
               "  SCSI changer: %s\n"
               "  authentication: %s\n"
               "  NDMP versions: %s; largest record %s; tape capacity %s\n"
               "  data agent: %s\n"
               "Ctrl-C to stop.\n",
               config.listenAddress.c_str(), server.Port(), config.tapeDir.c_str(),
               tapes.empty() ? "none" : tapes.c_str(), config.changerName.c_str(),
               AuthText(config).c_str(), versions.c_str(), HumanBytes(config.maxRecordSize).c_str(),
               HumanBytes(config.tapeCapacity).c_str(),
               config.dataRoot.empty() ? "no data root (no backups or restores)"
                                       : ("tar and dump of " + config.dataRoot).c_str());
  std::fflush(context.out);
  while (!InterruptRequested()) VxThread::sleep(100);
  std::fprintf(context.out, "Stopping...\n");
  std::fflush(context.out);
  server.Stop();
  std::fprintf(context.out, "Stopped.\n");
  return kExitOk;
}

int CommandDemo(CCommandContext& context) {
  if (context.options.args.size() != 1) {
    return Complain(context, kExitUsage, "demo takes no arguments");
  }
  char pattern[] = "/tmp/ndmpc-demo-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    return Complain(context, kExitFailure,
                    std::string("cannot create a temporary directory: ") + std::strerror(errno));
  }
  const std::string dir = pattern;
  CSimServerConfig config;
  config.listenAddress = "127.0.0.1";
  config.port = 0;
  config.tapeDir = dir + "/tapes";
  config.user = "demo";
  config.password = "demo-secret";
  config.authNone = false;
  config.authText = true;
  config.authMD5 = true;
  config.dataRoot = dir + "/data";
  WriteDemoTree(config.dataRoot + "/projects");
  CNDMPSimServer server(config, context.log);
  std::string error;
  if (!server.Start(&error)) {
    ::rmdir(dir.c_str());
    return Complain(context, kExitFailure, "cannot start the simulated server: " + error);
  }
  EnsureOneTape(server);
  std::FILE* out = context.out;
  std::fprintf(out,
               "Started a simulated NDMP server on 127.0.0.1:%u (tapes in %s, user demo, "
               "password demo-secret).\n",
               server.Port(), config.tapeDir.c_str());

  CCommandContext client{context.options, context.log, out, context.err};
  client.options.host = "127.0.0.1";
  client.options.port = server.Port();
  client.options.user = config.user;
  client.options.password = config.password;
  client.options.protocol = 0;
  client.options.json = false;
  client.options.recordSize = 65536;
  client.options.skipFiles = 0;
  client.options.noRewind = false;
  const std::string prefix =
      "ndmpc -H 127.0.0.1 -p " + std::to_string(server.Port()) + " -u demo --password demo-secret";
  auto run = [&](const std::vector<std::string>& args, int (*command)(CCommandContext&)) {
    std::string line;
    for (const std::string& arg : args) line += " " + arg;
    if (args[0] == "tape" && args[1] != "state") line += " --record-size 64K";
    if (args[0] == "backup") line += " --tape tape1";
    if (args[0] == "restore") line += " --tape tape1 --to /restored";
    std::fprintf(out, "\n$ %s%s\n", prefix.c_str(), line.c_str());
    std::fflush(out);
    client.options.args = args;
    return command(client);
  };

  const std::string originalFile = dir + "/original.bin";
  const std::string copy = dir + "/copy.bin";
  std::vector<unsigned char> data(300 * 1024 + 123);
  std::mt19937 random(20240611);
  for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
  {
    std::ofstream file(originalFile, std::ios::binary);
    file.write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
  }
  int status = run({"info"}, &CommandInfo);
  if (status == kExitOk) {
    status = run({"tape", "write", "tape0", originalFile}, &CommandTape);
  }
  if (status == kExitOk) {
    status = run({"tape", "read", "tape0", copy}, &CommandTape);
  }
  if (status == kExitOk) status = run({"tape", "state", "tape0"}, &CommandTape);
  if (status == kExitOk) {
    std::ifstream file(copy, std::ios::binary);
    std::vector<unsigned char> back((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
    if (back == data) {
      std::fprintf(out, "\nThe copy read back from tape0 matches the original (%zu bytes).\n",
                   data.size());
    } else {
      std::fprintf(out, "\nThe copy read back from tape0 differs from the original!\n");
      status = kExitFailure;
    }
  }
  // A backup of a small tree of the data root, restored elsewhere.
  client.options.tapeDevice = "tape1";
  client.options.restoreTo = "/restored";
  if (status == kExitOk) status = run({"backup", "/projects"}, &CommandBackup);
  if (status == kExitOk) status = run({"restore"}, &CommandRestore);
  if (status == kExitOk) {
    const auto original = DescribeTree(config.dataRoot + "/projects");
    if (DescribeTree(config.dataRoot + "/restored") == original) {
      std::fprintf(out, "\nThe restored tree matches the original (%zu entries).\n",
                   original.size());
    } else {
      std::fprintf(out, "\nThe restored tree differs from the original!\n");
      status = kExitFailure;
    }
  }
  server.Stop();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  std::fprintf(out,
               "\nDone. To keep a server running: ndmpc serve --tape-dir /tmp/tapes, then "
               "`ndmpc info` in another terminal.\n");
  return status;
}

int RunCommand(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  const std::string command = args.empty() ? "" : args[0];
  struct CCommandRow {
    const char* name;
    int (*run)(CCommandContext&);
  };
  static const CCommandRow kCommands[] = {
      {"info", &CommandInfo},         {"tape", &CommandTape},       {"scsi", &CommandScsi},
      {"mover", &CommandAgentState},  {"data", &CommandAgentState}, {"send", &CommandSend},
      {"messages", &CommandMessages}, {"watch", &CommandWatch},     {"serve", &CommandServe},
      {"demo", &CommandDemo},         {"backup", &CommandBackup},   {"restore", &CommandRestore},
      {"index", &CommandIndex},
  };
  for (const CCommandRow& row : kCommands) {
    if (command == row.name) return row.run(context);
  }
  if (command.empty()) {
    return Complain(context, kExitUsage, "no command given; try ndmpc --help, or ndmpc demo");
  }
  return Complain(context, kExitUsage, "unknown command '" + command + "'; try ndmpc --help");
}

}  // namespace com::vx::korvane::ndmpc::tools
