#include "ndmpc/ndmp/messages/snapshot_messages.h"

#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

void AddSnapshotFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(table.end(),
               {
                   FactoryPair<CNDMPSnapCreateRequest, CNDMPSnapCreateReply>(),
                   FactoryPair<CNDMPSnapDeleteRequest, CNDMPSnapDeleteReply>(),
                   FactoryPair<CNDMPSnapRecoverRequest, CNDMPSnapRecoverReply>(),
                   FactoryPair<CNDMPSnapRenameRequest, CNDMPSnapRenameReply>(),
                   FactoryPair<CNDMPSnapGetServerInfoRequest, CNDMPSnapGetServerInfoReply>(),
                   FactoryPair<CNDMPSnapGetSnapshotNamesRequest, CNDMPSnapGetSnapshotNamesReply>(),
                   FactoryPair<CNDMPSnapGetSnapshotStateRequest, CNDMPSnapGetSnapshotStateReply>(),
                   FactoryPair<CNDMPSnapGetCdrOpStateRequest, CNDMPSnapGetCdrOpStateReply>(),
                   FactoryPair<CNDMPSnapGetSnapshotPathRequest, CNDMPSnapGetSnapshotPathReply>(),
                   FactoryPair<CNDMPSnapSetReserveRequest, CNDMPSnapSetReserveReply>(),
                   FactoryPair<CNDMPSnapGetReserveInfoRequest, CNDMPSnapGetReserveInfoReply>(),
                   FactoryPair<CNDMPSnapSetScheduleRequest, CNDMPSnapSetScheduleReply>(),
                   FactoryPair<CNDMPSnapGetScheduleInfoRequest, CNDMPSnapGetScheduleInfoReply>(),
                   FactoryPair<CNDMPSnapDirListRequest, CNDMPSnapDirListReply>(),
                   FactorySingle<CNDMPSnapNotifyCreateEndPost>(),
                   FactorySingle<CNDMPSnapNotifyDeleteEndPost>(),
                   FactorySingle<CNDMPSnapNotifyRecoverEndPost>(),
               });
}

}  // namespace com::vx::korvane::ndmpc
