#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

void AddNotifyLogFhFactoryEntries(std::vector<CNDMPFactoryEntry>& /*table*/) {}

}  // namespace com::vx::korvane::ndmpc
