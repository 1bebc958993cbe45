// The run of one backup or restore job for `ndmpc backup` and `ndmpc
// restore` (cmd_job.cc), and what ties a run to a backup index (cmd_index.cc).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ndmpc/ndmp/jobs/job.h"
#include "tools/cli/commands.h"

namespace com::vx::korvane::ndmpc::tools {

// A backup index taking part in a job run.
class CJobIndexLink {
 public:
  virtual ~CJobIndexLink() = default;
  // Before the job starts; 0, or an exit code after printing why not.
  virtual int Begin(const CNDMPJobSettings& settings) = 0;
  // The sink that receives the file history, or null.
  virtual CINDMPFileHistorySink* History() = 0;
  // The restore's image offset of `path`, all ones when unknown.
  virtual std::uint64_t FhInfo(const std::string& path) const = 0;
  // The backup's id in the index (0 for a restore), for the --json output.
  virtual std::int64_t BackupId() const = 0;
  // After the job, whatever its outcome; 0, or an exit code after printing why not.
  virtual int Finish(const CNDMPJobResult& result) = 0;
};

// Runs a backup of paths[0], or a restore of `paths` (all of the image when
// empty), as the options say; `index` may be null. Returns the exit code.
int RunJob(CCommandContext& context, bool backup, const std::vector<std::string>& paths,
           CJobIndexLink* index);

// `backup ... --index FILE` and `restore --index FILE --backup ID PATH...`.
int IndexedBackup(CCommandContext& context);
int IndexedRestore(CCommandContext& context);

}  // namespace com::vx::korvane::ndmpc::tools
