#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

void AddNotifyLogFhFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(table.end(), {
                                FactorySingle<CNDMPNotifyDataHaltedPost>(),
                                FactorySingle<CNDMPNotifyConnectionStatusPost>(),
                                FactorySingle<CNDMPNotifyMoverHaltedPost>(),
                                FactorySingle<CNDMPNotifyMoverPausedPost>(),
                                FactorySingle<CNDMPNotifyDataReadPost>(),
                                FactorySingle<CNDMPLogFilePost>(),
                                FactorySingle<CNDMPLogMessagePost>(),
                                FactorySingle<CNDMPFhAddFilePost>(),
                                FactorySingle<CNDMPFhAddDirPost>(),
                                FactorySingle<CNDMPFhAddNodePost>(),
                            });
}

}  // namespace com::vx::korvane::ndmpc
