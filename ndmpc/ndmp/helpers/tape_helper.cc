#include "ndmpc/ndmp/helpers/tape_helper.h"

#include <algorithm>
#include <cstring>

#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

namespace com::vx::korvane::ndmpc {

using enums::CNDMPError;

namespace {

// Retries after the first try of TapeOpen: 11 tries in all.
constexpr unsigned int kOpenRetries = 10;
constexpr unsigned int kOpenRetryDelayMs = 1000;

}  // namespace

CXDREnumBase<CNDMPError> CNDMPTapeHelper::TapeOpen(CNDMPConnection* connection,
                                                   const char* device,
                                                   CXDREnumBase<enums::CNDMPEnumTapeOpenMode> mode,
                                                   bool retry) {
  if (connection == nullptr || device == nullptr) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  // A device name containing ".." is intentionally never retried.
  const bool neverRetry = std::strstr(device, "..") != nullptr;
  CNDMPTapeOpenRequest request;
  CXDREnumBase<CNDMPError> err;
  for (unsigned int attempt = 0;; ++attempt) {
    request.Device = CXDRString(device);
    request.Mode = mode;
    CNDMPMessage* reply = nullptr;
    // The send's own result is deliberately replaced: by the reply's error,
    // or by NDMP_UNDEFINED_ERR when no reply body came (a failed send too).
    connection->SendMessage(request, &reply, kTimeout);
    auto* typed = dynamic_cast<CNDMPTapeOpenReply*>(reply);
    err = typed != nullptr ? typed->NDMP_Error
                           : CXDREnumBase<CNDMPError>(CNDMPError::NDMP_UNDEFINED_ERR);
    connection->FreeMessage(reply);
    if (err == CNDMPError::NDMP_NO_ERR || !retry || attempt >= kOpenRetries || neverRetry) break;
    VxThread::sleep(kOpenRetryDelayMs);
  }
  return err;
}

CXDREnumBase<CNDMPError> CNDMPTapeHelper::TapeClose(CNDMPConnection* connection) {
  if (connection == nullptr) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  CNDMPTapeCloseRequest request;
  return detail::HelperExchange<CNDMPTapeCloseReply>(*connection, request, kTimeout,
                                                     [](CNDMPTapeCloseReply&) {});
}

CXDREnumBase<CNDMPError> CNDMPTapeHelper::TapeMTIO(CNDMPConnection* connection,
                                                   CXDREnumBase<enums::CNDMPEnumMtioOp> op,
                                                   unsigned int count, unsigned int* resid) {
  if (connection == nullptr || resid == nullptr) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  CNDMPTapeMtioRequest request;
  request.TapeOp = op;
  request.Count = count;
  *resid = 0;
  // The residual count is taken even from a reply that reports an error, on
  // purpose: it tells how far the operation got.
  return detail::HelperExchange<CNDMPTapeMtioReply>(
      *connection, request, kTimeout,
      [resid](CNDMPTapeMtioReply& reply) { *resid = reply.ResidCount.getInt32(); });
}

CXDREnumBase<CNDMPError> CNDMPTapeHelper::TapeWrite(CNDMPConnection* connection, void* buffer,
                                                    unsigned int length, unsigned int* written) {
  // `written` is deliberately not checked: callers must pass a valid pointer.
  if (connection == nullptr || buffer == nullptr || length == 0) {
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  CNDMPTapeWriteRequest request;
  request.DataOut.SetData(buffer, length);
  *written = 0;
  // The count is taken even from a reply that reports an error, on purpose.
  return detail::HelperExchange<CNDMPTapeWriteReply>(
      *connection, request, kTimeout,
      [written](CNDMPTapeWriteReply& reply) { *written = reply.Count.getInt32(); });
}

CXDREnumBase<CNDMPError> CNDMPTapeHelper::TapeRead(CNDMPConnection* connection, void* buffer,
                                                   unsigned int length, unsigned int* read) {
  if (connection == nullptr || buffer == nullptr || read == nullptr || length == 0) {
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  CNDMPTapeReadRequest request;
  request.Count = length;
  *read = 0;
  // The data is copied even from a reply that reports an error, on purpose.
  // A server that sends more than was asked for cannot overrun the caller's
  // buffer: at most `length` bytes are copied, and `*read` is the number of
  // bytes actually placed in `buffer`.
  return detail::HelperExchange<CNDMPTapeReadReply>(
      *connection, request, kTimeout, [buffer, length, read](CNDMPTapeReadReply& reply) {
        const auto copied = static_cast<unsigned int>(
            std::min<std::uint64_t>(reply.Data.GetSize(), length));
        if (copied > 0) std::memcpy(buffer, reply.Data.GetData(), copied);
        *read = copied;
      });
}

}  // namespace com::vx::korvane::ndmpc
