#include "ndmpc/ndmp/helpers/scsi_helper.h"

#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

namespace com::vx::korvane::ndmpc {

using enums::CNDMPError;

CXDREnumBase<CNDMPError> CNDMPScsiHelper::SCSIOpen(CNDMPConnection* connection,
                                                   const char* device) {
  if (connection == nullptr || device == nullptr) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  CNDMPScsiOpenRequest request;
  request.Device = CXDRString(device);
  return detail::HelperExchange<CNDMPScsiOpenReply>(*connection, request,
                                                    CNDMPTapeHelper::kTimeout,
                                                    [](CNDMPScsiOpenReply&) {});
}

CXDREnumBase<CNDMPError> CNDMPScsiHelper::SCSIClose(CNDMPConnection* connection) {
  if (connection == nullptr) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  CNDMPScsiCloseRequest request;
  return detail::HelperExchange<CNDMPScsiCloseReply>(*connection, request,
                                                     CNDMPTapeHelper::kTimeout,
                                                     [](CNDMPScsiCloseReply&) {});
}

}  // namespace com::vx::korvane::ndmpc
