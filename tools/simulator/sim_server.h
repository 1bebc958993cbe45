// CNDMPSimServer: a small NDMP server for trying the library and the
// command-line tool without a filer. It negotiates versions 3 and 4,
// authenticates (MD5 challenge, text, none), answers the config queries
// with configurable data, runs a tape agent over file-backed virtual tapes
// (one file per tape in a directory), opens one simulated SCSI changer, runs
// a mover between a data connection and the open tape, and (with a data
// root) a data agent that backs up and restores directories under it.
// Everything else is answered with NDMP_NOT_SUPPORTED_ERR.
//
//   VxLog log;
//   CSimServerConfig config;
//   config.port = 0;                     // any free port
//   config.tapeDir = "/tmp/tapes";
//   config.user = "ndmp"; config.password = "secret";
//   CNDMPSimServer server(config, log);
//   std::string error;
//   if (server.Start(&error)) { ... connect to server.Port() ...; server.Stop(); }
//
// Each client is served on its own thread with its own connection; a bad
// client is logged and disconnected without disturbing the others.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"

namespace com::vx::korvane::ndmpc::tools {

class CVirtualTape;
class CSimSession;

struct CSimFileSystem {
  std::string name;    // logical name, e.g. "/vol/vol0"
  std::string type;    // "ext4", "wafl", ...
  std::string device;  // physical device
  std::uint64_t totalBytes;
  std::uint64_t usedBytes;
  std::uint64_t totalInodes;
  std::uint64_t usedInodes;
  std::string status;
};

struct CSimServerConfig {
  std::string listenAddress = "127.0.0.1";
  unsigned int port = 10000;  // 0 picks a free port
  // Directory of the virtual tapes; a tape device name is a file name in it.
  std::string tapeDir;
  // Credentials checked by MD5 and text authentication.
  std::string user;
  std::string password;
  bool authNone = true;
  bool authText = false;
  bool authMD5 = false;
  std::vector<unsigned int> versions{3, 4};
  std::uint32_t maxRecordSize = 1024 * 1024;
  // Capacity of the virtual tapes created from now on.
  std::uint64_t tapeCapacity = 1ull << 30;
  // The data agent's file system: FILESYSTEM "/x/y" is dataRoot/x/y. Empty:
  // no backups or restores, and the file systems listed below are reported.
  std::string dataRoot;
  unsigned int maxClients = 64;

  std::string hostName = "simfiler";
  std::string osType = "ndmpc-sim";
  std::string osVersion = "1.0";
  std::string hostId = "5a1f0c0d";
  std::string vendor = "ndmpc";
  std::string product = "Simulated NDMP server";
  std::string revision = "1.0";
  std::vector<CSimFileSystem> fileSystems{
      {"/vol/vol0", "ext4", "/dev/sda1", 100ull << 30, 42ull << 30, 6553600, 1203450, "online"},
      {"/vol/home", "xfs", "/dev/sdb1", 500ull << 30, 120ull << 30, 26214400, 3400112, "online"}};
  std::string changerName = "changer0";
  // Some servers ignore NDMP_CONFIG_GET_EXT_LIST; false behaves so.
  bool answerExtList = true;
};

class CNDMPSimServer {
 public:
  CNDMPSimServer(CSimServerConfig config, VxLog& log);
  CNDMPSimServer(const CNDMPSimServer&) = delete;
  CNDMPSimServer& operator=(const CNDMPSimServer&) = delete;
  // Stops the server if it runs.
  ~CNDMPSimServer();

  // Listens and starts accepting; false with `*error` set when the address
  // cannot be used or the tape directory cannot be created.
  bool Start(std::string* error);
  // Stops accepting, disconnects every client and joins all threads.
  void Stop();
  // The port listened on (the chosen one when 0 was configured).
  unsigned int Port() const { return port_; }
  const CSimServerConfig& Config() const { return config_; }
  std::size_t ActiveClients();

  // Tape devices shared by the sessions. A device belongs to one session
  // while it is open there; other sessions get busy.
  enum class DeviceResult { kOk, kBusy, kNoDevice, kIoError };
  DeviceResult AcquireTape(const std::string& name, bool create, const void* owner,
                           CVirtualTape** tape);
  void ReleaseTape(const std::string& name, const void* owner);
  DeviceResult AcquireChanger(const std::string& name, const void* owner);
  void ReleaseChanger(const void* owner);
  // File names of the tapes in the tape directory, sorted.
  std::vector<std::string> TapeNames();
  // True when `name` may name a tape: a plain file name inside the directory.
  static bool IsValidTapeName(const std::string& name);

  VxLog& Log() { return log_; }
  bool Stopping() const { return stopping_.load(); }

 private:
  struct CClient {
    std::unique_ptr<CSimSession> session;
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };

  void AcceptLoop();
  // Joins the threads of sessions that have ended.
  void Reap(bool all);

  CSimServerConfig config_;
  VxLog& log_;
  VxTcpListener listener_;
  unsigned int port_ = 0;
  std::thread acceptThread_;
  std::atomic<bool> stopping_{false};
  bool started_ = false;

  std::mutex clientsMutex_;
  std::vector<CClient> clients_;  // guarded by clientsMutex_

  std::mutex devicesMutex_;
  std::map<std::string, std::unique_ptr<CVirtualTape>> tapes_;  // guarded by devicesMutex_
  std::map<std::string, const void*> tapeOwners_;               // guarded by devicesMutex_
  const void* changerOwner_ = nullptr;                          // guarded by devicesMutex_
};

}  // namespace com::vx::korvane::ndmpc::tools
