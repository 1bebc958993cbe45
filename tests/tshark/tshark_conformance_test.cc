// Wire conformance of the message catalogue against an independent decoder:
// every standard message is encoded with the real packet and record stream,
// written into a capture as the two directions of NDMP conversations, and
// decoded by tshark; each message must come back without decoder complaints
// and with the header and body fields we encoded.
//
// The suite skips itself when tshark is not installed.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"
#include "tests/tshark/pcap_writer.h"
#include "tests/tshark/tshark_cases.h"
#include "tests/tshark/tshark_runner.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

// Header and capture time of the first message: within the years tshark
// accepts for an NDMP time stamp.
constexpr std::uint32_t kStartTime = 1700000000u;
constexpr std::uint32_t kClientIp = Ipv4(127, 0, 0, 1);
constexpr std::uint32_t kServerIp = Ipv4(127, 0, 0, 2);
constexpr std::uint16_t kNdmpPort = 10000;  // the only port tshark decodes NDMP on
// Keeps every message inside one segment of a hand-made frame.
constexpr std::size_t kMaxRecord = 60000;

// What was sent for one case.
struct CSent {
  std::size_t frame = 0;
  std::uint32_t sequence = 0;
  std::uint32_t replySequence = 0;
  std::size_t requestFrame = 0;  // for a reply: the frame of its request
  std::uint32_t timeStamp = 0;
  std::size_t bodyLength = 0;
  std::string problem;  // set when the case could not be encoded
};

struct CRun {
  std::string tshark;  // empty: not installed
  std::string error;   // the capture could not be written or decoded
  std::string pcapPath;
  std::string pdmlPath;
  std::vector<CSent> sent;                 // by case index
  std::map<std::size_t, CPdmlPacket> packets;  // by frame number
  bool failed = false;
};

CRun* g_run = nullptr;

// tshark's expert text for a code it has no dissector for.
const char* const kUnknownMessage = "warning: Unknown type of NDMP message";

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// The packet's record bytes, fragment headers included, as the stream sends them.
std::vector<unsigned char> EncodePacket(CNDMPMessage& body, unsigned version,
                                        const CSent& header, std::uint32_t headerError,
                                        std::string* problem) {
  CNDMPMessagePacket packet(CNDMPMessageAccess::Code(body), CNDMPMessageAccess::Type(body),
                            CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  packet.GetHeader().Sequence = header.sequence;
  packet.GetHeader().TimeStamp = header.timeStamp;
  packet.GetHeader().ReplySequence = header.replySequence;
  packet.GetHeader().ErrorCode = CXDREnumBase<enums::CNDMPError>(headerError);
  packet.SetMessage(body);
  int serialized = 0;
  int flushed = 0;
  std::vector<unsigned char> raw = CaptureRecordBytes([&](CXDRStream& stream) {
    serialized = packet.Serialize(stream);
    flushed = stream.flushRecord();
  });
  if (serialized == XDR_FAILURE || flushed == XDR_FAILURE) *problem = "encoding failed";
  return raw;
}

// The order of one conversation: the open exchange first (request, then
// reply), the close last.
std::vector<std::size_t> ConversationOrder(const std::vector<CTsharkCase>& cases, unsigned version) {
  std::vector<std::size_t> order;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    if (cases[i].version == version) order.push_back(i);
  }
  auto rank = [&](std::size_t i) {
    const std::uint32_t code = cases[i].code;
    return code == enums::CNDMPMessageCode::NDMP_CONNECT_OPEN    ? cases[i].type
           : code == enums::CNDMPMessageCode::NDMP_CONNECT_CLOSE ? 3u
                                                                 : 2u;
  };
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return rank(a) < rank(b); });
  return order;
}

std::string TempPath(const std::string& suffix) {
  std::string path = "/tmp/ndmpc_tshark_XXXXXX" + suffix;
  const int fd = ::mkstemps(path.data(), static_cast<int>(suffix.size()));
  if (fd < 0) return std::string();
  ::close(fd);
  return path;
}

void BuildAndDecode(CRun& run) {
  const std::vector<CTsharkCase>& cases = AllTsharkCases();
  run.sent.resize(cases.size());
  CPcapWriter pcap;
  std::uint32_t sequence = 1;
  std::uint32_t clock = kStartTime;
  for (unsigned version : {4u, 3u}) {
    CTcpConversation conversation(pcap, kClientIp, static_cast<std::uint16_t>(40000 + version),
                                  kServerIp, kNdmpPort, clock);
    conversation.Open();
    std::map<std::uint32_t, std::pair<std::uint32_t, std::size_t>> lastRequest;  // code -> seq, frame
    for (std::size_t index : ConversationOrder(cases, version)) {
      const CTsharkCase& c = cases[index];
      CSent& sent = run.sent[index];
      const bool reply = c.type != enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST;
      const bool post = c.code >= 0x500 && c.code < 0x800;
      sent.sequence = sequence++;
      sent.timeStamp = clock++;
      if (reply) {
        sent.replySequence = lastRequest[c.code].first;
        sent.requestFrame = lastRequest[c.code].second;
      }
      std::unique_ptr<CNDMPMessage> body = c.make();
      std::vector<unsigned char> raw =
          EncodePacket(*body, c.version, sent, c.headerError, &sent.problem);
      const std::vector<unsigned char> payload = StripRecordMarks(raw);
      if (payload.size() < 24 || raw.size() > kMaxRecord) {
        sent.problem += " record of " + std::to_string(raw.size()) + " bytes";
        continue;
      }
      sent.bodyLength = payload.size() - 24;
      // Requests travel to the server; replies and posts come from it.
      sent.frame = conversation.Send(!reply && !post, raw);
      if (!reply) lastRequest[c.code] = {sent.sequence, sent.frame};
    }
    conversation.Close();
    clock += 100;
  }

  run.pcapPath = TempPath(".pcap");
  run.pdmlPath = TempPath(".pdml");
  if (run.pcapPath.empty() || run.pdmlPath.empty() || !pcap.WriteFile(run.pcapPath)) {
    run.error = "cannot write the capture under /tmp";
    return;
  }
  std::string error;
  if (!RunTshark(run.tshark,
                 {"-n", "-r", run.pcapPath, "-T", "pdml"},
                 run.pdmlPath, &error)) {
    run.error = error;
    return;
  }
  for (CPdmlPacket& p : ParsePdml(ReadFile(run.pdmlPath))) run.packets[p.number] = std::move(p);
}

// The fields of the NDMP layer that tshark read from the bytes (generated
// items, such as the version it assumes, have no size).
std::vector<const CPdmlField*> NdmpFields(const CPdmlPacket& packet, const std::string& name) {
  std::vector<const CPdmlField*> found;
  for (const CPdmlField& f : packet.fields) {
    if (f.proto == "ndmp" && f.name == name && f.size > 0) found.push_back(&f);
  }
  return found;
}

bool Matches(const CExpectedField& want, const CPdmlField& got) {
  switch (want.kind) {
    case CExpectedField::kNumber: {
      if (got.show.empty()) return false;
      char* end = nullptr;
      const unsigned long long value = std::strtoull(got.show.c_str(), &end, 0);
      return *end == '\0' && std::to_string(value) == want.expected;
    }
    case CExpectedField::kText:
      return Lower(got.value) == HexOf(want.expected);
    case CExpectedField::kIpv4:
      return got.show == want.expected;
    case CExpectedField::kBytes:
      return Lower(got.value) == want.expected;
  }
  return false;
}

std::string Describe(const std::vector<const CPdmlField*>& fields) {
  std::ostringstream out;
  for (const CPdmlField* f : fields) out << "\n      " << f->showname << " [" << f->value << "]";
  if (fields.empty()) out << " (none)";
  return out.str();
}

// The capture is built and decoded once per process, on first use, and
// removed at the end unless a test failed.
CRun& Capture() {
  if (g_run == nullptr) {
    g_run = new CRun;
    g_run->tshark = FindTshark();
    if (!g_run->tshark.empty()) BuildAndDecode(*g_run);
  }
  return *g_run;
}

class CTsharkCleanup : public ::testing::Environment {
 public:
  void TearDown() override {
    if (g_run == nullptr) return;
    if (g_run->failed || !g_run->error.empty()) {
      std::printf("tshark conformance: capture kept at %s, tshark output at %s\n",
                  g_run->pcapPath.c_str(), g_run->pdmlPath.c_str());
    } else {
      if (!g_run->pcapPath.empty()) std::remove(g_run->pcapPath.c_str());
      if (!g_run->pdmlPath.empty()) std::remove(g_run->pdmlPath.c_str());
    }
    delete g_run;
    g_run = nullptr;
  }
};
::testing::Environment* const g_cleanup = ::testing::AddGlobalTestEnvironment(new CTsharkCleanup);

// Checks one message against what tshark made of its frame.
void CheckCase(const CTsharkCase& c, const CSent& sent) {
  SCOPED_TRACE(c.name + " (frame " + std::to_string(sent.frame) + ")");
  ASSERT_TRUE(sent.problem.empty()) << sent.problem;
  auto found = Capture().packets.find(sent.frame);
  ASSERT_TRUE(found != Capture().packets.end()) << "tshark did not show frame " << sent.frame;
  const CPdmlPacket& packet = found->second;
  ASSERT_TRUE(packet.HasProtocol("ndmp")) << "tshark did not decode the frame as NDMP";
  const bool unknown = !packet.Find("ndmp.msg.unknown").empty();
  if (unknown && !c.unknownToTshark) ADD_FAILURE() << "tshark did not know the message";
  for (const CTsharkProblem& problem : ProblemsOf(packet)) {
    if (unknown && c.unknownToTshark && problem.text == kUnknownMessage) continue;
    ADD_FAILURE() << "tshark (" << problem.proto << "): " << problem.text;
  }

  // Header.
  const std::vector<CExpectedField> header = {
      Num("ndmp.sequence", sent.sequence), Num("ndmp.msg_type", c.type), Num("ndmp.msg", c.code),
      Num("ndmp.reply_sequence", sent.replySequence), Raw("ndmp.timestamp", Words({sent.timeStamp}))};
  for (const CExpectedField& want : header) {
    const auto got = NdmpFields(packet, want.field);
    EXPECT_TRUE(got.size() == 1 && Matches(want, *got[0]))
        << want.field << ": expected " << want.expected << ", tshark shows" << Describe(got);
  }
  auto errors = NdmpFields(packet, "ndmp.error");
  ASSERT_FALSE(errors.empty()) << "tshark shows no header error";
  EXPECT_TRUE(Matches(Num("ndmp.error", c.headerError), *errors[0]))
      << "header ndmp.error: expected " << c.headerError << ", tshark shows"
      << Describe({errors[0]});
  // tshark pairs a reply with its request by the sequence numbers.
  if (sent.requestFrame != 0) {
    const auto links = packet.Find("ndmp.request_frame");
    EXPECT_TRUE(links.size() == 1 && links[0]->show == std::to_string(sent.requestFrame))
        << "tshark does not pair the reply with its request in frame " << sent.requestFrame
        << Describe(links);
  }

  if (unknown) return;  // tshark reads the header only; nothing more to compare

  // The body: tshark must read up to its last byte (but for a known,
  // documented tail).
  const auto headers = NdmpFields(packet, "ndmp.header");
  ASSERT_EQ(headers.size(), 1u) << "NDMP headers tshark shows";
  const std::size_t end = headers[0]->pos + headers[0]->size + sent.bodyLength;
  // What tshark's SCSI decoder reads of CDB, data and sense bytes counts.
  std::size_t readUpTo = 0;
  for (const CPdmlField& f : packet.fields) {
    if ((f.proto == "ndmp" || f.proto.rfind("scsi", 0) == 0) && !f.name.empty() && f.size > 0) {
      readUpTo = std::max(readUpTo, f.pos + f.size);
    }
  }
  // Padding to the next 4-byte boundary is not always shown.
  const std::size_t start = headers[0]->pos;
  if (readUpTo > start) readUpTo = start + (readUpTo - start + 3) / 4 * 4;
  EXPECT_TRUE(readUpTo == end || readUpTo + c.undecodedTail == end)
      << "tshark read the body up to byte " << readUpTo - start - 24 << " of " << sent.bodyLength
      << " (or " << c.undecodedTail << " bytes short of it: " << c.note << ")";

  // Body fields: per field name, every value tshark shows, in order.
  std::map<std::string, std::vector<const CExpectedField*>> wanted;
  std::vector<std::string> order;
  for (const CExpectedField& want : c.fields) {
    if (wanted[want.field].empty()) order.push_back(want.field);
    wanted[want.field].push_back(&want);
  }
  for (const std::string& name : order) {
    std::vector<const CPdmlField*> got = NdmpFields(packet, name);
    if (name == "ndmp.error" && !got.empty()) got.erase(got.begin());  // the header's
    const auto& want = wanted[name];
    bool same = got.size() == want.size();
    for (std::size_t i = 0; same && i < want.size(); ++i) same = Matches(*want[i], *got[i]);
    std::ostringstream expected;
    for (const CExpectedField* w : want) expected << " " << w->expected;
    EXPECT_TRUE(same) << name << ":\n    expected" << expected.str() << "\n    tshark shows"
                      << Describe(got);
  }
}

// Every case, each failure naming its message; a failure keeps the capture.
TEST(TsharkConformance, EveryMessageDecodesAsEncoded) {
  if (Capture().tshark.empty()) {
    GTEST_SKIP() << "tshark is not installed (Debian package tshark); the NDMP wire "
                    "conformance tests need it";
  }
  ASSERT_TRUE(Capture().error.empty()) << Capture().error;
  const std::vector<CTsharkCase>& cases = AllTsharkCases();
  for (std::size_t i = 0; i < cases.size(); ++i) CheckCase(cases[i], Capture().sent[i]);
  Capture().failed = ::testing::Test::HasFailure();
}

// Every standard message (codes below the extension range) has a case, in
// both directions of each exchange.
TEST(TsharkConformanceCoverage, CoversEveryStandardMessage) {
  std::set<std::pair<std::uint32_t, std::uint32_t>> covered;
  for (const CTsharkCase& c : AllTsharkCases()) covered.insert({c.code, c.type});
  for (const CNDMPFactoryEntry& row : NDMPFactoryTable()) {
    const std::string name = enums::CNDMPMessageCode::ToString(row.code);
    EXPECT_TRUE(row.code >= 0x2000 || covered.count({row.code, 0})) << name << " has no case";
    EXPECT_TRUE(row.code >= 0x2000 || row.makeRequest == row.makeReply || covered.count({row.code, 1}))
        << name << " reply has no case";
  }
}

// Every member of every catalogue case names the tshark field it shows as.
TEST(TsharkConformanceCoverage, EveryMemberHasATsharkField) {
  for (const std::string& path : MembersWithoutTsharkField()) ADD_FAILURE() << path;
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
