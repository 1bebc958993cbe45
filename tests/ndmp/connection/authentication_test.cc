// Authentication against a raw peer that offers a list of methods and
// checks what the client sends: the MD5 digest against a known answer
// computed outside the library, the fixed order MD5, text, none, and which
// outcomes set the authenticated flag.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ndmpc/md5/md5.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::AnswerOpen;
using testing::CCapturingLog;
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

const char kSecretDigest[] = "47 29 B0 81 8D 9E A5 60 EF 05 9D 13 54 E1 47 D0";

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

// Reads XDR words and strings out of a raw body.
class CBodyReader {
 public:
  explicit CBodyReader(const std::vector<unsigned char>& body) : body_(body) {}
  std::uint32_t U32() {
    if (at_ + 4 > body_.size()) {
      at_ = body_.size() + 1;
      return 0;
    }
    const unsigned char* p = body_.data() + at_;
    at_ += 4;
    return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
           (static_cast<std::uint32_t>(p[2]) << 8) | p[3];
  }
  std::vector<unsigned char> Fixed(std::size_t n) {
    if (at_ + n > body_.size()) {
      at_ = body_.size() + 1;
      return {};
    }
    std::vector<unsigned char> bytes(body_.begin() + static_cast<std::ptrdiff_t>(at_),
                                     body_.begin() + static_cast<std::ptrdiff_t>(at_ + n));
    at_ += (n + 3) / 4 * 4;
    return bytes;
  }
  std::string String() {
    std::vector<unsigned char> bytes = Fixed(U32());
    return {bytes.begin(), bytes.end()};
  }
  // True when every byte was read and no read ran past the end.
  bool AtEnd() const { return at_ == body_.size(); }

 private:
  const std::vector<unsigned char>& body_;
  std::size_t at_ = 0;
};

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

// What the peer saw of the client's attempts.
struct CAuthSeen {
  std::vector<std::string> attempts;
  std::string digest;          // hex of the MD5 digest sent
  bool wellFormed = true;      // every body decoded to its end
  std::string textId, textPassword;
};

void ServeAuthentication(CScriptPeer& p, const CAuthCase& c, CAuthSeen& seen) {
  if (AnswerOpen(p) != 4) return;
  CRawRecord info = p.ReadRecord();
  if (info.header.code != CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO) return;
  std::vector<unsigned char> types = XdrU32(static_cast<std::uint32_t>(c.offered.size()));
  for (std::uint32_t t : c.offered) types = Concat({types, XdrU32(t)});
  p.Write(ReplyRecord(info.header, Concat({XdrU32(0), XdrString("Korvane"), XdrString("Filer"),
                                           XdrString("7.1"), types})));
  for (;;) {
    CRawRecord r = p.ReadRecord();
    if (!r.complete) return;
    CBodyReader body(r.body);
    if (r.header.code == CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO) {
      // The test's end marker.
      p.Write(ReplyRecord(r.header, Concat({XdrU32(0), XdrString("h"), XdrString("o"),
                                            XdrString("v"), XdrString("i")})));
      return;
    }
    if (r.header.code == CNDMPMessageCode::NDMP_CONFIG_GET_AUTH_ATTR) {
      seen.attempts.push_back("challenge");
      seen.wellFormed &= body.U32() == 2 && body.AtEnd();
      std::vector<unsigned char> reply = Concat({XdrU32(0), XdrU32(c.challengeType)});
      if (c.challengeType == 2) reply = Concat({reply, Challenge()});
      p.Write(ReplyRecord(r.header, reply));
      continue;
    }
    if (r.header.code != CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH) {
      seen.attempts.push_back("unexpected");
      continue;
    }
    bool accepted = false;
    switch (body.U32()) {
      case 2: {
        seen.attempts.push_back("md5");
        std::string id = body.String();
        seen.digest = Hex(body.Fixed(16));
        accepted = c.digestAccepted && id == kUser && seen.digest == kSecretDigest;
        break;
      }
      case 1:
        seen.attempts.push_back("text");
        seen.textId = body.String();
        seen.textPassword = body.String();
        accepted = c.textAccepted;
        break;
      case 0:
        seen.attempts.push_back("none");
        accepted = c.noneAccepted;
        break;
      default:
        seen.attempts.push_back("unknown type");
        break;
    }
    seen.wellFormed &= body.AtEnd();
    p.Write(ReplyRecord(r.header, XdrU32(accepted ? 0u : std::uint32_t{CNDMPError::NDMP_NOT_AUTHORIZED_ERR})));
  }
}

class Authentication : public ::testing::TestWithParam<CAuthCase> {};

TEST_P(Authentication, TriesMethodsInFixedOrder) {
  const CAuthCase& c = GetParam();
  CCapturingLog log;
  CScriptPeer peer;
  CAuthSeen seen;
  peer.Run([&](CScriptPeer& p) { ServeAuthentication(p, c, seen); });
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

  EXPECT_EQ(seen.attempts, c.attempts);
  EXPECT_TRUE(seen.wellFormed);
  if (!seen.digest.empty()) {
    EXPECT_EQ(seen.digest, kSecretDigest);
  }
  if (!seen.textId.empty()) {
    EXPECT_EQ(seen.textId, kUser);
    EXPECT_EQ(seen.textPassword, kPassword);
  }
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
