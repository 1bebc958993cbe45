// CNDMPTapeHelper: one-call tape operations over an open, authenticated
// CNDMPConnection. Each call sends one NDMP_TAPE_* request (timeout 360 s),
// takes the result fields from the reply and returns the outcome as one NDMP
// error. The helper keeps no state; the tape's state lives on the server.
//
//   if (CNDMPTapeHelper::TapeOpen(&conn, "/dev/nst0", mode, true) == NDMP_NO_ERR) {
//     unsigned int written = 0;
//     CNDMPTapeHelper::TapeWrite(&conn, block, sizeof block, &written);
//   }
//
// Results besides the server's own errors: NDMP_ILLEGAL_ARGS_ERR (nothing is
// sent) for a missing argument, NDMP_UNDEFINED_ERR when the send succeeded
// but no reply body came, and the connection's error when the send failed.
// The calls block the calling thread for the time of the exchange.
#pragma once

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/xdr/xdr_enum.h"

namespace com::vx::korvane::ndmpc {

namespace detail {

// The exchange shared by the tape and SCSI helpers: sends `request` and, when
// a reply body of class Reply comes back, lets `take` copy its result fields
// (whatever error it carries), frees it and returns its "NDMP_Error". Returns
// the send's own error when the send failed, NDMP_UNDEFINED_ERR when it
// succeeded without a usable reply.
template <class Reply, class Take>
CXDREnumBase<enums::CNDMPError> HelperExchange(CNDMPConnection& connection,
                                               CNDMPMessage& request, unsigned int timeout,
                                               Take take) {
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<enums::CNDMPError> err = connection.SendMessage(request, &reply, timeout);
  if (err != enums::CNDMPError::NDMP_NO_ERR) return err;
  auto* typed = dynamic_cast<Reply*>(reply);
  if (typed == nullptr) {
    connection.FreeMessage(reply);
    return enums::CNDMPError::NDMP_UNDEFINED_ERR;
  }
  err = typed->NDMP_Error;
  take(*typed);
  connection.FreeMessage(reply);
  return err;
}

}  // namespace detail

class CNDMPTapeHelper {
 public:
  // Timeout of every helper request, in seconds.
  static constexpr unsigned int kTimeout = 360;
  // With `retry`, a refused open is tried again after one second, at most
  // 11 tries in all; a device name containing ".." is never retried. The
  // result is always the last reply's error (NDMP_UNDEFINED_ERR without a
  // reply, whatever the send reported).
  static CXDREnumBase<enums::CNDMPError> TapeOpen(
      CNDMPConnection* connection, const char* device,
      CXDREnumBase<enums::CNDMPEnumTapeOpenMode> mode, bool retry);
  static CXDREnumBase<enums::CNDMPError> TapeClose(CNDMPConnection* connection);
  // `*resid` = the reply's residual count (0 when no reply came), also when
  // the reply carries an error.
  static CXDREnumBase<enums::CNDMPError> TapeMTIO(CNDMPConnection* connection,
                                                  CXDREnumBase<enums::CNDMPEnumMtioOp> op,
                                                  unsigned int count, unsigned int* resid);
  // Writes `length` bytes of `buffer` as one record. `written` is not
  // checked and must be valid; it receives the reply's count, also when the
  // reply carries an error.
  static CXDREnumBase<enums::CNDMPError> TapeWrite(CNDMPConnection* connection, void* buffer,
                                                   unsigned int length, unsigned int* written);
  // Reads up to `length` bytes into `buffer`; `*read` = the bytes copied,
  // also when the reply carries an error.
  static CXDREnumBase<enums::CNDMPError> TapeRead(CNDMPConnection* connection, void* buffer,
                                                  unsigned int length, unsigned int* read);
};

}  // namespace com::vx::korvane::ndmpc
