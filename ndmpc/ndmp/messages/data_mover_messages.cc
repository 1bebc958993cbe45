#include "ndmpc/ndmp/messages/data_mover_messages.h"

#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

CIXDR* CNDMPAddr::SelectArm(std::uint32_t value, const char** name) {
  switch (value) {
    case enums::CNDMPEnumAddrType::NDMP_ADDR_TCP:
      *name = "TcpAddress";
      if (Version() >= 4) return &TcpAddressList;
      // The single address may have been selected only now, after the
      // record's version was set and passed on; it must encode under the
      // same version.
      TcpAddress.SetProtocolVersion(GetProtocolVersion());
      return &TcpAddress;
    case enums::CNDMPEnumAddrType::NDMP_ADDR_IPC:
      *name = "IPCAddress";
      return &IPCAddress;
    case kFcAddressType:
      *name = "FcAddress";
      return &FcAddress;
    default:
      return nullptr;
  }
}

void AddDataMoverFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(
      table.end(),
      {
          FactoryPair<CNDMPDataGetStateRequest, CNDMPDataGetStateReply>(),
          FactoryPair<CNDMPDataStartBackupRequest, CNDMPDataStartBackupReply>(),
          FactoryPair<CNDMPDataStartRecoverRequest, CNDMPDataStartRecoverReply>(),
          FactoryPair<CNDMPDataAbortRequest, CNDMPDataAbortReply>(),
          FactoryPair<CNDMPDataGetEnvRequest, CNDMPDataGetEnvReply>(),
          FactoryPair<CNDMPDataStopRequest, CNDMPDataStopReply>(),
          FactoryPair<CNDMPDataListenRequest, CNDMPDataListenReply>(),
          FactoryPair<CNDMPDataConnectRequest, CNDMPDataConnectReply>(),
          FactoryPair<CNDMPDataStartRecoverFilehistRequest, CNDMPDataStartRecoverFilehistReply>(),
          FactoryPair<CNDMPMoverGetStateRequest, CNDMPMoverGetStateReply>(),
          FactoryPair<CNDMPMoverListenRequest, CNDMPMoverListenReply>(),
          FactoryPair<CNDMPMoverContinueRequest, CNDMPMoverContinueReply>(),
          FactoryPair<CNDMPMoverAbortRequest, CNDMPMoverAbortReply>(),
          FactoryPair<CNDMPMoverStopRequest, CNDMPMoverStopReply>(),
          FactoryPair<CNDMPMoverSetWindowRequest, CNDMPMoverSetWindowReply>(),
          FactoryPair<CNDMPMoverReadRequest, CNDMPMoverReadReply>(),
          FactoryPair<CNDMPMoverCloseRequest, CNDMPMoverCloseReply>(),
          FactoryPair<CNDMPMoverSetRecordSizeRequest, CNDMPMoverSetRecordSizeReply>(),
          FactoryPair<CNDMPMoverConnectRequest, CNDMPMoverConnectReply>(),
          FactoryPair<CNDMPCabDataConnectPrepareRequest, CNDMPCabDataConnectPrepareReply>(),
      });
}

}  // namespace com::vx::korvane::ndmpc
