// CNDMPDataReadHandler: answers each NDMP_NOTIFY_DATA_READ post of a server
// with an NDMP_MOVER_READ request for the same window, on the same
// connection.
//
//   CNDMPDataReadHandler reader(connection);
//   auto* r = connection.RegisterCallback(&reader,
//       enums::CNDMPMessageCode::NDMP_NOTIFY_DATA_READ);
//
// It runs on the dispatch thread and waits there for the mover's reply,
// which the connection delivers straight from its receive thread.
#pragma once

#include "ndmpc/ndmp/connection/callbacks.h"

namespace com::vx::korvane::ndmpc {

class CNDMPConnection;

class CNDMPDataReadHandler : public CINDMPCallback {
 public:
  explicit CNDMPDataReadHandler(CNDMPConnection& connection) : connection_(connection) {}
  CNDMPDataReadHandler(const CNDMPDataReadHandler&) = delete;
  CNDMPDataReadHandler& operator=(const CNDMPDataReadHandler&) = delete;
  ~CNDMPDataReadHandler() override;

  // 0 when the mover accepted the read, 1 otherwise.
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;

 private:
  CNDMPConnection& connection_;
  CNDMPMessage* lastNotification_ = nullptr;
};

}  // namespace com::vx::korvane::ndmpc
