// Support for the tool tests: a temporary directory, the simulated server
// on a free loopback port, running the ndmpc binary with a time limit, and
// a small JSON reader to check --json output.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "tools/simulator/sim_server.h"

namespace com::vx::korvane::ndmpc::tools::testing {

// A fresh directory under /tmp, removed with its contents at the end.
class CTempDir {
 public:
  CTempDir();
  ~CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;
  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A log that keeps quiet (level 0) unless NDMPC_TEST_LOG is set.
VxLog& QuietLog();

// The simulated server on 127.0.0.1 and a free port, with its own tape
// directory; user "ndmp", password "secret", MD5 and text by default.
class CSimFixture {
 public:
  explicit CSimFixture(CSimServerConfig config = DefaultConfig());
  ~CSimFixture();
  static CSimServerConfig DefaultConfig();
  // The default, with a data agent serving `dataRoot` and tapes of `tapeCapacity` bytes.
  static CSimServerConfig DataConfig(const std::string& dataRoot,
                                     std::uint64_t tapeCapacity = 1ull << 30);

  unsigned int Port() const { return server_->Port(); }
  CNDMPSimServer& Server() { return *server_; }
  const std::string& TapeDir() const { return tapes_.Path(); }
  // Arguments that point ndmpc at this server, with its credentials.
  std::vector<std::string> Target(bool withCredentials = true) const;

 private:
  CTempDir tapes_;
  std::unique_ptr<CNDMPSimServer> server_;
};

// A library client of a server on 127.0.0.1.
class CClient {
 public:
  explicit CClient(unsigned int port) : connection_("127.0.0.1", "127.0.0.1", QuietLog(), port) {}
  ~CClient() { connection_.Disconnect(); }
  // Connects (at `version`, or the best one when 0) and, unless `user` is
  // null, authenticates; false when either fails.
  bool Open(const char* user = "ndmp", const char* password = "secret", unsigned int version = 0);
  CNDMPConnection* operator->() { return &connection_; }
  CNDMPConnection* get() { return &connection_; }
  // The error of a request: the header's, else the reply's first error field.
  unsigned int Ask(CNDMPMessage& request);
  // A request built from text as `ndmpc send` builds it; its error.
  unsigned int Ask(const std::string& message, const std::vector<std::string>& fields = {});
  // The reply as class R; null when none came or it is of another class.
  template <class R>
  std::shared_ptr<R> Get(CNDMPMessage& request) {
    CNDMPMessage* reply = nullptr;
    if (connection_.SendMessage(request, &reply, 10) != enums::CNDMPError::NDMP_NO_ERR) return nullptr;
    CNDMPConnection* connection = &connection_;
    return std::shared_ptr<R>(dynamic_cast<R*>(reply),
                              [connection, reply](R*) { connection->FreeMessage(reply); });
  }

 private:
  CNDMPConnection connection_;
};

// Writes a test tree under `root`: `files` small files (every tenth empty)
// in nested directories, an empty directory, a 20 MB file when `big`, long,
// spaced and non-ASCII names, and symbolic links (to a file, to a directory,
// dangling); mtimes and modes of files and of one directory vary.
// The long name is kLongName.
void BuildTestTree(const std::string& root, int files, bool big);
inline const std::string kLongName(120, 'L');

// Path below `root` ("/" for the root itself) -> "f MODE MTIME SIZE HASH"
// for files, "d MODE MTIME" for directories, "l MODE TARGET" for links.
std::map<std::string, std::string> SnapshotTree(const std::string& root);

struct CRunResult {
  int status = -1;  // exit status, or -1 when killed
  std::string out;
  std::string err;
};

// `base` followed by `more`, for building command lines: With(sim.Target(), {"info"}).
std::vector<std::string> With(std::vector<std::string> base, const std::vector<std::string>& more);

// Runs the built ndmpc with `args`, without NDMP_* variables in its
// environment, killing it after `timeoutSeconds`.
CRunResult RunNdmpc(const std::vector<std::string>& args, int timeoutSeconds = 60);

// ndmpc running in the background, its output read as it comes.
class CBackgroundNdmpc {
 public:
  explicit CBackgroundNdmpc(const std::vector<std::string>& args);
  ~CBackgroundNdmpc();
  CBackgroundNdmpc(const CBackgroundNdmpc&) = delete;
  CBackgroundNdmpc& operator=(const CBackgroundNdmpc&) = delete;
  // Reads standard output until it contains `marker`; false after `timeoutSeconds`.
  bool WaitFor(const std::string& marker, int timeoutSeconds);
  // Reads until both outputs end and reaps the process, killing it after
  // `timeoutSeconds`; the exit status, or -1.
  int Wait(int timeoutSeconds);
  // Sends `signal`, then as Wait.
  int Stop(int signal, int timeoutSeconds);
  const std::string& Output() const { return out_; }
  const std::string& Errors() const { return err_; }

 private:
  // Reads both outputs until `done` holds; false when they ended or time ran out first.
  bool Pump(const std::function<bool()>& done, int timeoutSeconds);

  int pid_ = -1;
  int fds_[2] = {-1, -1};  // standard output and error
  std::string out_, err_;
};

// Writes `size` pseudo-random bytes to `path`; returns them.
std::string WriteRandomFile(const std::string& path, std::size_t size, unsigned int seed);
std::string ReadFile(const std::string& path);

// A parsed JSON value.
struct CJson {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<CJson> items;
  std::map<std::string, CJson> members;

  // Member or element; a null value when absent.
  const CJson& operator[](const std::string& key) const;
  const CJson& operator[](std::size_t index) const;
  bool Has(const std::string& key) const { return members.count(key) != 0; }
};
// False when `text` is not exactly one JSON value.
bool ParseJson(const std::string& text, CJson* value);

}  // namespace com::vx::korvane::ndmpc::tools::testing
