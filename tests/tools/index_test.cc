// The backup index end to end: backups of a generated tree through the
// simulated server with path-based and node-based history, browsed and
// restored from the index by the ndmpc binary; node-based history in hostile
// orders; a writer killed mid-backup; bad input that must change nothing.
#include "tools/index/backup_index.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "tests/tools/tools_test_support.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

namespace fs = std::filesystem;

// Name -> "type mode size mtime", from the file system or from `ls --json`.
using CListing = std::map<std::string, std::string>;

std::string Describe(const std::string& type, double mode, double size, double mtime) {
  char text[128];
  std::snprintf(text, sizeof text, "%s %.0f %.0f %.0f", type.c_str(), mode, size, mtime);
  return text;
}

CListing ListDirectory(const std::string& dir) {
  CListing listing;
  for (const auto& item : fs::directory_iterator(dir)) {
    struct stat st {};
    ::lstat(item.path().c_str(), &st);
    const char* type = S_ISDIR(st.st_mode) ? "dir" : S_ISLNK(st.st_mode) ? "symlink" : "file";
    listing[item.path().filename().string()] =
        Describe(type, st.st_mode & 07777, S_ISREG(st.st_mode) ? st.st_size : 0, st.st_mtime);
  }
  return listing;
}

CListing ListIndexed(const std::string& index, const std::string& id, const std::string& dir) {
  CRunResult r = RunNdmpc({"index", index, "ls", id, dir, "--json"});
  CJson json;
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(ParseJson(r.out, &json)) << r.out;
  CListing listing;
  for (const CJson& e : json["entries"].items) {
    listing[e["path"].text.substr(e["path"].text.find_last_of('/') + 1)] =
        Describe(e["type"].text, e["mode"].number, e["size"].number, e["mtime"].number);
  }
  return listing;
}

TEST(IndexCli, BackupsListAsTheTreeAndRestoreExactlyTheChosenPaths) {
  CTempDir root;
  const std::string src = root.File("src"), index = root.File("backups.db");
  BuildTestTree(src, 60, false);
  const std::string deep = "/z/" + kLongName + "/deep";
  CSimFixture sim(CSimFixture::DataConfig(root.Path()));
  const std::vector<std::string> types = {"tar", "dump"};  // path-based, node-based history
  for (std::size_t b = 0; b < types.size(); ++b) {
    SCOPED_TRACE(types[b]);
    CRunResult r = RunNdmpc(With(sim.Target(), {"backup", "/src", "--tape", "t" + types[b], "--type",
                                                 types[b], "--index", index, "--json"}));
    CJson backup, restore;
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(ParseJson(r.out, &backup)) << r.out;
    const std::string id = std::to_string(b + 1);
    for (const auto& item : fs::recursive_directory_iterator(src)) {
      if (!item.is_directory() || item.is_symlink()) continue;
      const std::string dir = "/" + fs::relative(item.path(), src).string();
      EXPECT_EQ(ListIndexed(index, id, dir), ListDirectory(item.path())) << dir;
    }
    EXPECT_EQ(ListIndexed(index, id, "/"), ListDirectory(src));
    EXPECT_EQ(ListIndexed(index, id, "/a/f1"), (CListing{{"f1", ListDirectory(src + "/a")["f1"]}}));

    // Two files and a directory, read at their offsets into the image.
    const std::string to = "/sel-" + types[b];
    r = RunNdmpc(With(sim.Target(), {"restore", "--index", index, "--backup", id, "/a/f1", "a/b c",
                                     deep + "/f5", "--to", to, "--json"}));
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(ParseJson(r.out, &restore)) << r.out;
    // Only the chosen parts of the image were read, each at its offset.
    EXPECT_LT(restore["bytes"].number, backup["bytes"].number / 2);
    EXPECT_EQ(r.err.find("not at image offset"), std::string::npos) << r.err;
    std::set<std::string> restored, expected = {"/a/f1", deep + "/f5"};
    for (const auto& item : fs::recursive_directory_iterator(root.File(to.substr(1)))) {
      if (!item.is_directory()) restored.insert(item.path().string().substr(root.Path().size() + to.size()));
    }
    for (const auto& item : fs::recursive_directory_iterator(src + "/a/b c")) {
      if (!item.is_directory()) expected.insert(item.path().string().substr(src.size()));
    }
    EXPECT_EQ(restored, expected);
    for (const std::string& path : expected) {
      EXPECT_EQ(ReadFile(root.File(to.substr(1)) + path), ReadFile(src + path)) << path;
    }
  }
  CRunResult found = RunNdmpc({"index", index, "find", "/z/*/deep/f*", "--json"});
  CJson json;
  ASSERT_TRUE(ParseJson(found.out, &json)) << found.out << found.err;
  ASSERT_EQ(json["matches"].items.size(), 2 * ListDirectory(src + deep).size());
  EXPECT_EQ(json["matches"][0]["backup"].number, 1);
  EXPECT_EQ(json["matches"].items.back()["backup"].number, 2);
}

// Entries of a node-based history, fed to a writer in the order given.
struct CNodeCase {
  const char* what;
  std::vector<CNDMPHistoryDir> dirs;  // all before the nodes
  std::set<std::string> paths;        // the paths the index holds afterwards
};

TEST(BackupIndex, NodeHistoryInAnyOrderResolvesToPaths) {
  const std::vector<CNodeCase> cases = {
      {"children before their directories, with . and .. entries",
       {{"f", 5, 3}, {"..", 2, 3}, {".", 3, 3}, {"b", 3, 2}, {"a", 2, 1}, {".", 1, 1}, {"g", 6, 1}},
       {"/", "/a", "/a/b", "/a/b/f", "/g"}},
      {"a hard link keeps both names",
       {{".", 1, 1}, {"d", 2, 1}, {"x", 3, 2}, {"y", 3, 1}},
       {"/", "/d", "/d/x", "/y"}},
      {"a loop and an orphan stay out",
       {{".", 1, 1}, {"ok", 2, 1}, {"p", 7, 8}, {"q", 8, 7}, {"r", 9, 7}, {"lost", 4, 40}},
       {"/", "/ok"}},
  };
  for (const CNodeCase& c : cases) {
    SCOPED_TRACE(c.what);
    CTempDir dir;
    std::string error;
    auto index = CBackupIndex::Open(dir.File("i.db"), CBackupIndex::kCreate, &error);
    ASSERT_TRUE(index) << error;
    CIndexWriter writer(*index, 2);  // commits every two entries
    ASSERT_TRUE(writer.Begin(CIndexBackup(), &error)) << error;
    std::set<std::uint64_t> nodes;
    for (const CNDMPHistoryDir& d : c.dirs) writer.AddDir(d), nodes.insert(d.node);
    for (std::uint64_t node : nodes) writer.AddNode({CNDMPHistoryStat{}, node, node * 512});
    CIndexBackup end;
    end.outcome = "succeeded";
    ASSERT_TRUE(writer.Finish(end, &error)) << error;
    std::vector<std::pair<std::int64_t, CIndexEntry>> found;
    ASSERT_TRUE(index->Find("*", &found, &error)) << error;
    std::set<std::string> paths;
    for (const auto& entry : found) paths.insert(entry.second.path);
    EXPECT_EQ(paths, c.paths);
  }
}

TEST(IndexCli, KilledBackupStaysIncompleteAndBadInputChangesNothing) {
  CTempDir dir;
  const std::string index = dir.File("i.db"), missing = dir.File("none.db");
  const std::string corrupt = dir.File("bad.db");
  WriteRandomFile(corrupt, 8192, 3);
  const pid_t child = ::fork();
  if (child == 0) {  // a backup that dies after some batches were committed
    std::string error;
    auto opened = CBackupIndex::Open(index, CBackupIndex::kCreate, &error);
    CIndexWriter writer(*opened, 100);
    writer.Begin(CIndexBackup(), &error);
    for (int i = 0; i < 1050; ++i) writer.AddFile({"/f" + std::to_string(i), {}, 0, 0});
    ::kill(::getpid(), SIGKILL);
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  CRunResult list = RunNdmpc({"index", index, "list", "--json"});
  CJson json;
  ASSERT_TRUE(ParseJson(list.out, &json)) << list.out << list.err;
  ASSERT_EQ(json["backups"].items.size(), 1u);
  EXPECT_EQ(json["backups"][0]["outcome"].text, "incomplete");
  {  // the next backup of the same index completes
    std::string error;
    auto opened = CBackupIndex::Open(index, CBackupIndex::kCreate, &error);
    CIndexWriter writer(*opened);
    CIndexBackup end;
    end.outcome = "succeeded";
    ASSERT_TRUE(writer.Begin(end, &error)) << error;
    writer.AddFile({"/f1", {}, 0, 0});
    ASSERT_TRUE(writer.Finish(end, &error)) << error;
  }

  const std::string before = ReadFile(index), garbage = ReadFile(corrupt);
  struct CBadInput {
    std::vector<std::string> args;
    int status;
    const char* message;
  };
  const std::vector<CBadInput> table = {
      {{"index", missing, "list"}, 1, "No such file"},
      {{"index", corrupt, "find", "*"}, 1, "is not an ndmpc backup index"},
      {{"index", index, "ls", "7"}, 1, "no backup 7"},
      {{"index", index, "ls", "1", "/f1/x"}, 1, "no /f1/x in backup 1"},
      {{"index", index, "ls", "one"}, 2, "needs a backup id"},
      {{"index", index, "find", "*.none"}, 1, "matches '*.none'"},
      {{"index", index, "drop"}, 2, "see ndmpc index --help"},
      {{"restore", "--index", missing, "--backup", "1", "/f1"}, 1, "No such file"},
      {{"restore", "--index", index, "--backup", "1", "/f1", "--to", "/r"}, 1, "(incomplete)"},
      {{"restore", "--index", index, "--backup", "9", "/f1"}, 1, "no backup 9"},
      {{"restore", "--index", index, "--backup", "2", "/f1", "/f2"}, 1, "no /f2 in backup 2"},
      {{"restore", "--index", index, "/f1"}, 2, "needs --backup ID"},
      {{"backup", "/src", "--tape", "t", "--index", corrupt}, 1, "not an ndmpc backup index"},
  };
  for (const CBadInput& row : table) {
    CRunResult r = RunNdmpc(row.args);
    EXPECT_EQ(r.status, row.status) << row.args[0] << " " << row.args[2] << ": " << r.err;
    EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
  }
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_EQ(ReadFile(corrupt), garbage);
  EXPECT_EQ(ReadFile(index), before);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
