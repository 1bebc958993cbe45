// The alternate login against a raw peer: the 8-byte handshake and its
// answer, the 688-byte login record byte for byte (credential fields
// protected by a test routine), NDMP traffic afterwards, the cases in which
// nothing may be sent, and a reconnected connection that idles.
#include <gtest/gtest.h>

#include <time.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPMessageCode;
using testing::Bytes;
using testing::CScriptPeer;
using testing::Hex;

constexpr std::size_t kLoginSize = 688;
constexpr unsigned char kMask = 0x5A;

std::string Err(const CXDREnumBase<enums::CNDMPError>& error) { return error.ToString(); }

// The test's credential protection: XOR with 0x5A, noting each field length
// (it runs on the thread that calls PAGAuthenticate).
CNDMPCredentialProtector XorRoutine(std::vector<unsigned int>& lengths) {
  return [&lengths](unsigned char* field, unsigned int length) {
    for (unsigned int i = 0; i < length; ++i) field[i] ^= kMask;
    lengths.push_back(length);
    return true;
  };
}

// The login record built here from its layout, independently of the library.
std::vector<unsigned char> ExpectedLogin(const std::string& first, const std::string& second,
                                         const char* third) {
  std::vector<unsigned char> b(kLoginSize, 0);
  b[4] = 0x03;  // 800, network order
  b[5] = 0x20;
  const std::uint16_t hostOrder680 = 680, hostOrder260 = 260;
  std::memcpy(&b[6], &hostOrder680, 2);
  for (std::size_t i = 0; i < 48; ++i) {
    b[184 + i] = static_cast<unsigned char>((i < first.size() ? first[i] : 0) ^ kMask);
  }
  for (std::size_t i = 0; i < 24; ++i) {
    b[232 + i] = static_cast<unsigned char>((i < second.size() ? second[i] : 0) ^ kMask);
  }
  std::memcpy(&b[256], &hostOrder260, 2);
  b[259] = 0x0E;
  b[263] = 1;  // 1, network order
  if (third != nullptr && std::strlen(third) < 52) {
    std::memcpy(&b[264], third, std::strlen(third));  // the terminator is the zero after it
  }
  b[431] = 1;  // 1, network order
  b[686] = 0x17;
  return b;
}

// The 8-byte answer to the handshake (its last two bytes the length of the
// body that follows), then the body.
std::vector<unsigned char> HandshakeAnswer(const std::vector<unsigned char>& body) {
  const int size = static_cast<int>(body.size());
  return testing::Concat({Bytes({0, 0, 0x53, 0, 0, 0, size >> 8, size & 0xFF}), body});
}

// What the peer read of the alternate login.
struct CLoginSeen {
  std::string handshake;
  std::vector<unsigned char> login;
  std::vector<std::uint32_t> requestSequences;  // of the NDMP requests after the login
  bool trafficInOrder = true;                   // every one asked for host information
};

// Answers the handshake with a body longer than the client's 224-byte
// buffer (to be read and dropped whole, or the streams fall out of step),
// then the login; with `traffic`, then posts NDMP_NOTIFY_DATA_HALTED and
// answers every request with host information. Reads until the client closes.
CScriptPeer::Script AlternateServer(CLoginSeen& seen, bool traffic = true) {
  return [&seen, traffic](CScriptPeer& p) {
    seen.handshake = Hex(p.ReadBytes(8));
    p.Write(HandshakeAnswer(std::vector<unsigned char>(1000, 0xEE)));
    seen.login = p.ReadBytes(kLoginSize);
    p.Write(Bytes({9, 9, 9, 9, 9, 9, 9, 9}));
    if (!traffic) {
      p.ReadUntilClosed();
      return;
    }
    p.Write(testing::PostRecord(
        CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED,
        testing::XdrU32(enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_SUCCESSFUL)));
    for (testing::CRawRecord r = p.ReadRecord(); r.complete; r = p.ReadRecord()) {
      seen.trafficInOrder &= testing::IsHostInfoRequest(r);
      seen.requestSequences.push_back(r.header.sequence);
      p.Write(testing::ReplyRecord(r.header, testing::HostInfoBody()));
    }
  };
}

class AlternateMode : public ::testing::Test {
 protected:
  std::string AskHost() { return testing::AskHost(client); }

  testing::CCapturingLog log;
  CScriptPeer peer;
  std::vector<unsigned int> lengths;  // of the fields protected
  CLoginSeen seen;
  testing::CPacketRecorder halted;  // outlives the client that offers it packets
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", log, peer.port()};
};

// Which protection routine the connection finds.
enum class Routine { kOwn, kDefault, kNone, kFailing };

// Texts at and beyond the widths of their fields, and routines that refuse.
struct CLoginCase {
  const char* name;
  std::string first;
  std::string second;
  const char* third;
  Routine routine;
  const char* refusal;  // logged when the login is not sent, else null
};

class AlternateModeLogin : public AlternateMode,
                           public ::testing::WithParamInterface<CLoginCase> {};

TEST_P(AlternateModeLogin, HandshakeLoginThenNdmpTrafficOrNothing) {
  const CLoginCase& c = GetParam();
  peer.Run(AlternateServer(seen));
  // The default routine is process-wide: it is removed again whatever happens.
  struct CDefaultRoutine {
    explicit CDefaultRoutine(CNDMPCredentialProtector routine) {
      CNDMPConnection::SetDefaultCredentialProtector(std::move(routine));
    }
    ~CDefaultRoutine() { CNDMPConnection::SetDefaultCredentialProtector(nullptr); }
  };
  std::unique_ptr<CDefaultRoutine> defaultRoutine;
  if (c.routine == Routine::kDefault) {
    defaultRoutine = std::make_unique<CDefaultRoutine>(XorRoutine(lengths));
  }
  if (c.routine == Routine::kOwn) client.SetCredentialProtector(XorRoutine(lengths));
  if (c.routine == Routine::kFailing) {
    client.SetCredentialProtector([](unsigned char*, unsigned int) { return false; });
  }
  client.RegisterCallback(&halted, CXDREnumBase<CNDMPMessageCode>(
                                       CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));

  ASSERT_EQ(Err(client.PAGConnect()), "NDMP_NO_ERR");
  EXPECT_TRUE(client.IsConnected());
  if (c.refusal != nullptr) {
    // Credentials are never sent unprotected: nothing follows the handshake.
    EXPECT_EQ(Err(client.PAGAuthenticate(c.first.c_str(), c.second.c_str(), c.third)),
              "NDMP_NOT_AUTHORIZED_ERR");
    EXPECT_TRUE(log.Contains(testing::HandleTag(&client) + " " + c.refusal)) << c.refusal;
    client.Disconnect();
    ASSERT_TRUE(peer.Join());
    EXPECT_TRUE(seen.login.empty()) << Hex(seen.login);
    return;
  }
  ASSERT_EQ(Err(client.PAGAuthenticate(c.first.c_str(), c.second.c_str(), c.third)),
            "NDMP_NO_ERR");
  EXPECT_FALSE(client.IsAuthenticated());
  EXPECT_EQ(client.GetProtocolVersion().getInt32(), 4u);
  // From here on the connection speaks NDMP records.
  ASSERT_EQ(halted.WaitFor(1), 1u);
  EXPECT_EQ(AskHost(), "filer-7");
  // A second login is not sent: the next bytes are the next request.
  EXPECT_EQ(Err(client.PAGAuthenticate("operator", "pa55word", "backup-host")), "NDMP_NO_ERR");
  EXPECT_EQ(AskHost(), "filer-7");
  client.Disconnect();
  ASSERT_TRUE(peer.Join());

  EXPECT_EQ(seen.handshake, "00 00 53 00 00 00 00 00");
  EXPECT_EQ(Hex(seen.login), Hex(ExpectedLogin(c.first, c.second, c.third)));
  EXPECT_EQ(lengths, (std::vector<unsigned int>{48, 24}));
  EXPECT_TRUE(seen.trafficInOrder);
  EXPECT_EQ(seen.requestSequences, (std::vector<std::uint32_t>{1, 2}));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AlternateModeLogin,
    ::testing::Values(
        CLoginCase{"Typical", "operator", "pa55word", "backup-host", Routine::kOwn, nullptr},
        // 60 characters fill the 48-byte field without a terminator; 51 still fit.
        CLoginCase{"LongFirstThird51", std::string(60, 'u'), std::string(30, 'p'),
                   "012345678901234567890123456789012345678901234567890", Routine::kOwn, nullptr},
        CLoginCase{"Third52IsNotSent", "op", "pw",
                   "0123456789012345678901234567890123456789012345678901", Routine::kOwn, nullptr},
        CLoginCase{"NoThirdWithDefaultRoutine", "", "", nullptr, Routine::kDefault, nullptr},
        CLoginCase{"NoRoutine", "operator", "pw", "host", Routine::kNone,
                   "No credential protection routine is set; alternate login not sent"},
        CLoginCase{"RoutineFails", "operator", "pw", "host", Routine::kFailing,
                   "Credential protection failed; alternate login not sent"}),
    [](const ::testing::TestParamInfo<CLoginCase>& param) { return param.param.name; });

TEST_F(AlternateMode, LoginIsSentOnlyOnAConnectionInTheAlternateMode) {
  client.SetCredentialProtector(XorRoutine(lengths));
  // Idle: nothing to do.
  EXPECT_EQ(Err(client.PAGAuthenticate("operator", "pw", "host")), "NDMP_NO_ERR");
  // Connected in the alternate mode, then disconnected before the login.
  peer.Run(AlternateServer(seen, false));
  ASSERT_EQ(Err(client.PAGConnect()), "NDMP_NO_ERR");
  client.Disconnect();
  ASSERT_TRUE(peer.Join());
  EXPECT_TRUE(seen.login.empty());

  // An ordinary connection afterwards gets no login record: the next
  // request is answered in step.
  CScriptPeer ordinary;
  ordinary.Run([](CScriptPeer& p) { testing::ServeHostInfo(p); });
  client.SetPort(ordinary.port());
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  EXPECT_EQ(Err(client.PAGAuthenticate("operator", "pw", "host")), "NDMP_NO_ERR");
  EXPECT_EQ(AskHost(), "filer-7");
  client.Disconnect();
  ASSERT_TRUE(ordinary.Join());
  EXPECT_TRUE(lengths.empty());
}

double ProcessCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

TEST_F(AlternateMode, ReconnectedConnectionIdlesWhileNothingArrives) {
  client.SetCredentialProtector(XorRoutine(lengths));
  peer.Run(AlternateServer(seen, false));
  ASSERT_EQ(Err(client.PAGConnect()), "NDMP_NO_ERR");
  ASSERT_EQ(Err(client.PAGAuthenticate("operator", "pw", "host")), "NDMP_NO_ERR");
  client.Disconnect();
  ASSERT_TRUE(peer.Join());

  CScriptPeer second;
  CLoginSeen secondSeen;
  second.Run(AlternateServer(secondSeen, false));
  client.SetPort(second.port());
  ASSERT_EQ(Err(client.PAGConnect()), "NDMP_NO_ERR");
  // The login pauses 600 ms with the new threads running and nothing to
  // read: a dispatch thread that found its queue's event still set from the
  // previous connection would spin through the whole pause.
  const double before = ProcessCpuSeconds();
  ASSERT_EQ(Err(client.PAGAuthenticate("operator", "pw", "host")), "NDMP_NO_ERR");
  EXPECT_LT(ProcessCpuSeconds() - before, 0.1);
  client.Disconnect();
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
