// The commands of `ndmpc`, callable in-process (the demo runs them against
// its own simulated server):
//
//   CCommandContext context{options, log, stdout, stderr};
//   int status = RunCommand(context);    // an exit code of options.h
#pragma once

#include <cstdio>
#include <string>

#include "ndmpc/foundation/vx_log.h"
#include "tools/cli/options.h"

namespace com::vx::korvane::ndmpc::tools {

struct CCommandContext {
  COptions options;
  VxLog& log;
  std::FILE* out;
  std::FILE* err;
};

// Runs options.args[0] with the rest of options.args.
int RunCommand(CCommandContext& context);

int CommandInfo(CCommandContext& context);
int CommandTape(CCommandContext& context);
int CommandScsi(CCommandContext& context);
int CommandAgentState(CCommandContext& context);  // mover state, data state
int CommandSend(CCommandContext& context);
int CommandMessages(CCommandContext& context);
int CommandWatch(CCommandContext& context);
int CommandServe(CCommandContext& context);
int CommandDemo(CCommandContext& context);
int CommandBackup(CCommandContext& context);
int CommandRestore(CCommandContext& context);
int CommandIndex(CCommandContext& context);

// Prints "ndmpc: <text>" on the error stream; returns `status`.
int Complain(CCommandContext& context, int status, const std::string& text);
// Set by SIGINT/SIGTERM while `watch` or `serve` runs.
bool InterruptRequested();
void InstallInterruptHandlers();

}  // namespace com::vx::korvane::ndmpc::tools
