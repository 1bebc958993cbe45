#include "tests/tools/tools_test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "tools/cli/message_builder.h"

extern char** environ;

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

class CJsonParser {
 public:
  explicit CJsonParser(const std::string& text) : text_(text) {}
  bool ParseAll(CJson* value) { return Parse(value) && (SkipSpace(), pos_ == text_.size()); }

 private:
  void SkipSpace() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  // Consumes `c` after any space.
  bool Eat(char c) {
    SkipSpace();
    return pos_ < text_.size() && text_[pos_] == c && ++pos_ != 0;
  }
  bool Literal(const char* word) {
    const std::size_t n = std::strlen(word);
    return text_.compare(pos_, n, word) == 0 && (pos_ += n) != 0;
  }
  bool ParseString(std::string* out) {
    if (!Eat('"')) return false;
    while (pos_ < text_.size() && text_[pos_] != '"') {
      const char c = text_[pos_++];
      if (static_cast<unsigned char>(c) < 0x20 || (c == '\\' && pos_ >= text_.size())) return false;
      if (c != '\\') {
        *out += c;
        continue;
      }
      static const char kFrom[] = "\"\\/bfnrt", kTo[] = "\"\\/\b\f\n\r\t";
      const char e = text_[pos_++];
      if (const char* at = std::strchr(kFrom, e); at != nullptr && e != '\0') {
        *out += kTo[at - kFrom];
        continue;
      }
      if (e != 'u' || pos_ + 4 > text_.size()) return false;
      const auto cp = static_cast<unsigned int>(std::stoul(text_.substr(pos_, 4), nullptr, 16));
      pos_ += 4;
      // Enough for the tests: code points below U+0800 as UTF-8.
      if (cp >= 0x800) return false;
      if (cp >= 0x80) *out += static_cast<char>(0xC0 | (cp >> 6));
      *out += static_cast<char>(cp < 0x80 ? cp : 0x80 | (cp & 0x3F));
    }
    return pos_++ < text_.size();
  }
  bool Parse(CJson* value) {
    if (Eat('{')) {
      value->kind = CJson::kObject;
      if (Eat('}')) return true;
      do {
        std::string key;
        if (!ParseString(&key) || !Eat(':') || !Parse(&value->members[key])) return false;
      } while (Eat(','));
      return Eat('}');
    }
    if (Eat('[')) {
      value->kind = CJson::kArray;
      if (Eat(']')) return true;
      do {
        value->items.emplace_back();
        if (!Parse(&value->items.back())) return false;
      } while (Eat(','));
      return Eat(']');
    }
    if (pos_ < text_.size() && text_[pos_] == '"') {
      value->kind = CJson::kString;
      return ParseString(&value->text);
    }
    if (Literal("true") || Literal("false")) {
      value->kind = CJson::kBool;
      value->boolean = text_[pos_ - 1] == 'e' && text_[pos_ - 2] == 'u';
      return true;
    }
    if (Literal("null")) return true;
    const char* start = text_.c_str() + pos_;
    char* end = nullptr;
    value->number = std::strtod(start, &end);
    value->kind = CJson::kNumber;
    pos_ += static_cast<std::size_t>(end - start);
    return end != start;
  }

  const std::string& text_;
  std::size_t pos_ = 0;
};

}  // namespace

CTempDir::CTempDir() {
  char pattern[] = "/tmp/ndmpc-tools-test-XXXXXX";
  if (::mkdtemp(pattern) != nullptr) path_ = pattern;
}

CTempDir::~CTempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

VxLog& QuietLog() {
  static VxLog* log = [] {
    auto* l = new VxLog();
    l->setLevel(std::getenv("NDMPC_TEST_LOG") != nullptr ? 4 : 0);
    return l;
  }();
  return *log;
}

CSimServerConfig CSimFixture::DefaultConfig() {
  CSimServerConfig config;
  config.listenAddress = "127.0.0.1";
  config.port = 0;
  config.user = "ndmp";
  config.password = "secret";
  config.authNone = false;
  config.authText = true;
  config.authMD5 = true;
  return config;
}

CSimServerConfig CSimFixture::DataConfig(const std::string& dataRoot, std::uint64_t tapeCapacity) {
  CSimServerConfig config = DefaultConfig();
  config.dataRoot = dataRoot;
  config.tapeCapacity = tapeCapacity;
  return config;
}

CSimFixture::CSimFixture(CSimServerConfig config) {
  config.tapeDir = tapes_.Path();
  server_.reset(new CNDMPSimServer(config, QuietLog()));
  std::string error;
  EXPECT_TRUE(server_->Start(&error)) << error;
}

CSimFixture::~CSimFixture() { server_->Stop(); }

std::vector<std::string> CSimFixture::Target(bool withCredentials) const {
  const std::vector<std::string> args = {"-H", "127.0.0.1", "-p", std::to_string(Port())};
  return withCredentials ? With(args, {"-u", "ndmp", "--password", "secret"}) : args;
}

bool CClient::Open(const char* user, const char* password, unsigned int version) {
  CXDREnumBase<enums::CNDMPError> r =
      version == 0 ? connection_.Connect()
                   : connection_.Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  if (r != enums::CNDMPError::NDMP_NO_ERR) return false;
  return user == nullptr || connection_.Authenticate(user, password) == enums::CNDMPError::NDMP_NO_ERR;
}

unsigned int CClient::Ask(CNDMPMessage& request) {
  CNDMPMessage* reply = nullptr;
  unsigned int error = connection_.SendMessage(request, &reply, 10).getInt32();
  for (std::size_t i = 0; error == 0 && reply != nullptr && i < reply->GetMemberCount(); ++i) {
    if (auto* e = dynamic_cast<CXDREnumBase<enums::CNDMPError>*>(reply->GetMember(i).member)) {
      error = e->getInt32();
      break;
    }
  }
  connection_.FreeMessage(reply);
  return error;
}

unsigned int CClient::Ask(const std::string& message, const std::vector<std::string>& fields) {
  std::uint32_t code = 0;
  std::string error;
  EXPECT_TRUE(FindMessageCode(message, &code, &error)) << error;
  std::unique_ptr<CNDMPMessage> request = MakeRequest(code, connection_.GetProtocolVersion());
  for (const std::string& field : fields) {
    EXPECT_TRUE(ApplyAssignment(*request, field, &error)) << message << " " << error;
  }
  SettleVersion(*request, connection_.GetProtocolVersion());
  return Ask(*request);
}

void BuildTestTree(const std::string& root, int files, bool big) {
  const std::vector<std::string> dirs = {"",      "a", "a/b c", "a/b c/d\xC3\xA9j\xC3\xA0",
                                         "z/" + kLongName, "z/" + kLongName + "/deep", "empty"};
  for (const std::string& d : dirs) std::filesystem::create_directories(root + "/" + d);
  for (int i = 0; i < files; ++i) {
    const std::string path = root + "/" + dirs[i % (dirs.size() - 1)] + "/f" + std::to_string(i) +
                             (i % 7 == 0 ? " with space \xE2\x9C\x93" : "") +
                             (i % 13 == 0 ? kLongName : "");
    std::ofstream(path) << std::string(i % 10 == 0 ? 0 : (i * 37) % 3000,
                                       static_cast<char>('a' + i % 26));
    ::chmod(path.c_str(), i % 3 == 0 ? 0600 : 0644);
    const struct timespec times[2] = {{1600000000 + i, 0}, {1500000000 + i * 11, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }
  if (big) WriteRandomFile(root + "/a/big.bin", 20 << 20, 7);
  WriteRandomFile(root + "/a/" + std::string(100, 'n'), 513, 5);  // the longest plain tar name
  std::filesystem::create_symlink("b c/f1", root + "/a/link");
  std::filesystem::create_symlink("b c", root + "/a/dir link");
  std::filesystem::create_symlink("../dangling", root + "/z/dead link");
  const struct timespec dirTimes[2] = {{1300000000, 0}, {1200000000, 0}};
  ::chmod((root + "/a/b c").c_str(), 0700);
  ::utimensat(AT_FDCWD, (root + "/a/b c").c_str(), dirTimes, 0);
}

std::map<std::string, std::string> SnapshotTree(const std::string& root) {
  std::map<std::string, std::string> tree;
  auto add = [&](const std::string& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    std::ostringstream line;
    line << (S_ISDIR(st.st_mode) ? 'd' : S_ISLNK(st.st_mode) ? 'l' : S_ISREG(st.st_mode) ? 'f' : '?')
         << ' ' << std::oct << (st.st_mode & 07777) << std::dec << ' ';
    if (S_ISLNK(st.st_mode)) {
      line << std::filesystem::read_symlink(path).string();
    } else {
      line << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec;
    }
    if (S_ISREG(st.st_mode)) line << ' ' << st.st_size << ' ' << std::hash<std::string>()(ReadFile(path));
    tree[path.size() == root.size() ? "/" : path.substr(root.size())] = line.str();
  };
  add(root);
  for (const auto& e : std::filesystem::recursive_directory_iterator(root)) add(e.path().string());
  return tree;
}

namespace {

// Starts ndmpc with `args`, stdin from /dev/null, stdout and stderr into
// the pipes' write ends (which the caller closes); the pid, or -1.
pid_t Spawn(const std::vector<std::string>& args, int outPipe[2], int errPipe[2]) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  posix_spawn_file_actions_addclose(&actions, outPipe[0]);
  posix_spawn_file_actions_addclose(&actions, errPipe[0]);
  std::vector<std::string> argStrings = {NDMPC_BINARY};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : argStrings) argv.push_back(&s[0]);
  argv.push_back(nullptr);
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "NDMP_", 5) != 0) envStrings.push_back(*e);
  }
  std::vector<char*> envp;
  for (std::string& s : envStrings) envp.push_back(&s[0]);
  envp.push_back(nullptr);
  pid_t pid = -1;
  int spawned = posix_spawn(&pid, NDMPC_BINARY, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

}  // namespace

std::vector<std::string> With(std::vector<std::string> base, const std::vector<std::string>& more) {
  base.insert(base.end(), more.begin(), more.end());
  return base;
}

CRunResult RunNdmpc(const std::vector<std::string>& args, int timeoutSeconds) {
  CBackgroundNdmpc run(args);
  CRunResult result;
  result.status = run.Wait(timeoutSeconds);
  result.out = run.Output();
  result.err = run.Errors();
  return result;
}

CBackgroundNdmpc::CBackgroundNdmpc(const std::vector<std::string>& args) {
  int outPipe[2];
  int errPipe[2];
  if (::pipe(outPipe) != 0) return;
  if (::pipe(errPipe) != 0) {
    ::close(outPipe[0]);
    ::close(outPipe[1]);
    return;
  }
  pid_ = Spawn(args, outPipe, errPipe);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  fds_[0] = outPipe[0];
  fds_[1] = errPipe[0];
}

CBackgroundNdmpc::~CBackgroundNdmpc() {
  if (pid_ > 0) Stop(SIGKILL, 10);
  for (int fd : fds_) {
    if (fd >= 0) ::close(fd);
  }
}

bool CBackgroundNdmpc::Pump(const std::function<bool()>& done, int timeoutSeconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  std::string* sinks[2] = {&out_, &err_};
  while (!done()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0 || (fds_[0] < 0 && fds_[1] < 0)) return false;
    pollfd polled[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
    if (::poll(polled, 2, static_cast<int>(left)) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds_[i] < 0 || polled[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(fds_[i], buffer, sizeof(buffer));
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else {
        ::close(fds_[i]);
        fds_[i] = -1;
      }
    }
  }
  return true;
}

bool CBackgroundNdmpc::WaitFor(const std::string& marker, int timeoutSeconds) {
  return Pump([&] { return out_.find(marker) != std::string::npos; }, timeoutSeconds);
}

int CBackgroundNdmpc::Wait(int timeoutSeconds) {
  if (pid_ <= 0) return -1;
  const bool ended = Pump([this] { return fds_[0] < 0 && fds_[1] < 0; }, timeoutSeconds);
  if (!ended) ::kill(pid_, SIGKILL);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int CBackgroundNdmpc::Stop(int signal, int timeoutSeconds) {
  if (pid_ > 0) ::kill(pid_, signal);
  return Wait(timeoutSeconds);
}

std::string WriteRandomFile(const std::string& path, std::size_t size, unsigned int seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random());
  std::ofstream(path, std::ios::binary).write(data.data(), static_cast<std::streamsize>(size));
  return data;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream buffer;
  buffer << file.rdbuf();
  return buffer.str();
}

const CJson& CJson::operator[](const std::string& key) const {
  static const CJson null;
  auto it = members.find(key);
  return it == members.end() ? null : it->second;
}

const CJson& CJson::operator[](std::size_t index) const {
  static const CJson null;
  return index < items.size() ? items[index] : null;
}

bool ParseJson(const std::string& text, CJson* value) {
  *value = CJson();
  return CJsonParser(text).ParseAll(value);
}

}  // namespace com::vx::korvane::ndmpc::tools::testing
