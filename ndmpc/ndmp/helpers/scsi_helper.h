// CNDMPScsiHelper: opening and closing a SCSI device (typically a media
// changer) on the server in one call, over an open, authenticated
// CNDMPConnection. No retry; results as for CNDMPTapeHelper.
//
//   if (CNDMPScsiHelper::SCSIOpen(&conn, "/dev/sg3") == NDMP_NO_ERR) { ... }
//   CNDMPScsiHelper::SCSIClose(&conn);
#pragma once

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_enum.h"

namespace com::vx::korvane::ndmpc {

class CNDMPScsiHelper {
 public:
  static CXDREnumBase<enums::CNDMPError> SCSIOpen(CNDMPConnection* connection,
                                                  const char* device);
  static CXDREnumBase<enums::CNDMPError> SCSIClose(CNDMPConnection* connection);
};

}  // namespace com::vx::korvane::ndmpc
