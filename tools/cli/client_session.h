// CClientSession: the connection a client command works over. It connects
// (negotiating the version), authenticates as the options say, sends
// requests with the options' timeout, and turns every failure into a clear
// message and the right exit code.
//
//   CClientSession session(context);
//   if (int status = session.Open()) return status;
//   std::unique_ptr<CNDMPMessage> reply;
//   CNDMPConfigGetHostInfoRequest request;
//   if (int status = session.Request(request, &reply)) return status;
#pragma once

#include <memory>
#include <string>

#include "ndmpc/ndmp/connection/connection.h"
#include "tools/cli/commands.h"

namespace com::vx::korvane::ndmpc::tools {

class CClientSession {
 public:
  explicit CClientSession(CCommandContext& context);
  CClientSession(const CClientSession&) = delete;
  CClientSession& operator=(const CClientSession&) = delete;
  ~CClientSession();

  // Connects and authenticates; 0, or the exit code after printing why not.
  // `watcher`, when given, is registered for every message before connecting.
  int Open(CINDMPCallback* watcher = nullptr);
  CNDMPConnection& Connection() { return *connection_; }
  unsigned int Version() const { return version_; }
  bool Authenticated() const { return authenticated_; }
  // "host:port".
  std::string Where() const;

  // Sends `request` and waits up to `timeout` seconds (0: the options'). 0
  // with `*reply` set, or the exit code; unless `quiet`, the failure is
  // printed. `*error` (when given) receives the NDMP error.
  int Request(CNDMPMessage& request, std::unique_ptr<CNDMPMessage>* reply, unsigned int timeout = 0,
              bool quiet = false, unsigned int* error = nullptr);
  // Prints the failure of `what` with `error` and returns its exit code.
  int Report(const std::string& what, unsigned int error);

 private:
  CCommandContext& context_;
  std::unique_ptr<CNDMPConnection> connection_;
  unsigned int version_ = 0;
  bool authenticated_ = false;
};

// A sentence about an NDMP error for people ("the device is in use"), or "".
const char* ErrorHint(unsigned int error);

}  // namespace com::vx::korvane::ndmpc::tools
