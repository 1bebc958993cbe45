// Authentication against a raw peer that offers a list of methods and
// checks what the client sends: the MD5 digest against a known answer
// computed outside the library, the fixed order MD5, text, none, and which
// outcomes set the authenticated flag.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::Concat;
using testing::CRawRecord;
using testing::CScriptPeer;
using testing::Hex;
using testing::ReplyRecord;
using testing::XdrString;
using testing::XdrU32;

const char kUser[] = "ndmp";
const char kPassword[] = "secret";

std::vector<unsigned char> Challenge() {
  std::vector<unsigned char> challenge(64);
  for (std::size_t i = 0; i < challenge.size(); ++i) {
    challenge[i] = static_cast<unsigned char>(i * 7 + 3);
  }
  return challenge;
}

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

// The NDMP_CONNECT_CLIENT_AUTH bodies a correct client sends, built here;
// the digest of kPassword and Challenge() is a known answer computed outside
// the library.
std::vector<unsigned char> Md5Body() {
  return Concat({XdrU32(2), XdrString(kUser),
                 testing::Bytes({0x47, 0x29, 0xB0, 0x81, 0x8D, 0x9E, 0xA5, 0x60, 0xEF, 0x05, 0x9D,
                                 0x13, 0x54, 0xE1, 0x47, 0xD0})});
}
std::vector<unsigned char> TextBody() {
  return Concat({XdrU32(1), XdrString(kUser), XdrString(kPassword)});
}

// One server: what it offers and accepts, and what the client should do.
struct CAuthCase {
  const char* name;
  std::vector<std::uint32_t> offered;
  std::uint32_t challengeType;  // the type the challenge reply names
  bool digestAccepted;
  bool textAccepted;
  bool noneAccepted;
  std::vector<std::string> attempts;  // requests after the server information, in order
  const char* result;
  bool authenticated;
  bool stored;             // credentials kept by the connection
  const char* logged;      // a line the client logs, or ""
};

// Records each attempt by name; an attempt whose body differs from what a
// correct client sends is recorded with its bytes.
void ServeAuthentication(CScriptPeer& p, const CAuthCase& c, std::vector<std::string>& attempts) {
  if (testing::AnswerOpen(p) != 4) return;
  CRawRecord info = p.ReadRecord();
  if (info.header.code != CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO) return;
  std::vector<unsigned char> types = XdrU32(static_cast<std::uint32_t>(c.offered.size()));
  for (std::uint32_t t : c.offered) types = Concat({types, XdrU32(t)});
  p.Write(ReplyRecord(info.header, Concat({XdrU32(0), XdrString("Korvane"), XdrString("Filer"),
                                           XdrString("7.1"), types})));
  for (;;) {
    CRawRecord r = p.ReadRecord();
    if (!r.complete) return;
    if (r.header.code == CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO) {
      p.Write(ReplyRecord(r.header, testing::HostInfoBody()));  // the test's end marker
      return;
    }
    if (r.header.code == CNDMPMessageCode::NDMP_CONFIG_GET_AUTH_ATTR && r.body == XdrU32(2)) {
      attempts.push_back("challenge");
      std::vector<unsigned char> reply = Concat({XdrU32(0), XdrU32(c.challengeType)});
      if (c.challengeType == 2) reply = Concat({reply, Challenge()});
      p.Write(ReplyRecord(r.header, reply));
      continue;
    }
    bool accepted = false;
    if (r.header.code != CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH) {
      attempts.push_back("unexpected " + Hex(r.body));
    } else if (r.body == Md5Body()) {
      attempts.push_back("md5");
      accepted = c.digestAccepted;
    } else if (r.body == TextBody()) {
      attempts.push_back("text");
      accepted = c.textAccepted;
    } else if (r.body == XdrU32(0)) {
      attempts.push_back("none");
      accepted = c.noneAccepted;
    } else {
      attempts.push_back("malformed " + Hex(r.body));
    }
    p.Write(ReplyRecord(
        r.header, XdrU32(accepted ? 0u : std::uint32_t{CNDMPError::NDMP_NOT_AUTHORIZED_ERR})));
  }
}

class Authentication : public ::testing::TestWithParam<CAuthCase> {};

TEST_P(Authentication, TriesMethodsInFixedOrder) {
  const CAuthCase& c = GetParam();
  testing::CCapturingLog log;
  CScriptPeer peer;
  std::vector<std::string> attempts;
  peer.Run([&](CScriptPeer& p) { ServeAuthentication(p, c, attempts); });
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, peer.port());
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");

  EXPECT_EQ(Err(client.Authenticate(kUser, kPassword)), c.result);
  EXPECT_EQ(client.IsAuthenticated(), c.authenticated);
  EXPECT_EQ(std::string(client.GetUserName()), c.stored ? kUser : "");
  EXPECT_EQ(std::string(client.GetPassword()), c.stored ? kPassword : "");
  if (*c.logged != '\0') {
    EXPECT_TRUE(log.Contains(c.logged)) << c.logged;
  }

  // Ends the peer's script once everything before it has been answered.
  CNDMPConfigGetHostInfoRequest end;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(client.SendMessage(end, &reply, 10)), "NDMP_NO_ERR");
  client.FreeMessage(reply);
  ASSERT_TRUE(peer.Join());
  EXPECT_EQ(attempts, c.attempts);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, Authentication,
    ::testing::Values(
        CAuthCase{"Md5Accepted", {0, 1, 2}, 2, true, true, true, {"challenge", "md5"},
                  "NDMP_NO_ERR", true, true, "Authenticated with filer"},
        CAuthCase{"DigestRefusedFallsBackToText", {2, 1}, 2, false, true, false,
                  {"challenge", "md5", "text"}, "NDMP_NO_ERR", false, true,
                  "CNDMPConnection::Authenticate  Failed to authenticate with MD5"},
        CAuthCase{"ChallengeOfAnotherType", {2, 0}, 1, true, false, true, {"challenge", "none"},
                  "NDMP_NO_ERR", false, true,
                  "(CNDMPConnection::MD5Authenticate) Invalid Auth type returned"},
        CAuthCase{"NoneOnly", {0}, 2, false, false, true, {"none"}, "NDMP_NO_ERR", false, true,
                  "Authenticated with filer using NONE method"},
        CAuthCase{"EveryMethodRefused", {0, 1, 2}, 2, false, false, false,
                  {"challenge", "md5", "text", "none"}, "NDMP_NOT_AUTHORIZED_ERR", false, false,
                  ""},
        CAuthCase{"EmptyList", {}, 2, true, true, true, {}, "NDMP_NOT_AUTHORIZED_ERR", false,
                  false, ""},
        CAuthCase{"UnknownTypeIsNamed", {9, 1}, 2, false, true, false, {"text"}, "NDMP_NO_ERR",
                  false, true, "Unsupported authentication type = UNKNOWN seen."}),
    [](const ::testing::TestParamInfo<CAuthCase>& param) { return param.param.name; });

}  // namespace
}  // namespace com::vx::korvane::ndmpc
