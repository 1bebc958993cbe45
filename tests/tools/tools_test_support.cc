#include "tests/tools/tools_test_support.h"

#include <dirent.h>
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
#include <fstream>
#include <random>
#include <sstream>

extern char** environ;

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

void RemoveTree(const std::string& path) {
  if (DIR* dir = ::opendir(path.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string child = path + "/" + name;
      struct stat info {};
      if (::lstat(child.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        RemoveTree(child);
      } else {
        ::unlink(child.c_str());
      }
    }
    ::closedir(dir);
  }
  ::rmdir(path.c_str());
}

class CJsonParser {
 public:
  explicit CJsonParser(const std::string& text) : text_(text) {}

  bool ParseAll(CJson* value) {
    if (!Parse(value)) return false;
    SkipSpace();
    return pos_ == text_.size();
  }

 private:
  void SkipSpace() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  bool Literal(const char* word) {
    const std::size_t n = std::strlen(word);
    if (text_.compare(pos_, n, word) != 0) return false;
    pos_ += n;
    return true;
  }
  bool ParseString(std::string* out) {
    if (text_[pos_] != '"') return false;
    ++pos_;
    while (pos_ < text_.size() && text_[pos_] != '"') {
      char c = text_[pos_++];
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        *out += c;
        continue;
      }
      if (pos_ >= text_.size()) return false;
      const char e = text_[pos_++];
      static const char kFrom[] = "\"\\/bfnrt";
      static const char kTo[] = "\"\\/\b\f\n\r\t";
      if (const char* at = std::strchr(kFrom, e); at != nullptr && e != '\0') {
        *out += kTo[at - kFrom];
        continue;
      }
      if (e != 'u' || pos_ + 4 > text_.size()) return false;
      const auto cp = static_cast<unsigned int>(std::stoul(text_.substr(pos_, 4), nullptr, 16));
      pos_ += 4;
      // Enough for the tests: code points below U+0800 as UTF-8.
      if (cp < 0x80) {
        *out += static_cast<char>(cp);
      } else if (cp < 0x800) {
        *out += static_cast<char>(0xC0 | (cp >> 6));
        *out += static_cast<char>(0x80 | (cp & 0x3F));
      } else {
        return false;
      }
    }
    if (pos_ >= text_.size()) return false;
    ++pos_;
    return true;
  }
  bool Parse(CJson* value) {
    SkipSpace();
    if (pos_ >= text_.size()) return false;
    const char c = text_[pos_];
    if (c == '{') {
      value->kind = CJson::kObject;
      ++pos_;
      SkipSpace();
      if (pos_ < text_.size() && text_[pos_] == '}') {
        ++pos_;
        return true;
      }
      for (;;) {
        SkipSpace();
        std::string key;
        if (pos_ >= text_.size() || !ParseString(&key)) return false;
        SkipSpace();
        if (pos_ >= text_.size() || text_[pos_++] != ':') return false;
        if (!Parse(&value->members[key])) return false;
        SkipSpace();
        if (pos_ >= text_.size()) return false;
        if (text_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (text_[pos_++] != '}') return false;
        return true;
      }
    }
    if (c == '[') {
      value->kind = CJson::kArray;
      ++pos_;
      SkipSpace();
      if (pos_ < text_.size() && text_[pos_] == ']') {
        ++pos_;
        return true;
      }
      for (;;) {
        value->items.emplace_back();
        if (!Parse(&value->items.back())) return false;
        SkipSpace();
        if (pos_ >= text_.size()) return false;
        if (text_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (text_[pos_++] != ']') return false;
        return true;
      }
    }
    if (c == '"') {
      value->kind = CJson::kString;
      return ParseString(&value->text);
    }
    if (Literal("true")) {
      value->kind = CJson::kBool;
      value->boolean = true;
      return true;
    }
    if (Literal("false")) {
      value->kind = CJson::kBool;
      return true;
    }
    if (Literal("null")) return true;
    const char* start = text_.c_str() + pos_;
    char* end = nullptr;
    value->number = std::strtod(start, &end);
    if (end == start) return false;
    value->kind = CJson::kNumber;
    pos_ += static_cast<std::size_t>(end - start);
    return true;
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
  if (!path_.empty()) RemoveTree(path_);
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

CSimFixture::CSimFixture(CSimServerConfig config) {
  config.tapeDir = tapes_.Path();
  server_.reset(new CNDMPSimServer(config, QuietLog()));
  std::string error;
  EXPECT_TRUE(server_->Start(&error)) << error;
}

CSimFixture::~CSimFixture() { server_->Stop(); }

std::vector<std::string> CSimFixture::Target(bool withCredentials) const {
  std::vector<std::string> args = {"-H", "127.0.0.1", "-p", std::to_string(Port())};
  if (withCredentials) {
    args.insert(args.end(), {"-u", "ndmp", "--password", "secret"});
  }
  return args;
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

CRunResult RunNdmpc(const std::vector<std::string>& args, int timeoutSeconds) {
  CRunResult result;
  int outPipe[2];
  int errPipe[2];
  if (::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) return result;
  pid_t pid = Spawn(args, outPipe, errPipe);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (pid < 0) {
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    return result;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  bool killed = false;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      ::kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (::poll(fds, 2, static_cast<int>(left)) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (pollfd& p : fds) {
    if (p.fd >= 0) ::close(p.fd);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = !killed && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
  ::close(errPipe[0]);  // the server's log is not looked at
  outFd_ = outPipe[0];
}

CBackgroundNdmpc::~CBackgroundNdmpc() {
  if (pid_ > 0) Stop(SIGKILL, 10);
  if (outFd_ >= 0) ::close(outFd_);
}

bool CBackgroundNdmpc::WaitFor(const std::string& marker, int timeoutSeconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  while (out_.find(marker) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0 || outFd_ < 0) return false;
    pollfd p{outFd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[1024];
    ssize_t n = ::read(outFd_, buffer, sizeof(buffer));
    if (n <= 0) return false;
    out_.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

int CBackgroundNdmpc::Stop(int signal, int timeoutSeconds) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, signal);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  int status = 0;
  for (;;) {
    pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) break;
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
      return -1;
    }
    ::usleep(20000);
  }
  pid_ = -1;
  char buffer[1024];
  ssize_t n;
  while (outFd_ >= 0 && (n = ::read(outFd_, buffer, sizeof(buffer))) > 0) {
    out_.append(buffer, static_cast<std::size_t>(n));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
