// Test support: the ndmjob NDMP server of the amanda-server package, run as
// an independent peer on this machine for interoperability suites.
//
//   CNdmjobServer server;
//   if (CNdmjobServer::FindProgram().empty()) GTEST_SKIP() << "ndmjob not installed";
//   ASSERT_TRUE(server.Start()) << server.error();
//   CNDMPConnection c("127.0.0.1", "127.0.0.1", log, server.port());
//   std::string tape = server.NewTape("tape0");   // an empty simulated tape
//
// Each server runs in test-daemon mode with an empty configuration file, in
// a fresh temporary directory that also holds its log and the tapes made
// with NewTape; it is stopped by closing its standard input, then by
// SIGTERM and SIGKILL to its own PID if it lingers. Every wait is bounded.
// Its credentials are user "ndmp", password "ndmp".
#pragma once

#include <sys/types.h>

#include <string>

namespace com::vx::korvane::ndmpc::testing {

// The first executable file `name` in the PATH's directories, then in
// `moreDirs` (colon-separated); "" when there is none.
std::string FindExecutable(const std::string& name, const std::string& moreDirs = "");

class CNdmjobServer {
 public:
  static constexpr const char* kUser = "ndmp";
  static constexpr const char* kPassword = "ndmp";

  CNdmjobServer() = default;
  ~CNdmjobServer() { Stop(); }
  CNdmjobServer(const CNdmjobServer&) = delete;
  CNdmjobServer& operator=(const CNdmjobServer&) = delete;

  // The ndmjob program: $NDMJOB when set, else the first of the PATH and the
  // package's own directory; "" when it is not installed.
  static std::string FindProgram();

  // Starts the server on a free port and waits up to `timeoutMs` for it to
  // report READY. false (with error() telling why) when it did not.
  bool Start(int timeoutMs = 10000);
  // Stops the server (bounded) and removes its directory. Idempotent.
  void Stop();

  unsigned int port() const { return port_; }
  const std::string& directory() const { return directory_; }
  const std::string& error() const { return error_; }
  // The server's own log (its standard error) so far, for failure messages.
  std::string Log() const;

  // Creates an empty regular file `name` in the server's directory and
  // returns its path; a simulated tape is such a file given as device name.
  std::string NewTape(const std::string& name) const;

 private:
  bool StartOnce(const std::string& program, int timeoutMs);
  void Reap(int timeoutMs);

  pid_t pid_ = -1;
  int stdinFd_ = -1;   // write end of the server's standard input
  int stdoutFd_ = -1;  // read end of the server's standard output
  unsigned int port_ = 0;
  std::string directory_;
  std::string error_;
};

}  // namespace com::vx::korvane::ndmpc::testing
