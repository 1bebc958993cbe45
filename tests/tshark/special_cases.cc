// Messages whose values tshark interprets, shown with realistic values: the
// open exchange (it sets the conversation's version), CDBs with their data
// and sense bytes (tshark's SCSI decoder reads them), and a reply with an
// error in its header.
#include "ndmpc/ndmp/messages/connect_config_messages.h"
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

// The requests and the two replies of one CDB message, for each interface.
template <class Request, class Reply>
void AddCdb(CCaseList& list, const char* family) {
  list.Add<Request>(family, 4, [](auto& m) { FillCdbRequest(m); }, kCdbRequestFields);
  list.Add<Reply>(family, 4, [](auto& m) { FillCdbReply(m); }, kCdbReplyFields)
      .TsharkStopsEarly(kAfterDataIn, kScsiTakesOver);
  list.Add<Reply>(family, 4, [](auto& m) { FillCdbReplySense(m); }, kCdbSenseFields, "Sense");
}

}  // namespace

void AddSpecialCases(CCaseList& list) {
  // Each conversation opens with these; its version is the one offered.
  for (unsigned version : {4u, 3u}) {
    list.Add<CNDMPConnectOpenRequest>(
        "connect", version,
        [version](auto& m) { m.ProtocolVersion = CXDREnumBase<CNDMPProtocolVersion>(version); },
        {Num("ndmp.version", version)});
    list.Add<CNDMPConnectOpenReply>("connect", version,
                                    [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR); },
                                    {Num("ndmp.error", CNDMPError::NDMP_NO_ERR)});
  }
  AddCdb<CNDMPScsiExecuteCdbRequest, CNDMPScsiExecuteCdbReply>(list, "scsi");
  AddCdb<CNDMPTapeExecuteCdbRequest, CNDMPTapeExecuteCdbReply>(list, "tape");
  // A reply whose header carries an error and which still has its body.
  const std::vector<unsigned char> data = Pattern(3, 0x90);
  list.Add<CNDMPTapeReadReply>(
          "tape", 4,
          [data](auto& m) {
            m.NDMP_Error = Err(CNDMPError::NDMP_IO_ERR);
            m.Data.SetData(data.data(), data.size());
          },
          {Num("ndmp.error", CNDMPError::NDMP_IO_ERR), Raw("ndmp.data", data)}, "HeaderError")
      .headerError = CNDMPError::NDMP_IO_ERR;
}

}  // namespace com::vx::korvane::ndmpc::testing
