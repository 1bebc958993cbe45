// CSimSession: one client of the simulated NDMP server, served on its own
// thread (Run) over its own CNDMPConnection. The session greets the client,
// negotiates the version, authenticates, and dispatches every other request
// to its agents: config, tape (with the changer), data and mover. Internal
// to the simulator.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/message_packet.h"
#include "tools/simulator/sim_request.h"

namespace com::vx::korvane::ndmpc::tools {

class CNDMPSimServer;
class CSimConfigAgent;
class CSimTapeAgent;
class CSimDataAgent;
class CSimMoverAgent;

class CSimSession {
 public:
  // Takes over `socket`, an accepted connection.
  CSimSession(CNDMPSimServer& server, std::unique_ptr<VxTcpSocket> socket, unsigned int id);
  CSimSession(const CSimSession&) = delete;
  CSimSession& operator=(const CSimSession&) = delete;
  ~CSimSession();

  // Serves the client until it leaves, misbehaves beyond repair, or the
  // server stops. Runs on the session's own thread.
  void Run();
  // Wakes the session's thread out of any socket wait (any thread).
  void Interrupt();

 private:
  struct CHandlerRow {
    std::uint32_t code;
    std::function<void(CSimRequest&)> handler;
    bool beforeAuthentication;  // allowed before the client authenticated
  };
  void BuildHandlerTable();

  // Greets the client and reads its first message on a plain stream, before
  // the connection exists (see Run).
  std::unique_ptr<CNDMPMessagePacket> Greet();
  std::unique_ptr<CNDMPMessagePacket> ReadFirst(CXDRStream& stream);
  void Handle(CNDMPMessagePacket& packet);
  // Stops the agents' threads and releases the devices.
  void StopAgents();

  // The session's own requests: connection and authentication.
  void ConnectOpen(CSimRequest& request);
  void ConnectClientAuth(CSimRequest& request);
  void ConnectClose(CSimRequest& request);
  void ConfigGetAuthAttr(CSimRequest& request);

  CNDMPSimServer& server_;
  VxLog& log_;
  const unsigned int id_;

  std::mutex socketMutex_;               // guards the two below against Interrupt
  std::unique_ptr<VxTcpSocket> socket_;  // until the connection takes it over
  std::unique_ptr<CNDMPConnection> connection_;
  std::atomic<bool> interrupted_{false};

  CSimAgentContext context_;
  std::unique_ptr<CSimConfigAgent> config_;
  std::unique_ptr<CSimTapeAgent> tape_;
  std::unique_ptr<CSimMoverAgent> mover_;
  std::unique_ptr<CSimDataAgent> data_;
  std::vector<CHandlerRow> handlers_;

  // Touched by the session thread only.
  bool authenticated_ = false;
  bool closing_ = false;
  std::vector<unsigned char> challenge_;
  std::mt19937_64 random_;
};

}  // namespace com::vx::korvane::ndmpc::tools
