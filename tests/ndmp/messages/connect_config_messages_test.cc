#include "ndmpc/ndmp/messages/connect_config_messages.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using Auth = enums::CNDMPEnumAuthType;

TEST(ConnectConfigMessages, ClientAuthEncodesTheArmOfItsType) {
  CNDMPConnectClientAuthRequest none;
  EXPECT_EQ(Hex(EncodeValue(none)), Hex(Bytes({0, 0, 0, 0})));
  // The connection builds the request first and sets the type afterwards:
  // the new type's arm is encoded.
  none.AuthenticationData.AuthenticationType = Auth::NDMP_AUTH_TEXT;
  none.AuthenticationData.TextAuthenticationData.AuthenticationID = "u";
  none.AuthenticationData.TextAuthenticationData.AuthenticationPassword = "p";
  EXPECT_EQ(Hex(EncodeValue(none)),
            Hex(Concat({Bytes({0, 0, 0, 1}), XdrString("u"), XdrString("p")})));

  CNDMPConnectClientAuthRequest text(Auth::NDMP_AUTH_TEXT);
  text.AuthenticationData.TextAuthenticationData.AuthenticationID = "bob";
  text.AuthenticationData.TextAuthenticationData.AuthenticationPassword = "secret";
  EXPECT_EQ(Hex(EncodeValue(text)),
            Hex(Concat({Bytes({0, 0, 0, 1}), XdrString("bob"), XdrString("secret")})));
  EXPECT_EQ(text.DumpContents(0),
            "\nAuthenticationData = \n{"
            "\n    AuthenticationType = 0x1:NDMP_AUTH_TEXT"
            "\n    TextAuthenticationData = \n    {"
            "\n        AuthenticationID = \"bob\""
            "\n        AuthenticationPassword = \"secret\""
            "\n    }"
            "\n}");

  // The digest is fixed-length: 16 bytes with no length word before them.
  CNDMPConnectClientAuthRequest md5(Auth::NDMP_AUTH_MD5);
  md5.AuthenticationData.MD5AuthenticationData.AuthenticationID = "root";
  SetOpaque(md5.AuthenticationData.MD5AuthenticationData.AuthenticationDigest, Counting(16));
  const auto md5Bytes = Concat({Bytes({0, 0, 0, 2}), XdrString("root"), Counting(16)});
  EXPECT_EQ(Hex(EncodeValue(md5)), Hex(md5Bytes));
  EXPECT_EQ(md5.SerializeSize(), md5Bytes.size());

  // The factory's request starts as type NONE and follows the MD5 data it receives.
  std::unique_ptr<CNDMPMessage> made(
      CNDMPMessageAccess::Make(enums::CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH, 0));
  auto* request = dynamic_cast<CNDMPConnectClientAuthRequest*>(made.get());
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(DecodeValue(md5Bytes, *request), 0);
  const CNDMPAuthMD5& back = request->AuthenticationData.MD5AuthenticationData;
  EXPECT_EQ(request->AuthenticationData.AuthenticationType, Auth::NDMP_AUTH_MD5);
  EXPECT_EQ(back.AuthenticationID.GetString(), "root");
  EXPECT_EQ(Hex(OpaqueBytes(back.AuthenticationDigest)), Hex(Counting(16)));
  EXPECT_EQ(Hex(EncodeValue(*request)), Hex(md5Bytes));
}

TEST(ConnectConfigMessages, AuthAttrCarriesTheChallengeOnlyForMd5) {
  for (const auto type : {Auth::NDMP_AUTH_NONE, Auth::NDMP_AUTH_TEXT, Auth::NDMP_AUTH_MD5}) {
    SCOPED_TRACE(type);
    CNDMPAuthAttr attr(type);
    SetOpaque(attr.Challenge, Counting(64));
    const auto expected =
        type == Auth::NDMP_AUTH_MD5 ? Concat({Words({type}), Counting(64)}) : Words({type});
    EXPECT_EQ(Hex(EncodeValue(attr)), Hex(expected));
    EXPECT_EQ(attr.SerializeSize(), expected.size());
  }
  // An MD5 attribute that receives type NONE shrinks to the type word.
  CNDMPAuthAttr attr(Auth::NDMP_AUTH_MD5);
  EXPECT_EQ(DecodeValue(Words({0}), attr), 0);
  EXPECT_EQ(attr.SerializeSize(), 4u);
  EXPECT_EQ(Hex(EncodeValue(attr)), Hex(Words({0})));
  // The default type of each union member as the messages create them.
  CNDMPConfigGetAuthAttrReply attrReply;
  CNDMPConnectServerAuthRequest serverAuth;
  CNDMPConnectServerAuthReply serverAuthReply;
  CNDMPConnectOpenRequest open;
  EXPECT_EQ(EncodeValue(attrReply).size(), 4u + 68u);
  EXPECT_EQ(EncodeValue(serverAuth).size(), 68u);
  EXPECT_EQ(Hex(EncodeValue(serverAuthReply)), Hex(Bytes({0, 0, 0, 0, 0, 0, 0, 0})));
  EXPECT_EQ(Hex(EncodeValue(open)), Hex(Bytes({0, 0, 0, 4})));
}

// The member keeps its spelling "VenderName"; an empty list received empties the array.
TEST(ConnectConfigMessages, ServerInfoDumpsItsListAndDecodesAnEmptyOne) {
  CNDMPConfigGetServerInfoReply info;
  info.VenderName = "V";
  info.ProductName = "P";
  info.RevisionNumber = "1";
  info.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_NONE);
  info.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_MD5);
  EXPECT_EQ(info.DumpContents(0),
            "\nError = 0x0:NDMP_NO_ERR"
            "\nVenderName = \"V\""
            "\nProductName = \"P\""
            "\nRevisionNumber = \"1\""
            "\nAuthenticationTypes = \n{"
            "\n    0x0:NDMP_AUTH_NONE"
            "\n    0x2:NDMP_AUTH_MD5"
            "\n}");
  // An empty list received empties the array.
  const auto bytes = Concat({Words({0}), XdrString("V"), XdrString("P"), XdrString("1.0"), Words({0})});
  EXPECT_EQ(DecodeValue(bytes, info), 0);
  EXPECT_EQ(info.AuthenticationTypes.size(), 0u);
  EXPECT_EQ(info.RevisionNumber.GetString(), "1.0");
}

// The digest is the MD5 of a 128-byte block; the expected digests were taken
// from an independent MD5 implementation over the block each case describes.
TEST(AuthMD5, ComputeDigestHashesTheFixedBlockLayout) {
  const struct {
    const char* name;
    std::string password;
    std::vector<unsigned char> challenge;
    const char* digest;
  } cases[] = {
      // Password at 0..5, challenge at 58..121, password again at 122..127.
      {"six-byte password", "secret", Counting(64, 0x80), "0d3857b52d2912b0a9997ec6d52c25d4"},
      // Zeros, then the challenge at 64..127.
      {"empty password", "", Counting(64, 0x80), "1ccfb18248afd562bb8327b6dd33b4b4"},
      // A longer challenge is cut at the block's end: "abc" at 0, 67 bytes at 61.
      {"long challenge", "abc", Counting(100, 1), "17908df37f633090791fb57ecb5b3848"},
      // A challenge shorter than the gap leaves the second copy intact at 125.
      {"short challenge", "abc", Counting(10, 1), "6242f13c1a93236c8c448c58d9ac4a8d"},
      // Over 64 bytes the password is cut to 64: challenge first, then the copy.
      {"70-byte password", std::string(70, 'x'), Counting(64, 0x80),
       "c4d7ea9969d4b0713def322ba5264c51"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CNDMPAuthMD5 record;
    CXDROpaque challenge;
    SetOpaque(challenge, c.challenge);
    EXPECT_EQ(record.ComputeDigest(c.password, challenge), 0);
    std::string digest;
    char two[3];
    for (unsigned char b : OpaqueBytes(record.AuthenticationDigest)) {
      std::snprintf(two, sizeof two, "%02x", b);
      digest += two;
    }
    EXPECT_EQ(digest, c.digest);
    // Still a fixed 16-byte field on the wire.
    EXPECT_EQ(EncodeValue(record).size(), 4u + 16u);
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
