// ndmpc: an NDMP client library. This header brings in the whole public
// interface; each subsystem's headers can also be included on their own.
//
//   #include <ndmpc/ndmpc.h>
//   namespace nd = com::vx::korvane::ndmpc;
//   nd::VxLog log;
//   nd::CNDMPConnection filer("filer1", "", log, 10000);
//   filer.Connect();
#pragma once

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/foundation/vx_string.h"
#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/md5/md5.h"
#include "ndmpc/ndmp/connection/callbacks.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/connection/data_read_handler.h"
#include "ndmpc/ndmp/connection/message_threads.h"
#include "ndmpc/ndmp/connection/packet_queue.h"
#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/helpers/scsi_helper.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/jobs/file_history.h"
#include "ndmpc/ndmp/jobs/job.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/header.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/ndmp/messages/message_packet.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "ndmpc/ndmp/messages/snapshot_messages.h"
#include "ndmpc/ndmp/messages/snapvault_messages.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_stream.h"
#include "ndmpc/xdr/xdr_values.h"
