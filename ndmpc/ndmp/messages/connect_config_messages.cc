#include "ndmpc/ndmp/messages/connect_config_messages.h"

#include <algorithm>
#include <cstring>

#include "ndmpc/md5/md5.h"
#include "ndmpc/ndmp/messages/message_factory.h"

namespace com::vx::korvane::ndmpc {

int CNDMPAuthMD5::ComputeDigest(const VxString& password, const CXDROpaque& challenge) {
  constexpr std::size_t kBlock = 128;
  constexpr std::size_t kHalf = 64;
  unsigned char block[kBlock] = {};
  // A password longer than half the block would put the challenge before the
  // block's start; it is cut to 64 bytes so that the layout stays inside.
  const std::size_t length = std::min(password.size(), kHalf);
  std::memcpy(block, password.data(), length);
  std::memcpy(block + kBlock - length, password.data(), length);
  // Written last, so the challenge overwrites the password copy it meets.
  const std::size_t start = kHalf - length;
  const std::size_t count =
      std::min(static_cast<std::size_t>(challenge.GetSize()), kBlock - start);
  if (count != 0) std::memcpy(block + start, challenge.GetData(), count);

  MD5_CTX context;
  unsigned char digest[16];
  MD5Init(&context);
  MD5Update(&context, block, static_cast<unsigned int>(kBlock));
  MD5Final(digest, &context);
  AuthenticationDigest.SetData(digest, sizeof(digest));
  return 0;
}

CIXDR* CNDMPAuthData::SelectArm(std::uint32_t type, const char** name) {
  switch (type) {
    case enums::CNDMPEnumAuthType::NDMP_AUTH_TEXT:
      *name = "TextAuthenticationData";
      return &TextAuthenticationData;
    case enums::CNDMPEnumAuthType::NDMP_AUTH_MD5:
      *name = "MD5AuthenticationData";
      return &MD5AuthenticationData;
    default:
      return nullptr;
  }
}

CIXDR* CNDMPAuthAttr::SelectArm(std::uint32_t type, const char** name) {
  if (type != enums::CNDMPEnumAuthType::NDMP_AUTH_MD5) return nullptr;
  *name = "Challenge";
  return &Challenge;
}

void AddConnectConfigFactoryEntries(std::vector<CNDMPFactoryEntry>& table) {
  table.insert(
      table.end(),
      {
          FactoryPair<CNDMPConfigGetHostInfoRequest, CNDMPConfigGetHostInfoReply>(),
          FactoryPair<CNDMPConfigGetConnectionTypeRequest, CNDMPConfigGetConnectionTypeReply>(),
          FactoryPair<CNDMPConfigGetAuthAttrRequest, CNDMPConfigGetAuthAttrReply>(),
          FactoryPair<CNDMPConfigGetButypeAttrRequest, CNDMPConfigGetButypeAttrReply>(),
          FactoryPair<CNDMPConfigGetFsInfoRequest, CNDMPConfigGetFsInfoReply>(),
          FactoryPair<CNDMPConfigGetTapeInfoRequest, CNDMPConfigGetTapeInfoReply>(),
          FactoryPair<CNDMPConfigGetSCSIInfoRequest, CNDMPConfigGetSCSIInfoReply>(),
          FactoryPair<CNDMPConfigGetServerInfoRequest, CNDMPConfigGetServerInfoReply>(),
          FactoryPair<CNDMPConfigSetExtListRequest, CNDMPConfigSetExtListReply>(),
          FactoryPair<CNDMPConfigGetExtListRequest, CNDMPConfigGetExtListReply>(),
          FactoryPair<CNDMPConnectOpenRequest, CNDMPConnectOpenReply>(),
          // The request side is made with authentication type 0 (the default).
          FactoryPair<CNDMPConnectClientAuthRequest, CNDMPConnectClientAuthReply>(),
          FactorySingle<CNDMPConnectCloseRequest>(),
          FactoryPair<CNDMPConnectServerAuthRequest, CNDMPConnectServerAuthReply>(),
          FactoryPair<CNDMPConfigUMSGetXCBRequest, CNDMPConfigUMSGetXCBRequestReply>(),
          FactoryPair<CNDMPCabGetFsInfoRequest, CNDMPCabGetFsInfoReply>(),
          FactoryPair<CNDMPCabGetTapeInfoRequest, CNDMPCabGetTapeInfoReply>(),
      });
}

}  // namespace com::vx::korvane::ndmpc
