#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

void AddScsiTapeFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(table.end(),
               {
                   FactoryPair<CNDMPScsiOpenRequest, CNDMPScsiOpenReply>(),
                   FactoryPair<CNDMPScsiCloseRequest, CNDMPScsiCloseReply>(),
                   FactoryPair<CNDMPScsiGetStateRequest, CNDMPScsiGetStateReply>(),
                   FactoryPair<CNDMPScsiSetTargetRequest, CNDMPScsiSetTargetReply>(),
                   FactoryPair<CNDMPScsiResetDeviceRequest, CNDMPScsiResetDeviceReply>(),
                   FactoryPair<CNDMPScsiResetBusRequest, CNDMPScsiResetBusReply>(),
                   FactoryPair<CNDMPScsiExecuteCdbRequest, CNDMPScsiExecuteCdbReply>(),
                   FactoryPair<CNDMPTapeOpenRequest, CNDMPTapeOpenReply>(),
                   FactoryPair<CNDMPTapeCloseRequest, CNDMPTapeCloseReply>(),
                   FactoryPair<CNDMPTapeGetStateRequest, CNDMPTapeGetStateReply>(),
                   FactoryPair<CNDMPTapeMtioRequest, CNDMPTapeMtioReply>(),
                   FactoryPair<CNDMPTapeWriteRequest, CNDMPTapeWriteReply>(),
                   FactoryPair<CNDMPTapeReadRequest, CNDMPTapeReadReply>(),
                   FactoryPair<CNDMPTapeExecuteCdbRequest, CNDMPTapeExecuteCdbReply>(),
               });
}

}  // namespace com::vx::korvane::ndmpc
