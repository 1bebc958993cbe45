// Authentication of a client connection: MD5 challenge, then plain text,
// then none, in that fixed order, as far as the server offers them.
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"

namespace com::vx::korvane::ndmpc {

using enums::CNDMPEnumAuthType;
using enums::CNDMPError;

namespace {

constexpr unsigned int kAuthTimeout = 360;
const wchar_t kAuthenticateLabel[] = L"CNDMPConnection::Authenticate ";
const wchar_t kMD5Label[] = L"(CNDMPConnection::MD5Authenticate)";

}  // namespace

CXDREnumBase<CNDMPError> CNDMPConnection::Authenticate(const char* user, const char* password) {
  const char* userText = user != nullptr ? user : "";
  const char* passwordText = password != nullptr ? password : "";
  CNDMPConfigGetServerInfoRequest request;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> result = SendMessage(request, &reply, kAuthTimeout);
  if (result != CNDMPError::NDMP_NO_ERR) {
    log_.error(
        " [0x%08X] %ls Failed to obtain Server Information to determine type of authentication "
        "supported by the  filer",
        Handle(), kAuthenticateLabel);
    return result;
  }
  bool none = false, text = false, md5 = false;
  // The reply's own error is not looked at: only the list of types counts.
  if (auto* info = dynamic_cast<CNDMPConfigGetServerInfoReply*>(reply)) {
    for (auto& type : info->AuthenticationTypes) {
      switch (type.getInt32()) {
        case CNDMPEnumAuthType::NDMP_AUTH_NONE:
          none = true;
          log_.debug("\tSupports NONE Authentication");
          break;
        case CNDMPEnumAuthType::NDMP_AUTH_TEXT:
          text = true;
          log_.debug("\tSupports Plain Text Authentication");
          break;
        case CNDMPEnumAuthType::NDMP_AUTH_MD5:
          md5 = true;
          log_.debug("\tSupports MD5 Authentication");
          break;
        default:
          log_.warning("Unsupported authentication type = %s seen.", type.ToString().c_str());
          break;
      }
    }
  }
  FreeMessage(reply);

  if (md5) {
    if (MD5Authenticate(userText, passwordText) == CNDMPError::NDMP_NO_ERR) {
      log_.debug("[0x%08X] %ls Authenticated with filer", Handle(), kAuthenticateLabel);
      authenticated_ = true;
      userName_ = userText;
      password_ = passwordText;
      return CNDMPError::NDMP_NO_ERR;
    }
    log_.error("[0x%08X] %ls Failed to authenticate with MD5", Handle(), kAuthenticateLabel);
  }
  // Plain text and none succeed without setting the authenticated flag: an
  // asymmetry kept on purpose.
  if (text && TryAuthRequest(CNDMPEnumAuthType::NDMP_AUTH_TEXT, userText, passwordText) ==
                  CNDMPError::NDMP_NO_ERR) {
    log_.debug("[0x%08X] %ls Authenticated with filer using plain text", Handle(),
               kAuthenticateLabel);
    return CNDMPError::NDMP_NO_ERR;
  }
  if (none && TryAuthRequest(CNDMPEnumAuthType::NDMP_AUTH_NONE, userText, passwordText) ==
                  CNDMPError::NDMP_NO_ERR) {
    log_.debug("[0x%08X] %ls Authenticated with filer using NONE method", Handle(),
               kAuthenticateLabel);
    return CNDMPError::NDMP_NO_ERR;
  }
  return CNDMPError::NDMP_NOT_AUTHORIZED_ERR;
}

CXDREnumBase<CNDMPError> CNDMPConnection::TryAuthRequest(int type, const char* user,
                                                         const char* password) {
  CNDMPConnectClientAuthRequest request{
      CXDREnumBase<CNDMPEnumAuthType>(static_cast<unsigned int>(type))};
  if (type == CNDMPEnumAuthType::NDMP_AUTH_TEXT) {
    request.AuthenticationData.TextAuthenticationData.AuthenticationID = user;
    request.AuthenticationData.TextAuthenticationData.AuthenticationPassword = password;
  }
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> result = SendMessage(request, &reply, kAuthTimeout);
  if (result != CNDMPError::NDMP_NO_ERR) {
    log_.error("[0x%08X] %ls Failed to send auth request. Ret=%s", Handle(), kAuthenticateLabel,
               result.ToString().c_str());
    return result;
  }
  auto* answer = dynamic_cast<CNDMPConnectClientAuthReply*>(reply);
  result = answer != nullptr ? answer->NDMP_Error
                             : CXDREnumBase<CNDMPError>(CNDMPError::NDMP_UNDEFINED_ERR);
  FreeMessage(reply);
  if (result == CNDMPError::NDMP_NO_ERR) {
    userName_ = user;
    password_ = password;
  }
  return result;
}

CXDREnumBase<CNDMPError> CNDMPConnection::MD5Authenticate(const char* user,
                                                          const char* password) {
  CNDMPConfigGetAuthAttrRequest challengeRequest;
  challengeRequest.AuthType = CNDMPEnumAuthType::NDMP_AUTH_MD5;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> result = SendMessage(challengeRequest, &reply, kAuthTimeout);
  if (result != CNDMPError::NDMP_NO_ERR) {
    log_.error("[0x%08X] %ls failed to obtain challenge from filer. Ret=%s", Handle(), kMD5Label,
               result.ToString().c_str());
    return result;
  }
  auto* attr = dynamic_cast<CNDMPConfigGetAuthAttrReply*>(reply);
  if (attr == nullptr || attr->ServerAttr.AuthType != CNDMPEnumAuthType::NDMP_AUTH_MD5) {
    FreeMessage(reply);
    log_.error("[0x%08X] %ls Invalid Auth type returned", Handle(), kMD5Label);
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  CNDMPConnectClientAuthRequest request{
      CXDREnumBase<CNDMPEnumAuthType>(CNDMPEnumAuthType::NDMP_AUTH_MD5)};
  request.AuthenticationData.AuthenticationType = CNDMPEnumAuthType::NDMP_AUTH_MD5;
  CNDMPAuthMD5& md5 = request.AuthenticationData.MD5AuthenticationData;
  VxString secret(password);
  md5.ComputeDigest(secret, attr->ServerAttr.Challenge);
  md5.AuthenticationID = user;
  FreeMessage(reply);
  reply = nullptr;

  result = SendMessage(request, &reply, kAuthTimeout);
  if (result != CNDMPError::NDMP_NO_ERR) {
    log_.error("[0x%08X] %ls Failed to send Client Auth Request message. Ret=%s", Handle(),
               kMD5Label, result.ToString().c_str());
    return result;
  }
  auto* answer = dynamic_cast<CNDMPConnectClientAuthReply*>(reply);
  result = answer != nullptr ? answer->NDMP_Error
                             : CXDREnumBase<CNDMPError>(CNDMPError::NDMP_UNDEFINED_ERR);
  FreeMessage(reply);
  if (result != CNDMPError::NDMP_NO_ERR) {
    log_.error("[0x%08X] %ls Failed to authenticate. Ret=%s", Handle(), kMD5Label,
               result.ToString().c_str());
    return result;
  }
  return CNDMPError::NDMP_NO_ERR;
}

}  // namespace com::vx::korvane::ndmpc
