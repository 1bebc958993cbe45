// The simulator's data engine on a generated tree: the image against GNU
// tar, whole and selective restores, both history shapes, and refusals.
#include "tools/simulator/data_engine.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "tests/tools/tools_test_support.h"
#include "tools/simulator/tar_image.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

using testing::CTempDir;
using testing::ReadFile;
using testing::WriteRandomFile;
using Tree = std::map<std::string, std::string>;  // path -> mode, mtime, size, content
using Log = std::vector<std::pair<int, std::string>>;
constexpr std::uint64_t kAll = ~0ull;

std::set<std::string> Paths(const Tree& tree) {
  std::set<std::string> paths;
  for (const auto& entry : tree) paths.insert(entry.first);
  return paths;
}

std::set<std::string> Paths(const std::vector<CSimFileEntry>& entries) {
  std::set<std::string> paths;
  for (const auto& entry : entries) paths.insert(entry.path);
  return paths;
}

// The part of `tree` at and below `item`, renamed as restored to `to`.
Tree Part(const Tree& tree, const std::string& item, const std::string& to) {
  Tree part;
  for (const auto& [path, line] : tree) {
    if (path == item || path.rfind(item + "/", 0) == 0) part[to + path.substr(item.size())] = line;
  }
  return part;
}

struct CImage {
  std::string bytes;
  std::vector<CSimFileEntry> files, dirs, nodes;
  Log logs;
};

// Backs `root` up into memory; `writeOk` (given the bytes so far) may refuse a write.
CSimHaltReason Backup(const std::string& root, bool nodeHistory, CImage* image,
                      std::function<bool(std::size_t)> writeOk = nullptr) {
  std::atomic<std::uint64_t> bytes{0};
  CSimBackupJob job;
  job.hostRoot = root, job.history = true, job.nodeHistory = nodeHistory, job.historyBatch = 64;
  job.bytes = &bytes;
  job.write = [&](const void* p, std::size_t n) {
    if (writeOk && !writeOk(image->bytes.size())) return false;
    image->bytes.append(static_cast<const char*>(p), n);
    return true;
  };
  auto keep = [](std::vector<CSimFileEntry>* to) {
    return [to](const std::vector<CSimFileEntry>& batch) {
      EXPECT_LE(batch.size(), 64u);
      to->insert(to->end(), batch.begin(), batch.end());
    };
  };
  job.files = keep(&image->files), job.dirs = keep(&image->dirs), job.nodes = keep(&image->nodes);
  job.log = [image](int level, const std::string& text) { image->logs.emplace_back(level, text); };
  CSimHaltReason how = RunBackup(job);
  EXPECT_EQ(bytes.load(), image->bytes.size());
  return how;
}

// Serves an image to a recover job as the data agent would, in small reads,
// recording the requests and checking each bounded one was read in full.
struct CFeed {
  const std::string& image;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> requests = {};
  std::uint64_t pos = 0, end = 0;
  Log logs = {};

  CSimHaltReason Recover(CSimRecoverJob job) {
    job.request = [this](std::uint64_t offset, std::uint64_t length) {
      EXPECT_TRUE(requests.empty() || (requests.back().second != kAll && pos == end));
      requests.emplace_back(offset, length);
      pos = offset;
      end = length == kAll ? image.size() : offset + length;
      return end <= image.size();
    };
    job.read = [this](void* buffer, std::size_t length) -> long {
      std::size_t n = std::min<std::size_t>({length, end - pos, 5000});
      std::memcpy(buffer, image.data() + pos, n);
      pos += n;
      return static_cast<long>(n);
    };
    job.log = [this](int level, const std::string& text) { logs.emplace_back(level, text); };
    return RunRecover(job);
  }
};

class DataEngine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    source_ = new CTempDir;
    testing::BuildTestTree(source_->Path(), 300, true);
    tree_ = new Tree(testing::SnapshotTree(source_->Path()));
    image_ = new CImage;
    ASSERT_EQ(Backup(source_->Path(), false, image_), CSimHaltReason::kSuccessful);
    for (const CSimFileEntry& e : image_->files) fh_[e.path] = e.fhInfo;
  }
  static void TearDownTestSuite() { delete source_, delete tree_, delete image_; }
  static inline CTempDir* source_;
  static inline Tree* tree_;
  static inline CImage* image_;
  static inline std::map<std::string, std::uint64_t> fh_;
};

TEST_F(DataEngine, ImageIsReadByGnuTarRestoresWholeAndItsHistoryDescribesTheTree) {
  // GNU tar extracts every entry with its mode, times, size, content and link.
  CTempDir out;
  std::ofstream(out.File("image.tar"), std::ios::binary) << image_->bytes;
  ASSERT_EQ(mkdir(out.File("gnu").c_str(), 0755), 0);
  ASSERT_EQ(std::system(("tar -x -f " + out.File("image.tar") + " -C " + out.File("gnu")).c_str()),
            0);
  EXPECT_EQ(Paths(image_->files), Paths(*tree_));
  EXPECT_EQ(testing::SnapshotTree(out.File("gnu")), *tree_);

  CFeed feed{image_->bytes};
  CSimRecoverJob job;
  job.items = {{"/", out.File("engine"), kAll}};
  ASSERT_EQ(feed.Recover(job), CSimHaltReason::kSuccessful);
  EXPECT_EQ(testing::SnapshotTree(out.File("engine")), *tree_);
  EXPECT_EQ(feed.requests, (decltype(feed.requests){{0, kAll}}));

  // Path-based history from the backup and from reading the image back agree
  // on every entry's stat and offset; nodes are the files' inodes.
  CFeed history{image_->bytes};
  job = CSimRecoverJob();
  job.historyOnly = true;
  std::vector<CSimFileEntry> reread;
  job.files = [&](auto& batch) { reread.insert(reread.end(), batch.begin(), batch.end()); };
  ASSERT_EQ(history.Recover(job), CSimHaltReason::kSuccessful);
  ASSERT_EQ(reread.size(), image_->files.size());
  for (std::size_t i = 0; i < reread.size(); ++i) {
    const CSimFileEntry &a = image_->files[i], &b = reread[i];
    EXPECT_EQ(std::tie(a.path, a.type, a.mode, a.size, a.mtime, a.fhInfo),
              std::tie(b.path, b.type, b.mode, b.size, b.mtime, b.fhInfo));
    struct stat st;
    lstat((source_->Path() + a.path).c_str(), &st);
    EXPECT_EQ(a.node, st.st_ino) << a.path;
  }
  // Node-based: the directory entries rebuild every path, each node once.
  CImage nodes;
  ASSERT_EQ(Backup(source_->Path(), true, &nodes), CSimHaltReason::kSuccessful);
  EXPECT_EQ(nodes.bytes, image_->bytes);
  std::map<std::uint64_t, std::string> pathOf;
  for (const CSimFileEntry& e : nodes.dirs) {  // a directory comes before its entries
    EXPECT_EQ(e.name == ".", e.parent == e.node) << e.path;
    std::string parent = e.name == "." ? "" : pathOf.at(e.parent);
    pathOf[e.node] = e.name == "." ? "/" : (parent == "/" ? "" : parent) + "/" + e.name;
  }
  std::set<std::string> paths;
  for (const CSimFileEntry& e : nodes.nodes) {
    EXPECT_TRUE(paths.insert(pathOf.at(e.node)).second);
    EXPECT_EQ(e.fhInfo, fh_.at(pathOf.at(e.node)));
  }
  EXPECT_EQ(nodes.dirs.size(), tree_->size());
  EXPECT_EQ(paths, Paths(*tree_));
}

TEST_F(DataEngine, SelectiveRestoreReadsOnlyWhatItNeeds) {
  const std::string deep = "/z/" + testing::kLongName + "/deep/f5";
  const std::uint64_t kRight = 0, kWrong = 1;        // kWrong: the offset of another entry
  std::uint64_t emptyHeader = image_->bytes.size();  // a directory's header ends at the next one
  for (const auto& [p, f] : fh_) {
    if (f > fh_.at("/empty")) emptyHeader = std::min(emptyHeader, f - fh_.at("/empty"));
  }
  struct {
    std::vector<std::pair<std::string, std::uint64_t>> items;  // original, fhInfo
    std::uint64_t slack;  // bounded bytes read beyond the items' own headers and data
    bool wholePass;       // ends with one request for the whole image
  } cases[] = {
      {{{"/a/f1", kRight}, {"/a/b c/d\xC3\xA9j\xC3\xA0/f3", kRight}, {deep, kRight}}, 0, false},
      {{{"/a/big.bin", kRight}, {"/z/" + testing::kLongName, kRight}}, kAll, false},  // to its end
      {{{"/a", kRight}, {deep, kRight}}, emptyHeader, false},  // read past its end
      {{{deep, kWrong}, {"/a/b c", kRight}}, kAll, true},
      {{{"/z", kAll}}, kAll, true},
  };
  for (const auto& c : cases) {
    CTempDir out;
    CSimRecoverJob job;
    Tree expected;
    std::uint64_t needed = 0;
    for (const auto& [path, fh] : c.items) {
      std::string to = "/restored" + std::to_string(job.items.size());
      std::uint64_t at = fh_.at(path), next = image_->bytes.size();
      job.items.push_back({path, out.Path() + to, fh == kRight ? at : fh == kWrong ? 0 : kAll});
      Tree part = Part(*tree_, path, to), inside = Part(*tree_, path, path);
      expected.insert(part.begin(), part.end());
      for (const auto& [p, f] : fh_) next = f > at && !inside.count(p) ? std::min(next, f) : next;
      needed += next - at;
    }
    CFeed feed{image_->bytes};
    ASSERT_EQ(feed.Recover(job), CSimHaltReason::kSuccessful) << c.items[0].first;
    Tree restored = testing::SnapshotTree(out.Path());
    restored.erase("/");
    EXPECT_EQ(restored, expected) << c.items[0].first;
    std::uint64_t bounded = 0;
    for (std::size_t i = 0; i < feed.requests.size(); ++i) {
      bool toEnd = feed.requests[i].second == kAll;
      EXPECT_TRUE(!toEnd || i + 1 == feed.requests.size()) << c.items[0].first;
      bounded += toEnd ? 0 : feed.requests[i].second;
    }
    EXPECT_EQ(feed.requests.back() == std::make_pair(std::uint64_t{0}, kAll), c.wholePass);
    EXPECT_TRUE(c.slack == kAll || bounded == needed + c.slack) << c.items[0].first << bounded;
  }
}

TEST(TarImage, HeadersCarryWhatUstarFieldsCannotHold) {
  std::string longName = "./" + std::string(200, 'x') + "/" + std::string(101, 'y');
  CTarEntry cases[] = {
      {"./a/b", "", '0', 0755, 1, 2, 0, 1700000000},
      {"./sparse.img", "", '0', 0600, 0, 0, (std::uint64_t{8} << 30) + 1, -86400},
      {"./Grüße/", "", '5', 0700, 1u << 30, 4000000000u, 0, std::int64_t{1} << 40},
      {"./link", longName, '2', 0777, 0, 0, 0, 0},
      {longName, "", '0', 04755, 7, 7, 12345, 1, 999999999},
      {"./before 1970", "", '0', 0644, 0, 0, 0, -5, 250000000},
  };
  for (const CTarEntry& e : cases) {
    std::string blocks = EncodeTarHeader(e), error;
    std::size_t at = 0;
    auto readExact = [&](void* p, std::size_t n) {
      if (at + n > blocks.size()) return false;
      std::memcpy(p, blocks.data() + at, n);
      at += n;
      return true;
    };
    CTarEntry back;
    ASSERT_EQ(ReadTarHeader(readExact, &back, &error), CTarRead::kEntry) << e.name << error;
    EXPECT_EQ(at, blocks.size()) << e.name;
    EXPECT_EQ(
        std::tie(back.name, back.linkName, back.type, back.mode, back.uid, back.gid, back.size,
                 back.mtime, back.mtimeNsec),
        std::tie(e.name, e.linkName, e.type, e.mode, e.uid, e.gid, e.size, e.mtime, e.mtimeNsec));
  }
}

TEST(DataEngineRefusals, ResolveUnderRootKeepsInsideTheRoot) {
  CTempDir dir;
  std::string root = dir.File("root");
  std::filesystem::create_directories(root + "/in");
  mkdir(dir.File("out").c_str(), 0755);
  symlink("../out", (root + "/escape").c_str());
  symlink("in", (root + "/alias").c_str());
  WriteRandomFile(root + "/in/file", 10, 1);
  struct {
    std::string path;
    bool mustExist;
    std::string host;  // empty: refused
  } cases[] = {
      {"/", true, root},
      {"/in/./file", true, root + "/in/file"},
      {"/alias/file", true, root + "/in/file"},
      {"/in/new/deeper", false, root + "/in/new/deeper"},
      {"/in/new", true, ""},
      {"/in/../../out", false, ""},
      {"/escape", true, ""},
      {"/escape/new", false, ""},
      {"/in/file/below", false, ""},
      {"relative", false, ""},
  };
  for (const auto& c : cases) {
    std::string host, error;
    bool ok = ResolveUnderRoot(root, c.path, c.mustExist, &host, &error);
    EXPECT_EQ(ok ? host : error.empty() ? "no error" : "", c.host) << c.path << ": " << error;
  }
}

TEST(DataEngineRefusals, HostileImagesAndFailuresEndCleanly) {
  CTempDir dir;
  std::string image;
  auto add = [&](const std::string& name, char type, const std::string& link, std::string data) {
    CTarEntry e{name, link, type, 0644, 0, 0, data.size(), 0};
    data.resize(TarPadded(data.size()));
    image += EncodeTarHeader(e) + data;
  };
  mkdir(dir.File("outside").c_str(), 0755);
  add("../escaped", '0', "", "x");
  add("./a/../../escaped", '0', "", "x");
  add("/abs/file", '0', "", "kept");
  add("./planted", '2', dir.File("outside"), "");
  add("./planted/pwned", '0', "", "x");
  image += std::string(1024, '\0');
  CFeed feed{image};
  CSimRecoverJob job;
  job.items = {{"/", dir.File("dest"), kAll}};
  EXPECT_EQ(feed.Recover(job), CSimHaltReason::kInternalError);  // the planted file failed
  EXPECT_EQ(ReadFile(dir.File("dest/abs/file")), "kept");
  EXPECT_TRUE(std::filesystem::is_empty(dir.File("outside")));
  EXPECT_FALSE(std::filesystem::exists(dir.File("escaped")));
  EXPECT_EQ(std::count_if(feed.logs.begin(), feed.logs.end(), [](auto& l) { return l.first == 1; }),
            4);

  std::string truncated = image.substr(0, 700), corrupt = image;
  corrupt[3] ^= 1;
  EXPECT_EQ(CFeed{truncated}.Recover(job), CSimHaltReason::kConnectError);
  EXPECT_EQ(CFeed{corrupt}.Recover(job), CSimHaltReason::kInternalError);

  // A file that vanishes after the walk listed it and a FIFO are skipped with
  // a warning; a peer that stops taking the image, and an abort, end the backup.
  std::string src = dir.File("src");
  mkdir(src.c_str(), 0755);
  WriteRandomFile(src + "/a", 1 << 20, 1);
  WriteRandomFile(src + "/vanishes", 10, 2);
  ASSERT_EQ(mkfifo((src + "/fifo").c_str(), 0644), 0);
  CImage skipped, refused;
  auto removeOnce = [&](std::size_t) { return unlink((src + "/vanishes").c_str()) == 0 || true; };
  ASSERT_EQ(Backup(src, false, &skipped, removeOnce), CSimHaltReason::kSuccessful);
  EXPECT_EQ(Paths(skipped.files), (std::set<std::string>{"/", "/a"}));
  EXPECT_EQ(skipped.logs.size(), 4u);  // start, two warnings, end
  EXPECT_EQ(Backup(src, false, &refused, [](std::size_t n) { return n < 300000; }),
            CSimHaltReason::kConnectError);
  std::atomic<bool> abort{true};
  CSimBackupJob aborted;
  aborted.hostRoot = src, aborted.abort = &abort;
  EXPECT_EQ(RunBackup(aborted), CSimHaltReason::kAborted);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools
