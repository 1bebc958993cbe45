// Data and mover messages as tshark must read them, with the TCP address in
// both its version 4 (list with environments) and version 3 (one address)
// layouts.
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "tests/tshark/pcap_writer.h"
#include "tests/tshark/tshark_cases.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using namespace enums;  // NOLINT: the value names read like the protocol's

CXDREnumBase<CNDMPError> Err(CNDMPError::enum_value e) { return CXDREnumBase<CNDMPError>(e); }

constexpr std::uint32_t kAddrA = Ipv4(192, 0, 2, 41);
constexpr std::uint32_t kAddrB = Ipv4(198, 51, 100, 7);

CNDMPTcpAddr TcpAddr(std::uint32_t ip, unsigned port) {
  CNDMPTcpAddr a;
  a.IPAddress = ip;
  a.Port = static_cast<int>(port);
  return a;
}

// A TCP address as the version wants it: two addresses with environments
// from version 4 on, the first address alone before.
void FillTcp(CNDMPAddr& addr, unsigned version) {
  addr.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP;
  if (version >= 4) {
    CNDMPTcpAddr a = TcpAddr(kAddrA, 10001);
    a.AddressEnv.AddItem(CNDMPPVal("IF", "e0a"));
    a.AddressEnv.AddItem(CNDMPPVal("MTU", "9000"));
    CNDMPTcpAddr b = TcpAddr(kAddrB, 18600);
    b.AddressEnv.AddItem(CNDMPPVal("IF", "e0b"));
    addr.TcpAddressList.AddItem(a);
    addr.TcpAddressList.AddItem(b);
  } else {
    addr.TcpAddress = TcpAddr(kAddrA, 10001);
  }
}

std::vector<CExpectedField> TcpFields(unsigned version) {
  if (version >= 4) {
    return {Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_TCP), Ip("ndmp.addr.ip", kAddrA),
            Ip("ndmp.addr.ip", kAddrB),           Num("ndmp.addr.tcp_port", 10001),
            Num("ndmp.addr.tcp_port", 18600),     Str("ndmp.tcp.env.name", "IF"),
            Str("ndmp.tcp.env.name", "MTU"),      Str("ndmp.tcp.env.name", "IF"),
            Str("ndmp.tcp.env.value", "e0a"),     Str("ndmp.tcp.env.value", "9000"),
            Str("ndmp.tcp.env.value", "e0b")};
  }
  return {Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_TCP), Ip("ndmp.addr.ip", kAddrA),
          Num("ndmp.addr.tcp_port", 10001)};
}

std::vector<CExpectedField> Join(std::vector<CExpectedField> a, const std::vector<CExpectedField>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

void AddData(CCaseList& list) {
  for (unsigned version : {4u, 3u}) {
    list.AddEmpty<CNDMPDataGetStateRequest>("data", version);
    list.Add<CNDMPDataGetStateReply>(
        "data", version,
        [version](auto& m) {
          m.Unsupported = 0x3u;
          m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
          m.Operation = CNDMPEnumDataOperation::NDMP_DATA_OP_BACKUP;
          m.State = CNDMPEnumDataState::NDMP_DATA_STATE_ACTIVE;
          m.HaltReason = CNDMPEnumDataHaltReason::NDMP_DATA_HALT_NA;
          m.BytesProcessed = CNDMPUQuad(0x0000000312345678ull);
          m.EstBytesRemain = CNDMPUQuad(987654321ull);
          m.EstTimeRemain = 3600u;
          FillTcp(m.DataConnAddress, version);
          m.ReadOffset = CNDMPUQuad(0x0000000100000000ull);
          m.ReadLength = CNDMPUQuad(65536ull);
        },
        Join({Num("ndmp.bu.state.invalid", 0x3), Num("ndmp.error", CNDMPError::NDMP_NO_ERR),
              Num("ndmp.bu.operation", CNDMPEnumDataOperation::NDMP_DATA_OP_BACKUP),
              Num("ndmp.data.state", CNDMPEnumDataState::NDMP_DATA_STATE_ACTIVE),
              Num("ndmp.data.halted", CNDMPEnumDataHaltReason::NDMP_DATA_HALT_NA),
              Num("ndmp.data.bytes_processed", 0x0000000312345678ull),
              Num("ndmp.data.est_bytes_remain", 987654321ull),
              Raw("ndmp.data.est_time_remain", {0x00, 0x00, 0x0E, 0x10}),
              Num("ndmp.window.offset", 0x0000000100000000ull),
              Num("ndmp.window.length", 65536)},
             TcpFields(version)));
  }

  auto env = [](CXDRArray<CNDMPPVal>& e) {
    e.AddItem(CNDMPPVal("FILESYSTEM", "/vol/vol1"));
    e.AddItem(CNDMPPVal("LEVEL", "1"));
  };
  const std::vector<CExpectedField> envFields = {
      Str("ndmp.butype.env.name", "FILESYSTEM"), Str("ndmp.butype.env.name", "LEVEL"),
      Str("ndmp.butype.env.value", "/vol/vol1"), Str("ndmp.butype.env.value", "1")};

  list.Add<CNDMPDataStartBackupRequest>(
      "data", 4,
      [env](auto& m) {
        m.BUTypeName = "dump";
        env(m.Environments);
      },
      Join({Str("ndmp.butype.name", "dump")}, envFields));
  list.Add<CNDMPDataStartBackupReply>("data", 4,
                                      [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_ILLEGAL_STATE_ERR); },
                                      {Num("ndmp.error", CNDMPError::NDMP_ILLEGAL_STATE_ERR)});

  auto names = [](CXDRArray<CNDMPName>& nlist) {
    CNDMPName a;
    a.OriginalPath = "/vol/vol1/home/alice/report.txt";
    a.DestinationDir = "/vol/restore";
    a.Name = "report-restored.txt";
    a.OtherName = "REPORT~1.TXT";
    a.Node = CNDMPUQuad(0x0000000200000011ull);
    a.FileHistoryInfo = CNDMPUQuad(0x0000001000000400ull);
    CNDMPName b;
    b.OriginalPath = "/vol/vol1/etc";
    b.DestinationDir = "/tmp/etc";
    b.Name = "etc";
    b.OtherName = "ETC";
    b.Node = CNDMPUQuad(64ull);
    b.FileHistoryInfo = CNDMPUQuad(4096ull);
    nlist.AddItem(a);
    nlist.AddItem(b);
  };
  const std::vector<CExpectedField> recoverFields = Join(
      envFields,
      {Str("ndmp.bu.original_path", "/vol/vol1/home/alice/report.txt"),
       Str("ndmp.bu.original_path", "/vol/vol1/etc"),
       Str("ndmp.bu.destination_dir", "/vol/restore"), Str("ndmp.bu.destination_dir", "/tmp/etc"),
       Str("ndmp.bu.new_name", "report-restored.txt"), Str("ndmp.bu.new_name", "etc"),
       Str("ndmp.bu.other_name", "REPORT~1.TXT"), Str("ndmp.bu.other_name", "ETC"),
       Num("ndmp.file.node", 0x0000000200000011ull), Num("ndmp.file.node", 64),
       Num("ndmp.file.fh_info", 0x0000001000000400ull), Num("ndmp.file.fh_info", 4096),
       Str("ndmp.butype.name", "dump")});
  list.Add<CNDMPDataStartRecoverRequest>(
      "data", 4,
      [env, names](auto& m) {
        env(m.Environments);
        names(m.NameList);
        m.BackupTypeName = "dump";
      },
      recoverFields);
  list.Add<CNDMPDataStartRecoverReply>("data", 4,
                                       [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_PERMISSION_ERR); },
                                       {Num("ndmp.error", CNDMPError::NDMP_PERMISSION_ERR)});
  // tshark 4.0 has no decoder for NDMP_DATA_START_RECOVER_FILEHIST; its
  // header is checked, and its body is the one of NDMP_DATA_START_RECOVER.
  const char* const noFilehist = "tshark 4.0 does not know NDMP_DATA_START_RECOVER_FILEHIST";
  list.Add<CNDMPDataStartRecoverFilehistRequest>(
          "data", 4,
          [env, names](auto& m) {
            env(m.Environments);
            names(m.NameList);
            m.BackupTypeName = "dump";
          },
          recoverFields)
      .TsharkDoesNotKnow(noFilehist);
  list.Add<CNDMPDataStartRecoverFilehistReply>(
          "data", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NOT_SUPPORTED_ERR); },
          {Num("ndmp.error", CNDMPError::NDMP_NOT_SUPPORTED_ERR)})
      .TsharkDoesNotKnow(noFilehist);

  list.AddEmpty<CNDMPDataAbortRequest>("data", 4);
  list.Add<CNDMPDataAbortReply>("data", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_ILLEGAL_STATE_ERR); },
                                {Num("ndmp.error", CNDMPError::NDMP_ILLEGAL_STATE_ERR)});
  list.AddEmpty<CNDMPDataGetEnvRequest>("data", 4);
  list.Add<CNDMPDataGetEnvReply>(
      "data", 4,
      [env](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        env(m.Environments);
      },
      Join({Num("ndmp.error", CNDMPError::NDMP_NO_ERR)}, envFields));
  list.AddEmpty<CNDMPDataStopRequest>("data", 4);
  list.Add<CNDMPDataStopReply>("data", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_UNDEFINED_ERR); },
                               {Num("ndmp.error", CNDMPError::NDMP_UNDEFINED_ERR)});

  for (unsigned version : {4u, 3u}) {
    list.Add<CNDMPDataListenRequest>("data", version, [](auto& m) { m.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP; },
                                     {Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_TCP)});
    list.Add<CNDMPDataListenReply>(
        "data", version,
        [version](auto& m) {
          m.Error = Err(CNDMPError::NDMP_NO_ERR);
          FillTcp(m.DataConnAddress, version);
        },
        Join({Num("ndmp.error", CNDMPError::NDMP_NO_ERR)}, TcpFields(version)));
    list.Add<CNDMPDataConnectRequest>("data", version,
                                      [version](auto& m) { FillTcp(m.Address, version); },
                                      TcpFields(version));
    list.Add<CNDMPDataConnectReply>("data", version,
                                    [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_CONNECT_ERR); },
                                    {Num("ndmp.error", CNDMPError::NDMP_CONNECT_ERR)});
  }
  // The other address types: local carries the type alone, IPC its opaque.
  list.Add<CNDMPDataConnectRequest>("data", 4,
                                    [](auto& m) { m.Address.AddressType = CNDMPEnumAddrType::NDMP_ADDR_LOCAL; },
                                    {Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_LOCAL)}, "Local");
  const std::vector<unsigned char> ipc = Pattern(11, 0x51);
  list.Add<CNDMPDataConnectRequest>(
      "data", 4,
      [ipc](auto& m) {
        m.Address.AddressType = CNDMPEnumAddrType::NDMP_ADDR_IPC;
        m.Address.IPCAddress.CommData.SetData(ipc.data(), ipc.size());
      },
      {Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_IPC), Raw("ndmp.addr.ipc", ipc)}, "IPC");
}

void AddMover(CCaseList& list) {
  for (unsigned version : {4u, 3u}) {
    list.AddEmpty<CNDMPMoverGetStateRequest>("mover", version);
    std::vector<CExpectedField> fields = {Num("ndmp.error", CNDMPError::NDMP_NO_ERR)};
    if (version >= 4) fields.push_back(Num("ndmp.mover.mode", CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE));
    fields = Join(fields, {Num("ndmp.mover.state", CNDMPEnumMoverState::NDMP_MOVER_STATE_PAUSED),
                           Num("ndmp.mover.pause", CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOW),
                           Num("ndmp.halt", CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_NA), Num("ndmp.record.size", 65536),
                           Num("ndmp.record.num", 4242),
                           Num("ndmp.data.written", 0x0000000987654321ull),
                           Num("ndmp.seek.position", 0x0000000100000200ull),
                           Num("ndmp.bytes_left_to_read", 77777),
                           Num("ndmp.window.offset", 0x0000000080000000ull),
                           Num("ndmp.window.length", 0x0000000200000000ull)});
    list.Add<CNDMPMoverGetStateReply>(
        "mover", version,
        [version](auto& m) {
          m.Error = Err(CNDMPError::NDMP_NO_ERR);
          m.Mode = CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE;
          m.State = CNDMPEnumMoverState::NDMP_MOVER_STATE_PAUSED;
          m.PauseReason = CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOW;
          m.HaltReason = CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_NA;
          m.RecordSize = 65536u;
          m.RecordNum = 4242u;
          m.BytesMoved = CNDMPUQuad(0x0000000987654321ull);
          m.SeekPosition = CNDMPUQuad(0x0000000100000200ull);
          m.BytesLeftToRead = CNDMPUQuad(77777ull);
          m.WindowOffset = CNDMPUQuad(0x0000000080000000ull);
          m.WindowLength = CNDMPUQuad(0x0000000200000000ull);
          FillTcp(m.DataConnAddress, version);
        },
        Join(fields, TcpFields(version)));

    list.Add<CNDMPMoverListenRequest>(
        "mover", version,
        [](auto& m) {
          m.Mode = CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ;
          m.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP;
        },
        {Num("ndmp.mover.mode", CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ), Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_TCP)});
    list.Add<CNDMPMoverListenReply>(
        "mover", version,
        [version](auto& m) {
          m.Error = Err(CNDMPError::NDMP_NO_ERR);
          FillTcp(m.Address, version);
        },
        Join({Num("ndmp.error", CNDMPError::NDMP_NO_ERR)}, TcpFields(version)));
    list.Add<CNDMPMoverConnectRequest>(
        "mover", version,
        [version](auto& m) {
          m.Mode = CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE;
          FillTcp(m.Address, version);
        },
        Join({Num("ndmp.mover.mode", CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE)}, TcpFields(version)));
    list.Add<CNDMPMoverConnectReply>("mover", version,
                                     [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_CONNECT_ERR); },
                                     {Num("ndmp.error", CNDMPError::NDMP_CONNECT_ERR)});
  }

  list.AddEmpty<CNDMPMoverContinueRequest>("mover", 4);
  list.Add<CNDMPMoverContinueReply>("mover", 4,
                                    [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_ILLEGAL_STATE_ERR); },
                                    {Num("ndmp.error", CNDMPError::NDMP_ILLEGAL_STATE_ERR)});
  list.AddEmpty<CNDMPMoverAbortRequest>("mover", 4);
  list.Add<CNDMPMoverAbortReply>("mover", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR); },
                                 {Num("ndmp.error", CNDMPError::NDMP_NO_ERR)});
  list.AddEmpty<CNDMPMoverStopRequest>("mover", 4);
  list.Add<CNDMPMoverStopReply>("mover", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_ILLEGAL_STATE_ERR); },
                                {Num("ndmp.error", CNDMPError::NDMP_ILLEGAL_STATE_ERR)});
  list.Add<CNDMPMoverSetWindowRequest>(
      "mover", 4,
      [](auto& m) {
        m.Offset = CNDMPUQuad(0x0000000500000000ull);
        m.Length = CNDMPUQuad(0xFFFFFFFFFFFFFFFFull);
      },
      {Num("ndmp.window.offset", 0x0000000500000000ull),
       Num("ndmp.window.length", 0xFFFFFFFFFFFFFFFFull)});
  list.Add<CNDMPMoverSetWindowReply>("mover", 4,
                                     [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_PRECONDITION_ERR); },
                                     {Num("ndmp.error", CNDMPError::NDMP_PRECONDITION_ERR)});
  list.Add<CNDMPMoverReadRequest>(
      "mover", 4,
      [](auto& m) {
        m.Offset = CNDMPUQuad(0x0000000300000100ull);
        m.Length = CNDMPUQuad(1048576ull);
      },
      {Num("ndmp.window.offset", 0x0000000300000100ull), Num("ndmp.window.length", 1048576)});
  list.Add<CNDMPMoverReadReply>("mover", 4,
                                [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_READ_IN_PROGRESS_ERR); },
                                {Num("ndmp.error", CNDMPError::NDMP_READ_IN_PROGRESS_ERR)});
  list.AddEmpty<CNDMPMoverCloseRequest>("mover", 4);
  list.Add<CNDMPMoverCloseReply>("mover", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR); },
                                 {Num("ndmp.error", CNDMPError::NDMP_NO_ERR)});
  list.Add<CNDMPMoverSetRecordSizeRequest>("mover", 4, [](auto& m) { m.RecordLength = 262144u; },
                                           {Num("ndmp.record.size", 262144)});
  list.Add<CNDMPMoverSetRecordSizeReply>("mover", 4,
                                         [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_ILLEGAL_ARGS_ERR); },
                                         {Num("ndmp.error", CNDMPError::NDMP_ILLEGAL_ARGS_ERR)});
}

}  // namespace

void AddDataMoverCases(CCaseList& list) {
  AddData(list);
  AddMover(list);
}

}  // namespace com::vx::korvane::ndmpc::testing
