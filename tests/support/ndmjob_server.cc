#include "tests/support/ndmjob_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_socket.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using Clock = std::chrono::steady_clock;

bool IsExecutable(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

// A port that nothing listens on right now (the server may still lose it to
// another process before it binds; Start tries again then).
unsigned int FreePort() {
  VxTcpListener probe;
  if (probe.listen("127.0.0.1", 0) != 0) return 0;
  unsigned int port = probe.port();
  probe.close();
  return port;
}

int RemainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::string FindExecutable(const std::string& name, const std::string& moreDirs) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(std::string(path != nullptr ? path : "") + ":" + moreDirs);
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && IsExecutable(dir + "/" + name)) return dir + "/" + name;
  }
  return "";
}

std::string CNdmjobServer::FindProgram() {
  if (const char* env = std::getenv("NDMJOB"); env != nullptr && *env != '\0') {
    return IsExecutable(env) ? env : "";
  }
  return FindExecutable("ndmjob", "/usr/lib/amanda");  // the Debian package's own directory
}

bool CNdmjobServer::Start(int timeoutMs) {
  Stop();
  error_.clear();
  const std::string program = FindProgram();
  if (program.empty()) {
    error_ = "ndmjob is not installed";
    return false;
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "ndmpc-ndmjob-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    error_ = std::string("mkdtemp: ") + std::strerror(errno);
    return false;
  }
  directory_ = pattern;
  std::ofstream(directory_ + "/ndmjob.conf").close();
  // A port can be taken between probing and binding: a few fresh tries.
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (StartOnce(program, timeoutMs)) return true;
  }
  std::string why = error_;
  Stop();
  error_ = why;
  return false;
}

bool CNdmjobServer::StartOnce(const std::string& program, int timeoutMs) {
  port_ = FreePort();
  if (port_ == 0) {
    error_ = "no free port";
    return false;
  }
  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    error_ = std::string("pipe: ") + std::strerror(errno);
    for (int fd : {in[0], in[1], out[0], out[1]}) {
      if (fd >= 0) ::close(fd);
    }
    return false;
  }
  // Everything the child needs is prepared before fork: after it only
  // async-signal-safe calls are made.
  const std::string config = "config-file=" + directory_ + "/ndmjob.conf";
  const std::string port = std::to_string(port_);
  const std::string log = directory_ + "/ndmjob.log";
  std::vector<std::string> args = {program, "-o", config, "-o", "test-daemon", "-p", port};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const long maxFd = ::sysconf(_SC_OPEN_MAX) > 0 ? ::sysconf(_SC_OPEN_MAX) : 1024;

  pid_t pid = ::fork();
  if (pid == 0) {
    int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (::dup2(in[0], 0) < 0 || ::dup2(out[1], 1) < 0 || err < 0 || ::dup2(err, 2) < 0 ||
        ::chdir(directory_.c_str()) != 0) {
      ::_exit(127);
    }
    // Sockets of the test process must not live on in the server.
    for (long fd = 3; fd < maxFd && fd < 65536; ++fd) ::close(static_cast<int>(fd));
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  if (pid < 0) {
    error_ = std::string("fork: ") + std::strerror(errno);
    ::close(in[1]);
    ::close(out[0]);
    return false;
  }
  pid_ = pid;
  stdinFd_ = in[1];
  stdoutFd_ = out[0];

  std::string seen;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (seen.find("READY") != std::string::npos) return true;
    int left = RemainingMs(deadline);
    if (left == 0) {
      error_ = "ndmjob printed no READY within " + std::to_string(timeoutMs) + " ms";
      break;
    }
    pollfd p{stdoutFd_, POLLIN, 0};
    int r = ::poll(&p, 1, left);
    if (r <= 0) continue;  // interrupted, or time is checked above
    char chunk[256];
    ssize_t n = ::read(stdoutFd_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error_ = "ndmjob ended before READY; its log: " + Log();
      break;
    }
    seen.append(chunk, static_cast<std::size_t>(n));
  }
  Reap(2000);
  return false;
}

void CNdmjobServer::Reap(int timeoutMs) {
  if (stdinFd_ >= 0) {
    ::close(stdinFd_);  // the server's signal to end
    stdinFd_ = -1;
  }
  if (pid_ > 0) {
    // Polling the exit of an outside process: bounded, then escalated.
    auto waitFor = [this](int ms) {
      const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(ms);
      for (;;) {
        pid_t r = ::waitpid(pid_, nullptr, WNOHANG);
        if (r == pid_ || (r < 0 && errno != EINTR)) return true;
        if (RemainingMs(deadline) == 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    };
    if (!waitFor(timeoutMs)) {
      ::kill(pid_, SIGTERM);
      if (!waitFor(2000)) {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
      }
    }
    pid_ = -1;
  }
  if (stdoutFd_ >= 0) {
    ::close(stdoutFd_);
    stdoutFd_ = -1;
  }
}

void CNdmjobServer::Stop() {
  Reap(3000);
  if (!directory_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    directory_.clear();
  }
  port_ = 0;
}

std::string CNdmjobServer::Log() const {
  if (directory_.empty()) return "";
  std::ifstream in(directory_ + "/ndmjob.log");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string CNdmjobServer::NewTape(const std::string& name) const {
  std::string path = directory_ + "/" + name;
  std::ofstream(path, std::ios::trunc).close();
  return path;
}

}  // namespace com::vx::korvane::ndmpc::testing
