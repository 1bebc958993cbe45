#include "ndmpc/ndmp/enums/protocol_ids.h"

namespace com::vx::korvane::ndmpc::enums {

NDMPC_DEFINE_ENUM_CLASS(CNDMPProtocolVersion, NDMPC_PROTOCOL_VERSION_VALUES)
NDMPC_DEFINE_ENUM_CLASS(CNDMPMessageType, NDMPC_MESSAGE_TYPE_VALUES)
NDMPC_DEFINE_ENUM_CLASS(CNDMPMessageCode, NDMPC_MESSAGE_CODE_VALUES)
NDMPC_DEFINE_ENUM_CLASS(CNDMPError, NDMPC_ERROR_VALUES)

}  // namespace com::vx::korvane::ndmpc::enums
