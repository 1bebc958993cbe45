// SCSI and tape messages as tshark must read them.
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/tshark/tshark_cases.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using namespace enums;  // NOLINT: the value names read like the protocol's

CXDREnumBase<CNDMPError> Err(CNDMPError::enum_value e) { return CXDREnumBase<CNDMPError>(e); }

// An INQUIRY for 36 bytes, and a plausible answer of a tape drive.
const std::vector<unsigned char> kInquiryCdb = {0x12, 0x00, 0x00, 0x00, 0x24, 0x00};
std::vector<unsigned char> InquiryData() {
  std::vector<unsigned char> data = {0x01, 0x80, 0x06, 0x02, 0x1F, 0x00, 0x00, 0x00};
  const std::string ids = "VENDOR  TAPE DRIVE MODEL 0042";
  data.insert(data.end(), ids.begin(), ids.end());
  data.resize(36, ' ');
  return data;
}

template <class Request>
void FillCdbRequest(Request& m) {
  m.Flags = 0x1u;  // data in
  m.TimeOut = 30000u;
  m.DataInLength = 36u;
  m.CmdDataBlock.SetData(kInquiryCdb.data(), kInquiryCdb.size());
}

// "Status" is one byte of fixed-length opaque (the byte, then three bytes
// of padding), where the protocol has a 4-byte number; they agree for status
// GOOD, which is what is shown to tshark here.
void FillCdbReplyStatus(CNDMPExecuteCdbReply& m) {
  m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
  m.Status.SetData(nullptr, 0);
  m.DataOutLength = 0u;
}

// The inquiry answer. tshark hands the data-in bytes to its SCSI decoder
// and reads nothing of the body after them (the sense data's count).
void FillCdbReply(CNDMPExecuteCdbReply& m) {
  FillCdbReplyStatus(m);
  const std::vector<unsigned char> data = InquiryData();
  m.DataIn.SetData(data.data(), data.size());
}
constexpr std::size_t kAfterDataIn = 4;
const char* const kScsiTakesOver = "tshark stops after the data-in bytes, which its SCSI decoder reads";

// No data in, 18 bytes of sense data.
const std::vector<unsigned char> kSense = {0x70, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00,
                                           0x00, 0x00, 0x00, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00};
void FillCdbReplySense(CNDMPExecuteCdbReply& m) {
  FillCdbReplyStatus(m);
  m.DataOutLength = 512u;
  m.ExtSenseData.SetData(kSense.data(), kSense.size());
}

const std::vector<CExpectedField> kCdbRequestFields = {
    Num("ndmp.execute_cdb.flags", 1), Num("ndmp.execute_cdb.timeout", 30000),
    Num("ndmp.execute_cdb.datain_len", 36), Num("ndmp.execute_cdb.cdb_len", 6)};
const std::vector<CExpectedField> kCdbReplyFields = {
    Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.execute_cdb.status", 0),
    Num("ndmp.execute_cdb.dataout_len", 0), Num("ndmp.execute_cdb.datain_len", 36)};
const std::vector<CExpectedField> kCdbSenseFields = {
    Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.execute_cdb.status", 0),
    Num("ndmp.execute_cdb.dataout_len", 512), Num("ndmp.execute_cdb.datain_len", 0),
    Num("ndmp.execute_cdb.sns_len", 18)};

void AddScsi(CCaseList& list) {
  list.Add<CNDMPScsiOpenRequest>("scsi", 4, [](auto& m) { m.Device = "/dev/sg3"; },
                                 {Str("ndmp.scsi.device", "/dev/sg3")});
  list.Add<CNDMPScsiOpenReply>("scsi", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_DEVICE_OPENED_ERR); },
                               {Num("ndmp.error", CNDMPError::NDMP_DEVICE_OPENED_ERR)});
  list.AddEmpty<CNDMPScsiCloseRequest>("scsi", 4);
  list.Add<CNDMPScsiCloseReply>("scsi", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_DEV_NOT_OPEN_ERR); },
                                {Num("ndmp.error", CNDMPError::NDMP_DEV_NOT_OPEN_ERR)});
  list.AddEmpty<CNDMPScsiGetStateRequest>("scsi", 4);
  list.Add<CNDMPScsiGetStateReply>(
      "scsi", 4,
      [](auto& m) {
        m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
        m.TargetController = 2;
        m.TargetID = 5;
        m.TargetLun = 1;
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.scsi.controller", 2), Num("ndmp.scsi.id", 5),
       Num("ndmp.scsi.lun", 1)});
  list.Add<CNDMPScsiSetTargetRequest>(
      "scsi", 4,
      [](auto& m) {
        m.Device = "/dev/sg7";
        m.TargetController = 3;
        m.TargetID = 9;
        m.TargetLun = 4;
      },
      {Str("ndmp.scsi.device", "/dev/sg7"), Num("ndmp.scsi.controller", 3), Num("ndmp.scsi.id", 9),
       Num("ndmp.scsi.lun", 4)});
  list.Add<CNDMPScsiSetTargetReply>("scsi", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_DEVICE_ERR); },
                                    {Num("ndmp.error", CNDMPError::NDMP_NO_DEVICE_ERR)});
  list.AddEmpty<CNDMPScsiResetDeviceRequest>("scsi", 4);
  list.Add<CNDMPScsiResetDeviceReply>("scsi", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_IO_ERR); },
                                      {Num("ndmp.error", CNDMPError::NDMP_IO_ERR)});
  list.AddEmpty<CNDMPScsiResetBusRequest>("scsi", 4);
  list.Add<CNDMPScsiResetBusReply>("scsi", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_BUS_ERR); },
                                   {Num("ndmp.error", CNDMPError::NDMP_NO_BUS_ERR)});
  list.Add<CNDMPScsiExecuteCdbRequest>("scsi", 4, [](auto& m) { FillCdbRequest(m); },
                                       kCdbRequestFields);
  list.Add<CNDMPScsiExecuteCdbReply>("scsi", 4, [](auto& m) { FillCdbReply(m); }, kCdbReplyFields)
      .TsharkStopsEarly(kAfterDataIn, kScsiTakesOver);
  list.Add<CNDMPScsiExecuteCdbReply>("scsi", 4, [](auto& m) { FillCdbReplySense(m); },
                                     kCdbSenseFields, "Sense");
}

void AddTape(CCaseList& list) {
  list.Add<CNDMPTapeOpenRequest>(
      "tape", 4,
      [](auto& m) {
        m.Device = "/dev/nst0";
        m.Mode = CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE;
      },
      {Str("ndmp.tape.device", "/dev/nst0"), Num("ndmp.tape.open_mode", CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE)});
  list.Add<CNDMPTapeOpenReply>("tape", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_TAPE_LOADED_ERR); },
                               {Num("ndmp.error", CNDMPError::NDMP_NO_TAPE_LOADED_ERR)});
  list.AddEmpty<CNDMPTapeCloseRequest>("tape", 4);
  list.Add<CNDMPTapeCloseReply>("tape", 4, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_PERMISSION_ERR); },
                                {Num("ndmp.error", CNDMPError::NDMP_PERMISSION_ERR)});
  list.AddEmpty<CNDMPTapeGetStateRequest>("tape", 4);
  for (unsigned version : {4u, 3u}) {
    if (version == 3) list.AddEmpty<CNDMPTapeGetStateRequest>("tape", 3);
    std::vector<CExpectedField> fields = {
        Num("ndmp.tape.invalid", 0x40), Num("ndmp.error", CNDMPError::NDMP_NO_ERR),
        Num("ndmp.tape.flags", 0x9), Num("ndmp.tape.status.file_num", 17),
        Num("ndmp.tape.status.soft_errors", 3), Num("ndmp.tape.status.block_size", 65536),
        Num("ndmp.tape.status.block_no", 123456),
        Num("ndmp.tape.status.total_space", 12000000000000ull),
        Num("ndmp.tape.status.space_remain", 0x00000ABC00000DEFull)};
    if (version == 3) fields.push_back(Num("ndmp.tape.status.partition", 2));
    CTsharkCase& c = list.Add<CNDMPTapeGetStateReply>(
        "tape", version,
        [](auto& m) {
          m.Unsupported = 0x40u;
          m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
          m.Flags = 0x9u;
          m.FileNum = 17u;
          m.SoftErrors = 3u;
          m.BlockSize = 65536u;
          m.BlockNo = 123456u;
          m.TotalSpace = CNDMPUQuad(12000000000000ull);
          m.SpaceRemaining = CNDMPUQuad(0x00000ABC00000DEFull);
          m.Partition = 2u;
        },
        fields);
    if (version >= 4) {
      c.TsharkStopsEarly(4, "the version 4 reply has no partition; the class sends one always");
    }
  }
  list.Add<CNDMPTapeMtioRequest>(
      "tape", 4,
      [](auto& m) {
        m.TapeOp = CNDMPEnumMtioOp::NDMP_MTIO_BSR;
        m.Count = 12u;
      },
      {Num("ndmp.tape.mtio.op", CNDMPEnumMtioOp::NDMP_MTIO_BSR), Num("ndmp.count", 12)});
  list.Add<CNDMPTapeMtioReply>(
      "tape", 4,
      [](auto& m) {
        m.NDMP_Error = Err(CNDMPError::NDMP_EOF_ERR);
        m.ResidCount = 5u;
      },
      {Num("ndmp.error", CNDMPError::NDMP_EOF_ERR), Num("ndmp.resid_count", 5)});
  const std::vector<unsigned char> block = Pattern(37, 0x20);
  list.Add<CNDMPTapeWriteRequest>("tape", 4,
                                  [block](auto& m) { m.DataOut.SetData(block.data(), block.size()); },
                                  {Raw("ndmp.data", block)});
  list.Add<CNDMPTapeWriteReply>(
      "tape", 4,
      [](auto& m) {
        m.NDMP_Error = Err(CNDMPError::NDMP_EOM_ERR);
        m.Count = 37u;
      },
      {Num("ndmp.error", CNDMPError::NDMP_EOM_ERR), Num("ndmp.count", 37)});
  list.Add<CNDMPTapeReadRequest>("tape", 4, [](auto& m) { m.Count = 1025u; },
                                 {Num("ndmp.count", 1025)});
  const std::vector<unsigned char> readBack = Pattern(21, 0x90);
  list.Add<CNDMPTapeReadReply>(
      "tape", 4,
      [readBack](auto& m) {
        m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
        m.Data.SetData(readBack.data(), readBack.size());
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Raw("ndmp.data", readBack)});
  // A reply whose header carries an error and which still has its body.
  list.Add<CNDMPTapeReadReply>(
          "tape", 4,
          [readBack](auto& m) {
            m.NDMP_Error = Err(CNDMPError::NDMP_IO_ERR);
            m.Data.SetData(readBack.data(), 3);
          },
          {Num("ndmp.error", CNDMPError::NDMP_IO_ERR), Raw("ndmp.data", {readBack.begin(), readBack.begin() + 3})},
          "HeaderError")
      .headerError = CNDMPError::NDMP_IO_ERR;
  list.Add<CNDMPTapeExecuteCdbRequest>("tape", 4, [](auto& m) { FillCdbRequest(m); },
                                       kCdbRequestFields);
  list.Add<CNDMPTapeExecuteCdbReply>("tape", 4, [](auto& m) { FillCdbReply(m); }, kCdbReplyFields)
      .TsharkStopsEarly(kAfterDataIn, kScsiTakesOver);
  list.Add<CNDMPTapeExecuteCdbReply>("tape", 4, [](auto& m) { FillCdbReplySense(m); },
                                     kCdbSenseFields, "Sense");
}

}  // namespace

void AddScsiTapeCases(CCaseList& list) {
  AddScsi(list);
  AddTape(list);
}

}  // namespace com::vx::korvane::ndmpc::testing
