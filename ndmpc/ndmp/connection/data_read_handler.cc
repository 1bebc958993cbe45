#include "ndmpc/ndmp/connection/data_read_handler.h"

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

namespace com::vx::korvane::ndmpc {

namespace {
constexpr unsigned int kMoverReadTimeout = 360;
}  // namespace

CNDMPDataReadHandler::~CNDMPDataReadHandler() { delete lastNotification_; }

unsigned int CNDMPDataReadHandler::HandleMessagePacket(CNDMPMessagePacket& packet) {
  delete lastNotification_;
  lastNotification_ = nullptr;
  if (packet.GetMessage() != nullptr) {
    lastNotification_ = CNDMPMessageAccess::Clone(*packet.GetMessage());
  }
  auto* notification = dynamic_cast<CNDMPNotifyDataReadPost*>(lastNotification_);
  if (notification == nullptr) return 1;

  CNDMPMoverReadRequest request;
  request.Offset = notification->Offset;
  request.Length = notification->Length;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<enums::CNDMPError> result =
      connection_.SendMessage(request, &reply, kMoverReadTimeout);
  auto* answer = dynamic_cast<CNDMPMoverReadReply*>(reply);
  const bool ok = result == enums::CNDMPError::NDMP_NO_ERR && answer != nullptr &&
                  answer->NDMP_Error == enums::CNDMPError::NDMP_NO_ERR;
  connection_.FreeMessage(reply);
  return ok ? 0 : 1;
}

}  // namespace com::vx::korvane::ndmpc
