// ndmpc: the command-line tool. Parses the options, sets up the log and
// runs the command; see `ndmpc --help`.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "ndmpc/foundation/vx_log.h"
#include "tools/cli/commands.h"
#include "tools/cli/options.h"

namespace tools = com::vx::korvane::ndmpc::tools;
using com::vx::korvane::ndmpc::VxLog;

int main(int argc, char** argv) {
  // A closed pipe on stdout ends the output, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  tools::COptions options;
  std::string error;
  if (!tools::ParseOptions(argc, argv, &options, &error)) {
    std::fprintf(stderr, "ndmpc: %s\n", error.c_str());
    return tools::kExitUsage;
  }
  if (options.version) {
    std::printf("ndmpc 0.1.0\n");
    return tools::kExitOk;
  }
  if (!options.args.empty() && options.args[0] == "help") {
    options.args.erase(options.args.begin());
    options.help = true;
  }
  if (options.help) {
    const char* text = options.args.empty() ? nullptr : tools::CommandHelp(options.args[0]);
    std::fputs(text != nullptr ? text : tools::ToolHelp(), stdout);
    return tools::kExitOk;
  }
  std::unique_ptr<VxLog> log(options.logFile.empty() ? new VxLog()
                                                     : new VxLog(options.logFile.c_str()));
  // Quiet by default: ndmpc reports failures itself (the server shows its
  // errors). -v adds the library's warnings, -vv info lines, -vvv debug;
  // --trace every packet in full.
  const bool serving = !options.args.empty() && options.args[0] == "serve";
  int level = options.verbosity == 0 ? (serving ? 1 : 0) : options.verbosity + 1;
  if (options.trace) level = 7;
  log->setLevel(level);
  tools::CCommandContext context{options, *log, stdout, stderr};
  int status = tools::RunCommand(context);
  if (std::fflush(stdout) != 0 && status == tools::kExitOk) status = tools::kExitFailure;
  return status;
}
