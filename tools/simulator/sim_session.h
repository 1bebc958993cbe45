// CSimSession: one client of the simulated NDMP server, served on its own
// thread (Run) over its own CNDMPConnection. Internal to the simulator.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc::tools {

class CNDMPSimServer;
class CVirtualTape;

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
  using Handler = void (CSimSession::*)();
  struct CHandlerRow {
    std::uint32_t code;
    Handler handler;
    bool beforeAuthentication;  // allowed before the client authenticated
  };
  static const std::vector<CHandlerRow>& HandlerTable();

  // Greets the client and reads its first message on a plain stream, before
  // the connection exists (see Run).
  std::unique_ptr<CNDMPMessagePacket> Greet();
  std::unique_ptr<CNDMPMessagePacket> ReadFirst(CXDRStream& stream);
  bool SocketAlive();
  void Handle(CNDMPMessagePacket& packet);
  void Reply(CNDMPMessage& reply);
  void Fail(unsigned int error);
  template <class T>
  T* Body();
  void ReleaseDevices();

  // One handler per implemented request.
  void ConnectOpen();
  void ConnectClientAuth();
  void ConnectClose();
  void ConfigGetHostInfo();
  void ConfigGetConnectionType();
  void ConfigGetAuthAttr();
  void ConfigGetButypeInfo();
  void ConfigGetFsInfo();
  void ConfigGetTapeInfo();
  void ConfigGetScsiInfo();
  void ConfigGetServerInfo();
  void ConfigGetExtList();
  void ConfigSetExtList();
  void ScsiOpen();
  void ScsiClose();
  void ScsiGetState();
  void TapeOpen();
  void TapeClose();
  void TapeGetState();
  void TapeMtio();
  void TapeWrite();
  void TapeRead();
  void DataGetState();
  void MoverGetState();

  CNDMPSimServer& server_;
  VxLog& log_;
  const unsigned int id_;

  std::mutex socketMutex_;               // guards the two below against Interrupt
  std::unique_ptr<VxTcpSocket> socket_;  // until the connection takes it over
  std::unique_ptr<CNDMPConnection> connection_;
  std::atomic<bool> interrupted_{false};

  // Touched by the session thread only.
  CNDMPMessagePacket* current_ = nullptr;  // the request being answered
  bool authenticated_ = false;
  bool closing_ = false;
  std::vector<unsigned char> challenge_;
  std::mt19937_64 random_;
  std::string tapeName_;
  CVirtualTape* tape_ = nullptr;
  bool tapeWritable_ = false;
  bool tapeUnloaded_ = false;
  bool changerOpen_ = false;
};

}  // namespace com::vx::korvane::ndmpc::tools
