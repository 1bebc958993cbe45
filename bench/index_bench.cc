// Writing file history into the backup index: one backup of 500,000 entries
// per iteration, path-based (NDMP_FH_ADD_FILE) and node-based
// (NDMP_FH_ADD_DIR + NDMP_FH_ADD_NODE, joined into paths when the backup
// finishes), into a fresh SQLite file on the local disk. The counters are
// entries per second, Begin to Finish, of wall time and of CPU time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "tools/index/backup_index.h"

namespace nd = com::vx::korvane::ndmpc;

namespace {

constexpr int kEntries = 500000;
constexpr int kPerDirectory = 100;

nd::CNDMPHistoryStat FileStat(int i, bool directory) {
  nd::CNDMPHistoryStat stat;
  stat.fileType = directory ? 0 : 4;
  stat.size = directory ? 0 : static_cast<std::uint64_t>(i) * 37 % 70000;
  stat.fsAttributes = directory ? 0755 : 0644;
  stat.owner = 1000;
  stat.group = 100;
  stat.mtime = 1700000000u + static_cast<unsigned int>(i);
  return stat;
}

void IndexInsert(benchmark::State& state) {
  const bool nodeBased = state.range(0) != 0;
  char pattern[] = "/tmp/ndmpc-index-bench-XXXXXX";
  const std::string dir = ::mkdtemp(pattern);
  std::int64_t backups = 0;
  double cpuSeconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove_all(dir + "/index.db");
    std::filesystem::remove_all(dir + "/index.db-wal");
    std::string error;
    auto index = nd::tools::CBackupIndex::Open(dir + "/index.db", nd::tools::CBackupIndex::kCreate,
                                               &error);
    if (!index) {
      state.SkipWithError(error.c_str());
      break;
    }
    nd::tools::CIndexWriter writer(*index);
    nd::tools::CIndexBackup backup;
    backup.filesystem = "/vol0";
    state.ResumeTiming();
    const std::clock_t cpuStart = std::clock();
    writer.Begin(backup, &error);
    if (nodeBased) {
      writer.AddDir({".", 1, 1});
      writer.AddNode({FileStat(0, true), 1, 0});
    }
    // Directories d0..dN under the root, kPerDirectory files in each; a
    // directory's own entry comes after its files, as some servers send it.
    for (int i = 0; i < kEntries; ++i) {
      const int d = i / kPerDirectory;
      const bool directory = i % kPerDirectory == kPerDirectory - 1;
      const std::string name = directory ? "d" + std::to_string(d) : "file" + std::to_string(i);
      if (nodeBased) {
        nd::CNDMPHistoryDir entry;
        entry.name = name;
        entry.node = directory ? 1000000 + d : 2000000 + i;
        entry.parent = directory ? 1 : 1000000 + d;
        writer.AddDir(entry);
        nd::CNDMPHistoryNode node;
        node.node = entry.node;
        node.stat = FileStat(i, directory);
        node.fhInfo = static_cast<std::uint64_t>(i) * 1024;
        writer.AddNode(node);
      } else {
        nd::CNDMPHistoryFile file;
        file.path = directory ? "/" + name : "/d" + std::to_string(d) + "/" + name;
        file.stat = FileStat(i, directory);
        file.fhInfo = static_cast<std::uint64_t>(i) * 1024;
        writer.AddFile(file);
      }
    }
    nd::tools::CIndexBackup end;
    end.outcome = "succeeded";
    if (!writer.Finish(end, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    cpuSeconds += static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
    ++backups;
  }
  state.counters["entries/s"] =
      benchmark::Counter(static_cast<double>(backups) * kEntries, benchmark::Counter::kIsRate);
  // On a machine shared with other work, the rate per second of CPU is the steadier figure.
  state.counters["entries/cpu_s"] = static_cast<double>(backups) * kEntries / cpuSeconds;
  std::filesystem::remove_all(dir);
}
BENCHMARK(IndexInsert)->Arg(0)->Arg(1)->ArgName("node_based")->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
