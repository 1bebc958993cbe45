// Whole backups through the job layer: a two-way backup by the simulated
// server's data agent and mover on loopback, of a tree of large files and of
// a tree of many small files, next to `tar -cf - DIR | cat > /dev/null` on the
// same tree in the same run (the ratio counter is job rate / tar rate). The
// restores read those images back: whole, and ten directories of the small
// tree found through their file-history offsets (restore_to_backup is the
// restore rate over the backup rate of the same run).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/jobs/job.h"
#include "tools/simulator/sim_server.h"

namespace nd = com::vx::korvane::ndmpc;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) {
  return std::max(1e-9, std::chrono::duration<double>(Clock::now() - start).count());
}

// The bench's directory: data root (two trees) and tape directory, made once.
struct CBenchTrees {
  std::string root;
  std::uint64_t bigBytes = 0, smallBytes = 0;
  static constexpr int kSmallFiles = 100000;

  CBenchTrees() {
    // $TMPDIR picks the file system: restores of many small files are
    // bound by its file creation (GNU tar -x too).
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                          "/ndmpc-job-bench-XXXXXX";
    root = ::mkdtemp(pattern.data());
    fs::create_directories(root + "/data/big");
    fs::create_directories(root + "/tapes");
    std::vector<char> block(1 << 20);
    std::mt19937 random(1);
    for (char& c : block) c = static_cast<char>(random());
    for (int f = 0; f < 16; ++f) {  // 16 x 64 MiB = 1 GiB
      std::ofstream out(root + "/data/big/file" + std::to_string(f), std::ios::binary);
      for (int m = 0; m < 64; ++m)
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
      bigBytes += 64ull << 20;
    }
    for (int i = 0; i < kSmallFiles; ++i) {
      const std::string dir = root + "/data/small/d" + std::to_string(i / 1000);
      if (i % 1000 == 0) fs::create_directories(dir);
      const std::size_t size = static_cast<std::size_t>(i * 7919 % 4096);
      std::ofstream(dir + "/f" + std::to_string(i))
          .write(block.data(), static_cast<std::streamsize>(size));
      smallBytes += size;
    }
  }
  ~CBenchTrees() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
  }
};

CBenchTrees& Trees() {
  static CBenchTrees trees;
  return trees;
}

// Seconds tar takes to archive DIR.
double TarSeconds(const std::string& dir) {
  const Clock::time_point start = Clock::now();
  // Through a pipe: GNU tar writing straight to /dev/null skips reading the files.
  const std::string command = "tar -cf - -C '" + dir + "' . | cat > /dev/null";
  if (std::system(command.c_str()) != 0) return 0;
  return Seconds(start);
}

// The fhInfo of every directory of a path-based history.
struct CDirOffsets : nd::CINDMPFileHistorySink {
  std::map<std::string, std::uint64_t> dirs;
  void AddFile(const nd::CNDMPHistoryFile& e) override {
    if (e.stat.fileType == nd::enums::CNDMPEnumFileType::NDMP_FILE_DIR) dirs[e.path] = e.fhInfo;
  }
};

// Backs `tree` up (timed), then restores it (timed): whole, or with
// `selected` > 0 that many of its directories through their offsets.
void RunBackup(benchmark::State& state, const std::string& tree, std::uint64_t bytes,
               std::uint64_t files, bool restore = false, int selected = 0) {
  CBenchTrees& trees = Trees();
  nd::VxLog log;
  log.setLevel(0);
  nd::tools::CSimServerConfig config;
  config.listenAddress = "127.0.0.1";
  config.port = 0;
  config.tapeDir = trees.root + "/tapes";
  config.dataRoot = trees.root + "/data";
  config.tapeCapacity = 4ull << 30;
  nd::tools::CNDMPSimServer server(config, log);
  std::string error;
  if (!server.Start(&error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  nd::CNDMPConnection filer("127.0.0.1", "127.0.0.1", log, server.Port());
  if (filer.Connect() != nd::enums::CNDMPError::NDMP_NO_ERR) {
    state.SkipWithError("cannot connect to the simulated server");
    return;
  }
  filer.Authenticate("", "");
  double jobSeconds = 0, tarSeconds = 0, restoreSeconds = 0;
  std::uint64_t restoredBytes = 0;
  for (auto _ : state) {
    nd::CNDMPJobSettings s;
    s.data = s.tape = &filer;
    s.tapeDevice = "bench";
    s.environment = {{"FILESYSTEM", "/" + tree}, {"HIST", "y"}};
    CDirOffsets offsets;
    s.history = &offsets;
    const Clock::time_point start = Clock::now();
    const nd::CNDMPJobResult r = nd::CNDMPBackupJob(s).Run();
    jobSeconds += Seconds(start);
    if (r.outcome != nd::CNDMPJobOutcome::kSucceeded) {
      state.SkipWithError(r.error.c_str());
      break;
    }
    state.PauseTiming();
    tarSeconds += TarSeconds(config.dataRoot + "/" + tree);
    state.ResumeTiming();
    if (!restore) continue;
    std::vector<nd::CNDMPRestoreItem> items;
    if (selected == 0) items.push_back({"/", "/restored", ~std::uint64_t{0}});
    for (const auto& [path, fhInfo] : offsets.dirs) {
      if (path == "/" || static_cast<int>(items.size()) == selected) continue;
      items.push_back({path, "/restored" + path, fhInfo});
    }
    s.environment = r.environment;
    s.history = nullptr;
    const Clock::time_point restoreStart = Clock::now();
    const nd::CNDMPJobResult back = nd::CNDMPRestoreJob(s, items).Run();
    restoreSeconds += Seconds(restoreStart);
    restoredBytes += back.bytes;
    state.PauseTiming();
    std::error_code ignored;
    fs::remove_all(config.dataRoot + "/restored", ignored);
    state.ResumeTiming();
    if (back.outcome != nd::CNDMPJobOutcome::kSucceeded) {
      state.SkipWithError(back.error.c_str());
      break;
    }
  }
  filer.Disconnect();
  server.Stop();
  const double n = static_cast<double>(state.iterations());
  state.counters["MB_per_s"] = static_cast<double>(bytes) * n / jobSeconds / 1e6;
  state.counters["files_per_s"] = static_cast<double>(files) * n / jobSeconds;
  state.counters["tar_MB_per_s"] =
      tarSeconds > 0 ? static_cast<double>(bytes) * n / tarSeconds / 1e6 : 0;
  state.counters["ratio_to_tar"] = jobSeconds > 0 ? tarSeconds / jobSeconds : 0;
  if (restore) {
    state.counters["restore_MB_per_s"] = static_cast<double>(restoredBytes) / restoreSeconds / 1e6;
    state.counters["restore_to_backup"] =
        static_cast<double>(restoredBytes) / restoreSeconds /
        (static_cast<double>(bytes) * n / jobSeconds);
  }
}

void BM_JobBackup1GiBIn64MiBFiles(benchmark::State& state) {
  RunBackup(state, "big", Trees().bigBytes, 16);
}

void BM_JobBackup100kSmallFiles(benchmark::State& state) {
  RunBackup(state, "small", Trees().smallBytes, CBenchTrees::kSmallFiles);
}

void BM_JobRestore1GiBIn64MiBFiles(benchmark::State& state) {
  RunBackup(state, "big", Trees().bigBytes, 16, true);
}

void BM_JobRestore100kSmallFiles(benchmark::State& state) {
  RunBackup(state, "small", Trees().smallBytes, CBenchTrees::kSmallFiles, true);
}

void BM_JobRestore10DirectoriesByOffset(benchmark::State& state) {
  RunBackup(state, "small", Trees().smallBytes, CBenchTrees::kSmallFiles, true, 10);
}

}  // namespace

BENCHMARK(BM_JobRestore1GiBIn64MiBFiles)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JobRestore100kSmallFiles)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JobRestore10DirectoriesByOffset)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JobBackup1GiBIn64MiBFiles)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JobBackup100kSmallFiles)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
