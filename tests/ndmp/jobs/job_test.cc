// Backup and restore jobs end to end: the simulated server's data agent and
// mover (two-way, version 3 and 4), the ndmjob server's mover (three-way),
// abort, a vanishing data agent and tapes that run full.
#include "ndmpc/ndmp/jobs/job.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "tests/support/ndmjob_server.h"
#include "tests/tools/tools_test_support.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

namespace fs = std::filesystem;
using Outcome = CNDMPJobOutcome;

// Writes the test tree under `root`: `files` small files (every tenth empty)
// in nested directories, a 20 MB file, long, spaced and non-ASCII names, and
// symbolic links; mtimes and modes vary.
void BuildTree(const std::string& root, int files, bool big) {
  const std::string longName(120, 'L');
  const std::vector<std::string> dirs = {
      "", "a", "a/b c", "a/b c/d\xC3\xA9j\xC3\xA0", "z/" + longName, "z/" + longName + "/deep"};
  for (const std::string& d : dirs) fs::create_directories(root + "/" + d);
  for (int i = 0; i < files; ++i) {
    const std::string path = root + "/" + dirs[i % dirs.size()] + "/f" + std::to_string(i) +
                             (i % 7 == 0 ? " with space \xE2\x9C\x93" : "") +
                             (i % 13 == 0 ? longName : "");
    std::ofstream(path) << std::string(i % 10 == 0 ? 0 : (i * 37) % 3000,
                                       static_cast<char>('a' + i % 26));
    ::chmod(path.c_str(), i % 3 == 0 ? 0600 : 0644);
    const struct timespec times[2] = {{1600000000 + i, 0}, {1500000000 + i * 11, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }
  if (big) WriteRandomFile(root + "/a/big.bin", 20 << 20, 7);
  fs::create_symlink("b c/f1", root + "/a/link");
  fs::create_symlink("../dangling", root + "/z/dead link");
}

// Path -> "type mode mtime size content" (link target for links).
std::map<std::string, std::string> Snapshot(const std::string& root) {
  std::map<std::string, std::string> tree;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    struct stat st {};
    ::lstat(it->path().c_str(), &st);
    std::ostringstream line;
    line << (st.st_mode & S_IFMT) << ' ' << (st.st_mode & 07777) << ' ';
    if (S_ISLNK(st.st_mode)) {
      line << fs::read_symlink(it->path()).string();
    } else if (S_ISREG(st.st_mode)) {
      line << st.st_mtime << ' ' << st.st_size << ' '
           << std::hash<std::string>()(ReadFile(it->path()));
    }
    tree["/" + fs::relative(it->path(), root).string()] = line.str();
  }
  return tree;
}

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

class CClient {
 public:
  CClient(unsigned int port, unsigned int version = 0, const char* password = "secret")
      : connection("127.0.0.1", "127.0.0.1", QuietLog(), port) {
    EXPECT_EQ(version == 0 ? connection.Connect()
                           : connection.Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(version)),
              enums::CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(connection.Authenticate("ndmp", password), enums::CNDMPError::NDMP_NO_ERR);
  }
  ~CClient() { connection.Disconnect(); }
  CNDMPConnection connection;
};

CSimServerConfig DataConfig(const std::string& root, std::uint64_t capacity = 1ull << 30) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.dataRoot = root;
  config.tapeCapacity = capacity;
  return config;
}

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
  BuildTree(root.File("src"), 2500, true);
  CSimFixture sim(DataConfig(root.Path()));
  CClient client(sim.Port(), version);
  CHistory history;
  CNDMPJobSettings s = Settings(client.connection, client.connection, "t1", type);
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

  const auto tree = Snapshot(root.File("src"));
  auto described = history.Paths();
  std::set<std::string> inTree, inHistory;
  for (const auto& entry : tree) inTree.insert(entry.first);
  for (const auto& entry : described) inHistory.insert(entry.first);
  EXPECT_EQ(inHistory, inTree);
  EXPECT_EQ(backup.historyEntries,
            std::string(type) == "tar" ? history.files.size() : history.nodes.size());

  s.environment = backup.environment;
  s.history = nullptr;
  const CNDMPJobResult whole = Restore(s, {{"/", "/dst"}});
  ASSERT_EQ(whole.outcome, Outcome::kSucceeded) << whole.error;
  EXPECT_EQ(Snapshot(root.File("dst")), tree);

  // The image on tape is a tar archive GNU tar lists entry for entry.
  const std::string image = root.File("image.tar");
  std::vector<std::string> read = sim.Target();
  read.insert(read.end(), {"tape", "read", "t1", image});
  ASSERT_EQ(RunNdmpc(read).status, 0);
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
                                           "/z/" + std::string(120, 'L') + "/deep/f5", dir};
  std::vector<CNDMPRestoreItem> items;
  for (const std::string& path : chosen) {
    ASSERT_EQ(described.count(path), 1u) << path;
    items.push_back({path, "/sel" + path, described[path]});
  }
  items.push_back({"/not/there", "/sel/not/there", 0});
  const CNDMPJobResult some = Restore(s, items);
  EXPECT_EQ(some.outcome, Outcome::kFailed);
  EXPECT_EQ(some.notFound, std::vector<std::string>{"/not/there"}) << some.error;
  EXPECT_EQ(Snapshot(root.File("sel") + dir), Snapshot(root.File("src") + dir));
  std::map<std::string, std::string> files, wanted;  // outside the directory
  for (const auto& [path, line] : Snapshot(root.File("sel"))) {
    if (line.rfind(std::to_string(S_IFREG) + " ", 0) == 0 && path.rfind(dir, 0) != 0)
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
  BuildTree(root.File("src"), 300, false);
  CSimFixture sim(DataConfig(root.Path()));
  CClient data(sim.Port());
  CClient tape(ndmjob.port(), GetParam(), ndmpc::testing::CNdmjobServer::kPassword);
  const std::string device = ndmjob.NewTape("tape0");
  CNDMPJobSettings s = Settings(data.connection, tape.connection, device);
  const CNDMPJobResult backup = CNDMPBackupJob(s).Run();
  ASSERT_EQ(backup.outcome, Outcome::kSucceeded) << backup.error << "\n" << ndmjob.Log();
  s.environment = backup.environment;
  const CNDMPJobResult restore = Restore(s, {{"/", "/dst"}});
  ASSERT_EQ(restore.outcome, Outcome::kSucceeded) << restore.error << "\n" << ndmjob.Log();
  EXPECT_EQ(Snapshot(root.File("dst")), Snapshot(root.File("src")));
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
  CSimFixture sim(DataConfig(root.Path(), 8ull << 30));
  {
    CClient client(sim.Port());
    CRunningBackup backup(client.connection, client.connection, "t1");
    ASSERT_TRUE(backup.Running());
    backup.job->Abort();
    const CNDMPJobResult r = backup.result.get();
    EXPECT_EQ(r.outcome, Outcome::kAborted) << r.error;
    EXPECT_EQ(r.dataHaltReason, enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_ABORTED);
    EXPECT_NE(r.moverHaltReason, enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_NA);
    // Both agents were stopped: the same server takes the next job at once.
    CNDMPDataGetStateRequest state;
    CNDMPMessage* reply = nullptr;
    ASSERT_EQ(client.connection.SendMessage(state, &reply, 10), enums::CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(dynamic_cast<CNDMPDataGetStateReply&>(*reply).State,
              enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE);
    client.connection.FreeMessage(reply);
  }
  // Three-way with the data agent on a server that goes away mid-backup.
  auto dataServer = std::make_unique<CSimFixture>(DataConfig(root.Path(), 8ull << 30));
  CClient data(dataServer->Port());
  CClient tape(sim.Port());
  CRunningBackup backup(data.connection, tape.connection, "t2");
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
  BuildTree(root.File("src"), 200, false);
  WriteRandomFile(root.File("src/a/large.bin"), 3 << 20, 3);
  CSimFixture sim(DataConfig(root.Path(), 2 << 20));
  CClient client(sim.Port());
  CObserver refuse;
  CNDMPJobSettings s = Settings(client.connection, client.connection, "small");
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
  EXPECT_EQ(Snapshot(root.File("dst")), Snapshot(root.File("src")));
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
