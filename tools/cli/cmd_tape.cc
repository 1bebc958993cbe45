// `ndmpc tape ...`: state, write, read and mtio over the tape helper.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tools/cli/client_session.h"
#include "tools/cli/commands.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/message_builder.h"
#include "tools/cli/progress.h"
#include "tools/cli/xdr_reflect.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using enums::CNDMPEnumMtioOp;
using enums::CNDMPEnumTapeOpenMode;
using enums::CNDMPError;

struct CMtioName {
  const char* name;
  const char* alias;
  CNDMPEnumMtioOp::enum_value op;
  bool writes;
};

const CMtioName kMtioOps[] = {
    {"fsf", nullptr, CNDMPEnumMtioOp::NDMP_MTIO_FSF, false},
    {"bsf", nullptr, CNDMPEnumMtioOp::NDMP_MTIO_BSF, false},
    {"fsr", nullptr, CNDMPEnumMtioOp::NDMP_MTIO_FSR, false},
    {"bsr", nullptr, CNDMPEnumMtioOp::NDMP_MTIO_BSR, false},
    {"rewind", "rew", CNDMPEnumMtioOp::NDMP_MTIO_REW, false},
    {"eof", "weof", CNDMPEnumMtioOp::NDMP_MTIO_EOF, true},
    {"offline", "off", CNDMPEnumMtioOp::NDMP_MTIO_OFF, false},
    {"tur", nullptr, CNDMPEnumMtioOp::NDMP_MTIO_TUR, false},
};

// The outcome of a helper call as an exit code, with the failure printed.
int HelperFailure(CClientSession& session, CCommandContext& context, const std::string& what,
                  unsigned int error) {
  if (error == CNDMPError::NDMP_CONNECT_ERR ||
      (error == CNDMPError::NDMP_TIMEOUT_ERR && !session.Connection().IsConnected())) {
    return Complain(context, kExitConnect,
                    what + ": the connection to " + session.Where() + " was lost");
  }
  if (error == CNDMPError::NDMP_TIMEOUT_ERR) {
    return Complain(context, kExitFailure, what + ": no reply from " + session.Where());
  }
  return session.Report(what, error);
}

// Opens the tape and, for write and read, positions it. 0 or an exit code.
int OpenTape(CClientSession& session, CCommandContext& context, const std::string& device,
             bool write, bool position) {
  CNDMPConnection* connection = &session.Connection();
  CXDREnumBase<CNDMPEnumTapeOpenMode> mode(write ? CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE
                                                 : CNDMPEnumTapeOpenMode::NDMP_TAPE_READ_MODE);
  unsigned int error =
      CNDMPTapeHelper::TapeOpen(connection, device.c_str(), mode, false).getInt32();
  if (error != CNDMPError::NDMP_NO_ERR) {
    return HelperFailure(session, context,
                         "cannot open tape " + device + (write ? " for writing" : ""), error);
  }
  if (!position) return kExitOk;
  unsigned int resid = 0;
  if (!context.options.noRewind) {
    error =
        CNDMPTapeHelper::TapeMTIO(connection, CNDMPEnumMtioOp::NDMP_MTIO_REW, 1, &resid).getInt32();
    if (error != CNDMPError::NDMP_NO_ERR) {
      CNDMPTapeHelper::TapeClose(connection);
      return HelperFailure(session, context, "cannot rewind " + device, error);
    }
  }
  if (context.options.skipFiles != 0) {
    error = CNDMPTapeHelper::TapeMTIO(connection, CNDMPEnumMtioOp::NDMP_MTIO_FSF,
                                      context.options.skipFiles, &resid)
                .getInt32();
    if (error != CNDMPError::NDMP_NO_ERR) {
      CNDMPTapeHelper::TapeClose(connection);
      return HelperFailure(session, context,
                           "cannot skip " + std::to_string(context.options.skipFiles) +
                               " file(s) on " + device + " (" + std::to_string(resid) +
                               " not skipped)",
                           error);
    }
  }
  return kExitOk;
}

void PrintTransfer(CCommandContext& context, const char* verb, const std::string& device,
                   const std::string& file, std::uint64_t bytes, std::uint64_t records,
                   double seconds, const std::string& ending) {
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject()
        .Key("device")
        .String(device)
        .Key("file")
        .String(file)
        .Key("operation")
        .String(std::string(verb) == "written" ? "write" : "read")
        .Key("bytes")
        .Number(bytes)
        .Key("records")
        .Number(records)
        .Key("record_size")
        .Number(context.options.recordSize)
        .Key("seconds")
        .Double(seconds)
        .Key("mb_per_s")
        .Double(seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0.0)
        .Key("end")
        .String(ending)
        .EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
    return;
  }
  // The summary goes to stderr when the data itself goes to stdout.
  std::FILE* stream = file == "-" ? context.err : context.out;
  std::fprintf(stream, "%s %s (%llu bytes) in %llu record%s %s %s, %s, in %.2f s (%s)\n",
               std::string(verb) == "written" ? "Wrote" : "Read", HumanBytes(bytes).c_str(),
               static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(records),
               records == 1 ? "" : "s", std::string(verb) == "written" ? "to" : "from",
               device.c_str(), ending.c_str(), seconds, HumanRate(bytes, seconds).c_str());
}

int TapeWrite(CCommandContext& context, const std::string& device, const std::string& path) {
  std::FILE* input = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (input == nullptr) {
    return Complain(context, kExitFailure, "cannot read " + path + ": " + std::strerror(errno));
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(path == "-" ? nullptr : input,
                                                         &std::fclose);
  std::uint64_t total = 0;
  struct stat info {};
  if (::fstat(::fileno(input), &info) == 0 && S_ISREG(info.st_mode)) {
    total = static_cast<std::uint64_t>(info.st_size);
  }
  CClientSession session(context);
  if (int status = session.Open()) return status;
  if (int status = OpenTape(session, context, device, true, true)) return status;
  CNDMPConnection* connection = &session.Connection();

  std::vector<unsigned char> buffer(context.options.recordSize);
  std::uint64_t bytes = 0;
  std::uint64_t records = 0;
  CProgress progress(context.err, total);
  for (;;) {
    std::size_t n = std::fread(buffer.data(), 1, buffer.size(), input);
    if (n == 0) break;
    unsigned int written = 0;
    unsigned int error = CNDMPTapeHelper::TapeWrite(connection, buffer.data(),
                                                    static_cast<unsigned int>(n), &written)
                             .getInt32();
    if (error != CNDMPError::NDMP_NO_ERR || written != n) {
      progress.Finish();
      CNDMPTapeHelper::TapeClose(connection);
      if (error == CNDMPError::NDMP_NO_ERR) {
        return Complain(context, kExitFailure,
                        "tape write on " + device + ": the server took " + std::to_string(written) +
                            " of " + std::to_string(n) + " bytes");
      }
      return HelperFailure(session, context,
                           "tape write on " + device + " after " + std::to_string(bytes) + " bytes",
                           error);
    }
    bytes += n;
    ++records;
    progress.Update(bytes);
    if (n < buffer.size() && std::feof(input)) break;
  }
  progress.Finish();
  if (std::ferror(input)) {
    CNDMPTapeHelper::TapeClose(connection);
    return Complain(context, kExitFailure, "cannot read " + path + ": " + std::strerror(errno));
  }
  unsigned int resid = 0;
  unsigned int error =
      CNDMPTapeHelper::TapeMTIO(connection, CNDMPEnumMtioOp::NDMP_MTIO_EOF, 1, &resid).getInt32();
  if (error != CNDMPError::NDMP_NO_ERR) {
    CNDMPTapeHelper::TapeClose(connection);
    return HelperFailure(session, context, "cannot write the filemark on " + device, error);
  }
  error = CNDMPTapeHelper::TapeClose(connection).getInt32();
  if (error != CNDMPError::NDMP_NO_ERR) {
    return HelperFailure(session, context, "cannot close tape " + device, error);
  }
  PrintTransfer(context, "written", device, path, bytes, records, progress.Seconds(),
                "then a filemark");
  return kExitOk;
}

int TapeRead(CCommandContext& context, const std::string& device, const std::string& path) {
  if (path == "-" && context.options.json) {
    return Complain(context, kExitUsage, "--json and reading to standard output do not mix");
  }
  CClientSession session(context);
  if (int status = session.Open()) return status;
  if (int status = OpenTape(session, context, device, false, true)) return status;
  CNDMPConnection* connection = &session.Connection();

  std::FILE* output = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
  if (output == nullptr) {
    CNDMPTapeHelper::TapeClose(connection);
    return Complain(context, kExitFailure, "cannot write " + path + ": " + std::strerror(errno));
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(path == "-" ? nullptr : output,
                                                         &std::fclose);
  std::vector<unsigned char> buffer(context.options.recordSize);
  std::uint64_t bytes = 0;
  std::uint64_t records = 0;
  std::string ending;
  CProgress progress(context.err, 0);
  for (;;) {
    unsigned int got = 0;
    unsigned int error =
        CNDMPTapeHelper::TapeRead(connection, buffer.data(), context.options.recordSize, &got)
            .getInt32();
    if (error == CNDMPError::NDMP_EOF_ERR) {
      ending = "up to a filemark";
      break;
    }
    if (error == CNDMPError::NDMP_EOM_ERR) {
      ending = "up to the end of the recorded data";
      break;
    }
    if (error != CNDMPError::NDMP_NO_ERR) {
      progress.Finish();
      CNDMPTapeHelper::TapeClose(connection);
      return HelperFailure(session, context,
                           "tape read on " + device + " after " + std::to_string(bytes) + " bytes",
                           error);
    }
    if (got == 0 || got > buffer.size()) {
      progress.Finish();
      CNDMPTapeHelper::TapeClose(connection);
      return Complain(context, kExitFailure,
                      "tape read on " + device + ": the server returned " + std::to_string(got) +
                          " bytes for a read of " + std::to_string(buffer.size()));
    }
    if (std::fwrite(buffer.data(), 1, got, output) != got) {
      progress.Finish();
      CNDMPTapeHelper::TapeClose(connection);
      return Complain(context, kExitFailure, "cannot write " + path + ": " + std::strerror(errno));
    }
    bytes += got;
    ++records;
    progress.Update(bytes);
  }
  progress.Finish();
  if (std::fflush(output) != 0) {
    CNDMPTapeHelper::TapeClose(connection);
    return Complain(context, kExitFailure, "cannot write " + path + ": " + std::strerror(errno));
  }
  unsigned int error = CNDMPTapeHelper::TapeClose(connection).getInt32();
  if (error != CNDMPError::NDMP_NO_ERR) {
    return HelperFailure(session, context, "cannot close tape " + device, error);
  }
  PrintTransfer(context, "read", device, path, bytes, records, progress.Seconds(), ending);
  return kExitOk;
}

int TapeState(CCommandContext& context, const std::string& device) {
  CClientSession session(context);
  if (int status = session.Open()) return status;
  if (int status = OpenTape(session, context, device, false, false)) return status;
  CNDMPTapeGetStateRequest request;
  std::unique_ptr<CNDMPMessage> reply;
  int status = session.Request(request, &reply);
  CNDMPTapeHelper::TapeClose(&session.Connection());
  if (status != kExitOk) return status;
  auto* state = dynamic_cast<CNDMPTapeGetStateReply*>(reply.get());
  if (state == nullptr) return Complain(context, kExitFailure, "unexpected reply to tape state");
  if (state->NDMP_Error != CNDMPError::NDMP_NO_ERR) {
    return session.Report("tape state of " + device, state->NDMP_Error.getInt32());
  }
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("device").String(device).Key("state");
    WriteJsonValue(json, *state);
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
    return kExitOk;
  }
  std::FILE* out = context.out;
  std::fprintf(out, "Tape %s\n", device.c_str());
  std::fprintf(out, "  File number:      %u\n", state->FileNum.getInt32());
  std::fprintf(out, "  Block number:     %u\n", state->BlockNo.getInt32());
  std::fprintf(out, "  Block size:       %u%s\n", state->BlockSize.getInt32(),
               state->BlockSize.getInt32() == 0 ? " (variable)" : "");
  std::fprintf(out, "  Total space:      %s\n", HumanBytes(state->TotalSpace.getUint64()).c_str());
  std::fprintf(out, "  Space remaining:  %s\n",
               HumanBytes(state->SpaceRemaining.getUint64()).c_str());
  std::fprintf(out, "  Soft errors:      %u\n", state->SoftErrors.getInt32());
  std::fprintf(out, "  Flags:            0x%X%s\n", state->Flags.getInt32(),
               (state->Flags.getInt32() & 0x10u) != 0 ? " (write-protected)" : "");
  return kExitOk;
}

int TapeMtio(CCommandContext& context, const std::string& device, const std::string& opName,
             const std::string& countText) {
  const CMtioName* op = nullptr;
  for (const CMtioName& candidate : kMtioOps) {
    if (opName == candidate.name || (candidate.alias != nullptr && opName == candidate.alias)) {
      op = &candidate;
    }
  }
  if (op == nullptr) {
    return Complain(context, kExitUsage,
                    "unknown tape operation '" + opName +
                        "': use fsf, bsf, fsr, bsr, rewind, eof, offline or tur");
  }
  std::uint64_t count = 1;
  if (!countText.empty() && !ParseNumber(countText, 0xFFFFFFFFu, &count)) {
    return Complain(context, kExitUsage, "COUNT must be a number, not '" + countText + "'");
  }
  CClientSession session(context);
  if (int status = session.Open()) return status;
  if (int status = OpenTape(session, context, device, op->writes, false)) return status;
  unsigned int resid = 0;
  unsigned int error = CNDMPTapeHelper::TapeMTIO(&session.Connection(), op->op,
                                                 static_cast<unsigned int>(count), &resid)
                           .getInt32();
  CNDMPTapeHelper::TapeClose(&session.Connection());
  if (context.options.json && error == CNDMPError::NDMP_NO_ERR) {
    CJsonWriter json;
    json.BeginObject()
        .Key("device")
        .String(device)
        .Key("op")
        .String(op->name)
        .Key("count")
        .Number(count)
        .Key("resid")
        .Number(resid)
        .EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
    return kExitOk;
  }
  if (error != CNDMPError::NDMP_NO_ERR) {
    return HelperFailure(session, context,
                         std::string(op->name) + " " + std::to_string(count) + " on " + device +
                             " stopped with " + std::to_string(resid) + " not done",
                         error);
  }
  std::fprintf(context.out, "%s %llu on %s: done%s\n", op->name,
               static_cast<unsigned long long>(count), device.c_str(),
               resid != 0 ? (", resid " + std::to_string(resid)).c_str() : "");
  return kExitOk;
}

}  // namespace

int CommandTape(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  const std::string sub = args.size() > 1 ? args[1] : "";
  auto usage = [&](const std::string& text) {
    return Complain(context, kExitUsage, text + " (see ndmpc tape --help)");
  };
  if (sub == "state") {
    if (args.size() != 3) return usage("usage: ndmpc tape state DEVICE");
    return TapeState(context, args[2]);
  }
  if (sub == "write") {
    if (args.size() != 4) return usage("usage: ndmpc tape write DEVICE FILE");
    return TapeWrite(context, args[2], args[3]);
  }
  if (sub == "read") {
    if (args.size() != 4) return usage("usage: ndmpc tape read DEVICE FILE");
    return TapeRead(context, args[2], args[3]);
  }
  if (sub == "mtio") {
    if (args.size() != 4 && args.size() != 5) {
      return usage("usage: ndmpc tape mtio DEVICE OP [COUNT]");
    }
    return TapeMtio(context, args[2], args[3], args.size() == 5 ? args[4] : "");
  }
  return usage(sub.empty() ? "tape needs a subcommand: state, write, read or mtio"
                           : "unknown tape subcommand '" + sub + "'");
}

}  // namespace com::vx::korvane::ndmpc::tools
