#include "ndmpc/ndmp/messages/snapvault_messages.h"

#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

void AddSnapVaultFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(
      table.end(),
      {
          // Secondary.
          FactoryPair<CNDMPSvsCreateRelationshipRequest, CNDMPSvsCreateRelationshipReply>(),
          FactoryPair<CNDMPSvsModifyRelationshipRequest, CNDMPSvsModifyRelationshipReply>(),
          FactoryPair<CNDMPSvsTransferBackupRequest, CNDMPSvsTransferBackupReply>(),
          FactoryPair<CNDMPSvsAbortTransferRequest, CNDMPSvsAbortTransferReply>(),
          FactoryPair<CNDMPSvsDeleteRelationshipRequest, CNDMPSvsDeleteRelationshipReply>(),
          FactoryPair<CNDMPSvsRestartRelationshipRequest, CNDMPSvsRestartRelationshipReply>(),
          FactoryPair<CNDMPSvsSetSnapSchedRequest, CNDMPSvsSetSnapSchedReply>(),
          FactoryPair<CNDMPSvsGetSnapSchedRequest, CNDMPSvsGetSnapSchedReply>(),
          FactoryPair<CNDMPSvsDeleteSnapSchedRequest, CNDMPSvsDeleteSnapSchedReply>(),
          FactoryPair<CNDMPSvsCreateSnapRequest, CNDMPSvsCreateSnapReply>(),
          FactoryPair<CNDMPSvsGetStatusRequest, CNDMPSvsGetStatusReply>(),
          FactoryPair<CNDMPSvsGetSnapStatusRequest, CNDMPSvsGetSnapStatusReply>(),
          FactoryPair<CNDMPSvsGetClientStatusRequest, CNDMPSvsGetClientStatusReply>(),
          FactoryPair<CNDMPSvsGetAccessInfoRequest, CNDMPSvsGetAccessInfoReply>(),
          FactoryPair<CNDMPSvsSetAccessInfoRequest, CNDMPSvsSetAccessInfoReply>(),
          FactoryPair<CNDMPSvsGetInfoRequest, CNDMPSvsGetInfoReply>(),
          FactoryPair<CNDMPSvsAbortSnapRequest, CNDMPSvsAbortSnapReply>(),
          FactoryPair<CNDMPSvsReleaseRelationshipRequest, CNDMPSvsReleaseRelationshipReply>(),
          FactoryPair<CNDMPSvsGetDataAddressRequest, CNDMPSvsGetDataAddressReply>(),
          FactorySingle<CNDMPSvsNotifyCreateRelationshipPost>(),
          FactorySingle<CNDMPSvsNotifyTransferBackupPost>(),
          FactorySingle<CNDMPSvsNotifyAbortTransferPost>(),
          FactorySingle<CNDMPSvsNotifyDeleteRelationshipPost>(),
          FactorySingle<CNDMPSvsNotifyRestartRelationshipPost>(),
          FactorySingle<CNDMPSvsNotifyCreateSnapPost>(),
          FactorySingle<CNDMPSvsNotifyAbortSnapPost>(),
          FactorySingle<CNDMPSvsNotifyReleaseRelationshipPost>(),
          // Primary.
          FactoryPair<CNDMPSvpSetSnapSchedRequest, CNDMPSvpSetSnapSchedReply>(),
          FactoryPair<CNDMPSvpGetSnapSchedRequest, CNDMPSvpGetSnapSchedReply>(),
          FactoryPair<CNDMPSvpGetSnapStatusRequest, CNDMPSvpGetSnapStatusReply>(),
          FactoryPair<CNDMPSvpDeleteSnapSchedRequest, CNDMPSvpDeleteSnapSchedReply>(),
          FactoryPair<CNDMPSvpCreateSnapRequest, CNDMPSvpCreateSnapReply>(),
          FactoryPair<CNDMPSvpGetStatusRequest, CNDMPSvpGetStatusReply>(),
          FactoryPair<CNDMPSvpAbortTransferRequest, CNDMPSvpAbortTransferReply>(),
          // The primary's recover-backup code makes the secondary-named pair; intentional.
          FactoryPair<CNDMPSvsRecoverBackupRequest, CNDMPSvsRecoverBackupReply>(),
          FactoryPair<CNDMPSvpReleaseRelationshipRequest, CNDMPSvpReleaseRelationshipReply>(),
          FactoryPair<CNDMPSvpGetAccessInfoRequest, CNDMPSvpGetAccessInfoReply>(),
          FactoryPair<CNDMPSvpSetAccessInfoRequest, CNDMPSvpSetAccessInfoReply>(),
          FactoryPair<CNDMPSvpGetInfoRequest, CNDMPSvpGetInfoReply>(),
          FactoryPair<CNDMPSvpGetDataAddressRequest, CNDMPSvpGetDataAddressReply>(),
          FactorySingle<CNDMPSvpNotifyCreateSnapPost>(),
          FactorySingle<CNDMPSvpNotifyAbortTransferPost>(),
          FactorySingle<CNDMPSvpNotifyRecoverBackupPost>(),
          FactorySingle<CNDMPSvpNotifyReleaseRelationshipPost>(),
      });
}

}  // namespace com::vx::korvane::ndmpc
