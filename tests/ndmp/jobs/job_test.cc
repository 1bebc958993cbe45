// Backup and restore jobs end to end: the simulated server's data agent and
// mover (two-way, version 3 and 4), the ndmjob server's mover (three-way),
// abort, a vanishing data agent and tapes that run full.
#include "ndmpc/ndmp/jobs/job.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>

#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "tests/support/ndmjob_server.h"
#include "tests/tools/tools_test_support.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

namespace fs = std::filesystem;
using Outcome = CNDMPJobOutcome;

// Keeps the file history: path-based entries by path, node-based ones
// joined into paths at the end.
struct CHistory : CINDMPFileHistorySink {
  std::map<std::string, CNDMPHistoryFile> files;
  std::map<std::uint64_t, CNDMPHistoryDir> dirs;  // by node
  std::map<std::uint64_t, CNDMPHistoryNode> nodes;
  void AddFile(const CNDMPHistoryFile& e) override { files[e.path] = e; }
  void AddDir(const CNDMPHistoryDir& e) override {
    if (e.name != "." && e.name != "..") dirs[e.node] = e;
  }
  void AddNode(const CNDMPHistoryNode& e) override { nodes[e.node] = e; }
  // The paths the history describes ("/a/b"), with their fhInfo.
  std::map<std::string, std::uint64_t> Paths() const {
    std::map<std::string, std::uint64_t> paths;
    for (const auto& [path, e] : files) {
      if (path != "/" && path != ".") paths[path] = e.fhInfo;
    }
    for (const auto& [node, n] : nodes) {
      std::string path;
      for (std::uint64_t at = node; dirs.count(at) != 0 && path.size() < 4096;
           at = dirs.at(at).parent) {
        path = "/" + dirs.at(at).name + path;
      }
      if (!path.empty()) paths[path] = n.fhInfo;
    }
    return paths;
  }
};

// Hands out the next tapes when the mover asks, and aborts on request.
struct CObserver : CINDMPJobObserver {
  std::vector<std::string> nextTapes;
  std::promise<void> running;
  bool signalled = false;
  std::string OnTapeChange(unsigned int used) override {
    return used <= nextTapes.size() ? nextTapes[used - 1] : "";
  }
  void OnProgress(const CNDMPJobProgress& p) override {
    if (p.dataBytes > 0 && !signalled) {
      signalled = true;
      running.set_value();
    }
  }
};

CNDMPJobSettings Settings(CNDMPConnection& data, CNDMPConnection& tape, const std::string& device,
                          const std::string& type = "tar") {
  CNDMPJobSettings s;
  s.data = &data;
  s.tape = &tape;
  s.tapeDevice = device;
  s.backupType = type;
  s.environment = {{"FILESYSTEM", "/src"}, {"HIST", "y"}};
  s.pollMilliseconds = 50;
  return s;
}

CNDMPJobResult Restore(CNDMPJobSettings s, std::vector<CNDMPRestoreItem> items) {
  return CNDMPRestoreJob(std::move(s), std::move(items)).Run();
}

class TwoWayJob : public ::testing::TestWithParam<std::pair<unsigned int, const char*>> {};

TEST_P(TwoWayJob, BacksUpRestoresWholeAndSelectedFilesWithExactHistory) {
  const auto [version, type] = GetParam();
  CTempDir root;
  BuildTestTree(root.File("src"), 2500, true);
  CSimFixture sim(CSimFixture::DataConfig(root.Path()));
  CClient client(sim.Port());
  ASSERT_TRUE(client.Open("ndmp", "secret", version));
  CHistory history;
  CNDMPJobSettings s = Settings(*client.get(), *client.get(), "t1", type);
  s.history = &history;
  const CNDMPJobResult backup = CNDMPBackupJob(s).Run();
  ASSERT_EQ(backup.outcome, Outcome::kSucceeded) << backup.error;
  EXPECT_EQ(backup.dataHaltReason, enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_SUCCESSFUL);
  EXPECT_EQ(backup.moverHaltReason,
            enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED);
  EXPECT_GT(backup.bytes, 20u << 20);
  EXPECT_NE(std::find(backup.environment.begin(), backup.environment.end(),
                      std::make_pair(std::string("FILESYSTEM"), std::string("/src"))),
            backup.environment.end());

  const auto tree = SnapshotTree(root.File("src"));
  auto described = history.Paths();
  std::set<std::string> inTree, inHistory;
  for (const auto& entry : tree) {
    if (entry.first != "/") inTree.insert(entry.first);
  }
  for (const auto& entry : described) inHistory.insert(entry.first);
  EXPECT_EQ(inHistory, inTree);
  EXPECT_EQ(backup.historyEntries,
            std::string(type) == "tar" ? history.files.size() : history.nodes.size());

  s.environment = backup.environment;
  s.history = nullptr;
  const CNDMPJobResult whole = Restore(s, {{"/", "/dst"}});
  ASSERT_EQ(whole.outcome, Outcome::kSucceeded) << whole.error;
  EXPECT_EQ(SnapshotTree(root.File("dst")), tree);

  // The image on tape is a tar archive GNU tar lists entry for entry.
  const std::string image = root.File("image.tar");
  ASSERT_EQ(RunNdmpc(With(sim.Target(), {"tape", "read", "t1", image})).status, 0);
  FILE* tar = ::popen(("tar -tf '" + image + "' 2>&1").c_str(), "r");
  std::set<std::string> listed;
  for (char line[8192]; tar != nullptr && std::fgets(line, sizeof line, tar) != nullptr;) {
    std::string name(line);
    while (!name.empty() && (name.back() == '\n' || name.back() == '/')) name.pop_back();
    if (name.rfind("./", 0) == 0) name.erase(0, 1);
    if (name.empty() || name == ".") continue;
    listed.insert(name[0] == '/' ? name : "/" + name);
  }
  ASSERT_NE(tar, nullptr);
  EXPECT_EQ(::pclose(tar), 0);
  EXPECT_EQ(listed, inTree);

  // Three files at different depths and a directory, found through their
  // history offsets (the directory's entries in few reads), and a path not
  // in the image.
  const std::string dir = "/a/b c/d\xC3\xA9j\xC3\xA0";
  const std::vector<std::string> chosen = {"/f6", "/a/b c/f2",
                                           "/z/" + kLongName + "/deep/f5", dir};
  std::vector<CNDMPRestoreItem> items;
  for (const std::string& path : chosen) {
    ASSERT_EQ(described.count(path), 1u) << path;
    items.push_back({path, "/sel" + path, described[path]});
  }
  items.push_back({"/not/there", "/sel/not/there", 0});
  const CNDMPJobResult some = Restore(s, items);
  EXPECT_EQ(some.outcome, Outcome::kFailed);
  EXPECT_EQ(some.notFound, std::vector<std::string>{"/not/there"}) << some.error;
  EXPECT_EQ(SnapshotTree(root.File("sel") + dir), SnapshotTree(root.File("src") + dir));
  std::map<std::string, std::string> files, wanted;  // outside the directory
  for (const auto& [path, line] : SnapshotTree(root.File("sel"))) {
    if (line[0] == 'f' && path.rfind(dir, 0) != 0)
      files[path] = line;
  }
  for (std::size_t i = 0; i + 1 < chosen.size(); ++i) wanted[chosen[i]] = tree.at(chosen[i]);
  EXPECT_EQ(files, wanted);
}

INSTANTIATE_TEST_SUITE_P(Versions, TwoWayJob,
                         ::testing::Values(std::make_pair(3u, "dump"), std::make_pair(4u, "tar")));

// Version 3 movers take the window only once listening, version 4 ones before.
class ThreeWayJob : public ::testing::TestWithParam<unsigned int> {};

TEST_P(ThreeWayJob, NdmjobMoverWritesAndReadsTheImage) {
  if (ndmpc::testing::CNdmjobServer::FindProgram().empty())
    GTEST_SKIP() << "ndmjob is not installed";
  ndmpc::testing::CNdmjobServer ndmjob;
  ASSERT_TRUE(ndmjob.Start()) << ndmjob.error();
  CTempDir root;
  BuildTestTree(root.File("src"), 300, false);
  CSimFixture sim(CSimFixture::DataConfig(root.Path()));
  CClient data(sim.Port()), tape(ndmjob.port());
  ASSERT_TRUE(data.Open() && tape.Open("ndmp", ndmpc::testing::CNdmjobServer::kPassword, GetParam()));
  const std::string device = ndmjob.NewTape("tape0");
  CNDMPJobSettings s = Settings(*data.get(), *tape.get(), device);
  const CNDMPJobResult backup = CNDMPBackupJob(s).Run();
  ASSERT_EQ(backup.outcome, Outcome::kSucceeded) << backup.error << "\n" << ndmjob.Log();
  s.environment = backup.environment;
  const CNDMPJobResult restore = Restore(s, {{"/", "/dst"}});
  ASSERT_EQ(restore.outcome, Outcome::kSucceeded) << restore.error << "\n" << ndmjob.Log();
  EXPECT_EQ(SnapshotTree(root.File("dst")), SnapshotTree(root.File("src")));
}

INSTANTIATE_TEST_SUITE_P(Versions, ThreeWayJob, ::testing::Values(3u, 4u));

// A backup long enough to be caught running: a large sparse file.
void BuildLongBackup(const std::string& root) {
  fs::create_directories(root + "/src");
  std::ofstream(root + "/src/sparse").close();
  fs::resize_file(root + "/src/sparse", 3ull << 30);
}

// A backup running on another thread, caught once it has moved data.
struct CRunningBackup {
  CRunningBackup(CNDMPConnection& data, CNDMPConnection& tape, const std::string& device) {
    CNDMPJobSettings s = Settings(data, tape, device);
    s.observer = &observer;
    job = std::make_unique<CNDMPBackupJob>(s);
    result = std::async(std::launch::async, [this] { return job->Run(); });
  }
  bool Running() {
    return observer.running.get_future().wait_for(std::chrono::seconds(60)) ==
           std::future_status::ready;
  }
  CObserver observer;
  std::unique_ptr<CNDMPBackupJob> job;
  std::future<CNDMPJobResult> result;
};

TEST(JobEnd, AbortHaltsBothAgentsAndALostDataAgentEndsTheJobQuickly) {
  CTempDir root;
  BuildLongBackup(root.Path());
  CSimFixture sim(CSimFixture::DataConfig(root.Path(), 8ull << 30));
  {
    CClient client(sim.Port());
    ASSERT_TRUE(client.Open());
    CRunningBackup backup(*client.get(), *client.get(), "t1");
    ASSERT_TRUE(backup.Running());
    backup.job->Abort();
    const CNDMPJobResult r = backup.result.get();
    EXPECT_EQ(r.outcome, Outcome::kAborted) << r.error;
    EXPECT_EQ(r.dataHaltReason, enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_ABORTED);
    EXPECT_NE(r.moverHaltReason, enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_NA);
    // Both agents were stopped: the same server takes the next job at once.
    CNDMPDataGetStateRequest state;
    auto reply = client.Get<CNDMPDataGetStateReply>(state);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->State, enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE);
  }
  // Three-way with the data agent on a server that goes away mid-backup.
  auto dataServer = std::make_unique<CSimFixture>(CSimFixture::DataConfig(root.Path(), 8ull << 30));
  CClient data(dataServer->Port()), tape(sim.Port());
  ASSERT_TRUE(data.Open() && tape.Open());
  CRunningBackup backup(*data.get(), *tape.get(), "t2");
  ASSERT_TRUE(backup.Running());
  const auto stopped = std::chrono::steady_clock::now();
  dataServer.reset();
  const CNDMPJobResult r = backup.result.get();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(5));
  EXPECT_EQ(r.outcome, Outcome::kFailed);
  EXPECT_NE(r.error.find("data agent"), std::string::npos) << r.error;
  EXPECT_TRUE(r.agentLost);
}

TEST(JobEnd, TapeFullFailsByDefaultAndContinuesOnASecondTape) {
  CTempDir root;
  BuildTestTree(root.File("src"), 200, false);
  WriteRandomFile(root.File("src/a/large.bin"), 3 << 20, 3);
  CSimFixture sim(CSimFixture::DataConfig(root.Path(), 2 << 20));
  CClient client(sim.Port());
  ASSERT_TRUE(client.Open());
  CObserver refuse;
  CNDMPJobSettings s = Settings(*client.get(), *client.get(), "small");
  s.observer = &refuse;
  const CNDMPJobResult full = CNDMPBackupJob(s).Run();
  EXPECT_EQ(full.outcome, Outcome::kFailed);
  EXPECT_EQ(full.error.rfind("tape full", 0), 0u) << full.error;

  CObserver loader;
  loader.nextTapes = {"second"};
  s.tapeDevice = "first";
  s.observer = &loader;
  const CNDMPJobResult spanned = CNDMPBackupJob(s).Run();
  ASSERT_EQ(spanned.outcome, Outcome::kSucceeded) << spanned.error;
  EXPECT_EQ(spanned.tapesUsed, 2u);
  s.environment = spanned.environment;
  const CNDMPJobResult restore = Restore(s, {{"/", "/dst"}});
  ASSERT_EQ(restore.outcome, Outcome::kSucceeded) << restore.error;
  EXPECT_EQ(restore.tapesUsed, 2u);
  EXPECT_EQ(SnapshotTree(root.File("dst")), SnapshotTree(root.File("src")));
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
