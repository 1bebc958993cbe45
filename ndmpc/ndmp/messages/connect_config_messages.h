// The connect and config families: opening, authenticating and closing a
// control connection (NDMP_CONNECT_*), querying the server (NDMP_CONFIG_*),
// the two CAB information requests and NDMP_CONFIG_UMS_GETXCB, with the
// records they carry (name/value pairs, authentication data, file-system and
// device information, extension lists). Other families use CNDMPPVal from here.
//
//   CNDMPConnectClientAuthRequest auth(enums::CNDMPEnumAuthType::NDMP_AUTH_MD5);
//   auth.AuthenticationData.MD5AuthenticationData.AuthenticationID = "root";
#pragma once

#include <cstdint>

#include "ndmpc/foundation/vx_string.h"
#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/ndmp/messages/union_record.h"
#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

// ---------------------------------------------------------------------------
// Records

// A name/value pair (environment variables, capabilities, addresses).
class CNDMPPVal : public CXDRContainer {
 public:
  CXDRString Name;
  CXDRString Value;

  CNDMPPVal() = default;
  CNDMPPVal(const VxString& name, const VxString& value) : Name(name), Value(value) {}

 protected:
  int RegisterMembers() override {
    RegisterMember("Name", &Name);
    RegisterMember("Value", &Value);
    return 0;
  }
};

class CNDMPAuthText : public CXDRContainer {
 public:
  CXDRString AuthenticationID;
  CXDRString AuthenticationPassword;

 protected:
  int RegisterMembers() override {
    RegisterMember("AuthenticationID", &AuthenticationID);
    RegisterMember("AuthenticationPassword", &AuthenticationPassword);
    return 0;
  }
};

class CNDMPAuthMD5 : public CXDRContainer {
 public:
  CXDRString AuthenticationID;
  // Always 16 bytes on the wire, without a length word.
  CXDROpaque AuthenticationDigest{CXDROpaque(std::uint64_t{16})};

  // Fills AuthenticationDigest with the MD5 of a 128-byte block: zeros, the
  // password at the start and again at the end, and the challenge from
  // offset 64 - password length onwards (its bytes win where they overlap a
  // password copy; whatever would pass the block's end is left out).
  // Passwords longer than 64 bytes are cut to 64. Returns 0.
  int ComputeDigest(const VxString& password, const CXDROpaque& challenge);

 protected:
  int RegisterMembers() override {
    RegisterMember("AuthenticationID", &AuthenticationID);
    RegisterMember("AuthenticationDigest", &AuthenticationDigest);
    return 0;
  }
};

// Credentials by authentication type: nothing for NONE, CNDMPAuthText for
// TEXT, CNDMPAuthMD5 for MD5.
class CNDMPAuthData : public CNDMPUnionRecord {
 public:
  CXDREnumBase<enums::CNDMPEnumAuthType> AuthenticationType;
  CNDMPAuthText TextAuthenticationData;
  CNDMPAuthMD5 MD5AuthenticationData;

  CNDMPAuthData() = default;
  explicit CNDMPAuthData(CXDREnumBase<enums::CNDMPEnumAuthType> type) : AuthenticationType(type) {}

 protected:
  const char* DiscriminantName() const override { return "AuthenticationType"; }
  CXDRULong& Discriminant() override { return AuthenticationType; }
  CIXDR* SelectArm(std::uint32_t type, const char** name) override;
};

// A server's attributes for one authentication type: the 64-byte challenge
// for MD5, nothing for the others.
class CNDMPAuthAttr : public CNDMPUnionRecord {
 public:
  CXDREnumBase<enums::CNDMPEnumAuthType> AuthType;
  // Always 64 bytes on the wire, without a length word.
  CXDROpaque Challenge{CXDROpaque(std::uint64_t{64})};

  CNDMPAuthAttr() = default;
  explicit CNDMPAuthAttr(CXDREnumBase<enums::CNDMPEnumAuthType> type) : AuthType(type) {}

 protected:
  const char* DiscriminantName() const override { return "AuthType"; }
  CXDRULong& Discriminant() override { return AuthType; }
  CIXDR* SelectArm(std::uint32_t type, const char** name) override;
};

class CNDMPConfigButypeInfo : public CXDRContainer {
 public:
  CXDRString BackupTypeName;
  CXDRArray<CNDMPPVal> DefaultEnvironment;
  CXDRULong Attributes;

 protected:
  int RegisterMembers() override {
    RegisterMember("BackupTypeName", &BackupTypeName);
    RegisterMember("DefaultEnvironment", &DefaultEnvironment);
    RegisterMember("Attributes", &Attributes);
    return 0;
  }
};

class CNDMPFsInfo : public CXDRContainer {
 public:
  CXDRULong Unsupported;
  CXDRString FSType;
  CXDRString LogDeviceName;
  CXDRString PhysDeviceName;
  CNDMPUQuad TotalSize;
  CNDMPUQuad UsedSize;
  CNDMPUQuad AvailSize;
  CNDMPUQuad TotalInodes;
  CNDMPUQuad UsedInodes;
  CXDRArray<CNDMPPVal> FSEnvironment;
  CXDRString FSStatus;

 protected:
  int RegisterMembers() override {
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("FSType", &FSType);
    RegisterMember("LogDeviceName", &LogDeviceName);
    RegisterMember("PhysDeviceName", &PhysDeviceName);
    RegisterMember("TotalSize", &TotalSize);
    RegisterMember("UsedSize", &UsedSize);
    RegisterMember("AvailSize", &AvailSize);
    RegisterMember("TotalInodes", &TotalInodes);
    RegisterMember("UsedInodes", &UsedInodes);
    RegisterMember("FSEnvironment", &FSEnvironment);
    RegisterMember("FSStatus", &FSStatus);
    return 0;
  }
};

class CNDMPDeviceCapability : public CXDRContainer {
 public:
  CXDRString Device;
  CXDRULong Attributes;
  CXDRArray<CNDMPPVal> Capability;

 protected:
  int RegisterMembers() override {
    RegisterMember("Device", &Device);
    RegisterMember("Attributes", &Attributes);
    RegisterMember("Capability", &Capability);
    return 0;
  }
};

class CNDMPDeviceInfo : public CXDRContainer {
 public:
  CXDRString Model;
  CXDRArray<CNDMPDeviceCapability> CapabilityList;

 protected:
  int RegisterMembers() override {
    RegisterMember("Model", &Model);
    RegisterMember("CapabilityList", &CapabilityList);
    return 0;
  }
};

// "ExtentionVersions" and "ExtentionVersion" below are spelled so on
// purpose: the names appear in dumps as they stand.
class CNDMPClassList : public CXDRContainer {
 public:
  CXDRUShort ExtensionClassID;
  CXDRArray<CXDRUShort> ExtentionVersions;

 protected:
  int RegisterMembers() override {
    RegisterMember("ExtensionClassID", &ExtensionClassID);
    RegisterMember("ExtentionVersions", &ExtentionVersions);
    return 0;
  }
};

class CNDMPClassVersion : public CXDRContainer {
 public:
  CXDRUShort ExtensionClassID;
  CXDRUShort ExtentionVersion;

 protected:
  int RegisterMembers() override {
    RegisterMember("ExtensionClassID", &ExtensionClassID);
    RegisterMember("ExtentionVersion", &ExtentionVersion);
    return 0;
  }
};

// ---------------------------------------------------------------------------
// Connect

class CNDMPConnectOpenRequest
    : public CNDMPMessageImpl<CNDMPConnectOpenRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CONNECT_OPEN> {
 public:
  CXDREnumBase<enums::CNDMPProtocolVersion> ProtocolVersion{
      enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4};

 protected:
  int RegisterMembers() override {
    RegisterMember("ProtocolVersion", &ProtocolVersion);
    return 0;
  }
};

class CNDMPConnectOpenReply
    : public CNDMPMessageImpl<CNDMPConnectOpenReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_CONNECT_OPEN> {};

class CNDMPConnectClientAuthRequest
    : public CNDMPMessageImpl<CNDMPConnectClientAuthRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH> {
 public:
  CNDMPAuthData AuthenticationData;

  CNDMPConnectClientAuthRequest() = default;
  // Credentials of `type`; the caller fills in the selected arm.
  explicit CNDMPConnectClientAuthRequest(CXDREnumBase<enums::CNDMPEnumAuthType> type)
      : AuthenticationData(type) {}

 protected:
  int RegisterMembers() override {
    RegisterMember("AuthenticationData", &AuthenticationData);
    return 0;
  }
};

class CNDMPConnectClientAuthReply
    : public CNDMPMessageImpl<CNDMPConnectClientAuthReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH> {};

// One class for both directions: the factory answers every type with it.
class CNDMPConnectCloseRequest
    : public CNDMPMessageImpl<CNDMPConnectCloseRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONNECT_CLOSE> {};

class CNDMPConnectServerAuthRequest
    : public CNDMPMessageImpl<CNDMPConnectServerAuthRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CONNECT_SERVER_AUTH> {
 public:
  CNDMPAuthAttr ClientAuthData{enums::CNDMPEnumAuthType::NDMP_AUTH_MD5};

 protected:
  int RegisterMembers() override {
    RegisterMember("ClientAuthData", &ClientAuthData);
    return 0;
  }
};

class CNDMPConnectServerAuthReply
    : public CNDMPMessageImpl<CNDMPConnectServerAuthReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONNECT_SERVER_AUTH> {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CNDMPAuthData Server_Result{enums::CNDMPEnumAuthType::NDMP_AUTH_NONE};

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Server_Result", &Server_Result);
    return 0;
  }
};

// ---------------------------------------------------------------------------
// Config. The config replies call their error "Error", unlike the generic
// reply's "NDMP_Error"; both names are intentional, they show in dumps.

class CNDMPConfigGetHostInfoRequest
    : public CNDMPMessageImpl<CNDMPConfigGetHostInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO> {};

class CNDMPConfigGetHostInfoReply
    : public CNDMPMessageImpl<CNDMPConfigGetHostInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRString hostname;
  CXDRString OSType;
  CXDRString OSVersion;
  CXDRString HostID;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("hostname", &hostname);
    RegisterMember("OSType", &OSType);
    RegisterMember("OSVersion", &OSVersion);
    RegisterMember("HostID", &HostID);
    return 0;
  }
};

class CNDMPConfigGetConnectionTypeRequest
    : public CNDMPMessageImpl<CNDMPConfigGetConnectionTypeRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_CONNECTION_TYPE> {};

class CNDMPConfigGetConnectionTypeReply
    : public CNDMPMessageImpl<CNDMPConfigGetConnectionTypeReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_CONNECTION_TYPE> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumAddrType>> AddressTypes;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("AddressTypes", &AddressTypes);
    return 0;
  }
};

class CNDMPConfigGetAuthAttrRequest
    : public CNDMPMessageImpl<CNDMPConfigGetAuthAttrRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_AUTH_ATTR> {
 public:
  CXDREnumBase<enums::CNDMPEnumAuthType> AuthType;

 protected:
  int RegisterMembers() override {
    RegisterMember("AuthType", &AuthType);
    return 0;
  }
};

class CNDMPConfigGetAuthAttrReply
    : public CNDMPMessageImpl<CNDMPConfigGetAuthAttrReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_AUTH_ATTR> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPAuthAttr ServerAttr{enums::CNDMPEnumAuthType::NDMP_AUTH_MD5};

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("ServerAttr", &ServerAttr);
    return 0;
  }
};

class CNDMPConfigGetButypeAttrRequest
    : public CNDMPMessageImpl<CNDMPConfigGetButypeAttrRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_BUTYPE_INFO> {};

class CNDMPConfigGetButypeAttrReply
    : public CNDMPMessageImpl<CNDMPConfigGetButypeAttrReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_BUTYPE_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPConfigButypeInfo> BackupTypeInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("BackupTypeInfo", &BackupTypeInfo);
    return 0;
  }
};

class CNDMPConfigGetFsInfoRequest
    : public CNDMPMessageImpl<CNDMPConfigGetFsInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_FS_INFO> {};

class CNDMPConfigGetFsInfoReply
    : public CNDMPMessageImpl<CNDMPConfigGetFsInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_FS_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPFsInfo> FsInfoArray;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("FsInfoArray", &FsInfoArray);
    return 0;
  }
};

class CNDMPConfigGetTapeInfoRequest
    : public CNDMPMessageImpl<CNDMPConfigGetTapeInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO> {};

class CNDMPConfigGetTapeInfoReply
    : public CNDMPMessageImpl<CNDMPConfigGetTapeInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPDeviceInfo> TapeInfoArray;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("TapeInfoArray", &TapeInfoArray);
    return 0;
  }
};

class CNDMPConfigGetSCSIInfoRequest
    : public CNDMPMessageImpl<CNDMPConfigGetSCSIInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_SCSI_INFO> {};

class CNDMPConfigGetSCSIInfoReply
    : public CNDMPMessageImpl<CNDMPConfigGetSCSIInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_SCSI_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPDeviceInfo> SCSIInfoArray;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("SCSIInfoArray", &SCSIInfoArray);
    return 0;
  }
};

class CNDMPConfigGetServerInfoRequest
    : public CNDMPMessageImpl<CNDMPConfigGetServerInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO> {};

// "VenderName" is spelled so on purpose: the name appears in dumps.
class CNDMPConfigGetServerInfoReply
    : public CNDMPMessageImpl<CNDMPConfigGetServerInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRString VenderName;
  CXDRString ProductName;
  CXDRString RevisionNumber;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumAuthType>> AuthenticationTypes;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("VenderName", &VenderName);
    RegisterMember("ProductName", &ProductName);
    RegisterMember("RevisionNumber", &RevisionNumber);
    RegisterMember("AuthenticationTypes", &AuthenticationTypes);
    return 0;
  }
};

class CNDMPConfigSetExtListRequest
    : public CNDMPMessageImpl<CNDMPConfigSetExtListRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_SET_EXT_LIST> {
 public:
  CXDRArray<CNDMPClassVersion> SelectedExtensions;

 protected:
  int RegisterMembers() override {
    RegisterMember("SelectedExtensions", &SelectedExtensions);
    return 0;
  }
};

class CNDMPConfigSetExtListReply
    : public CNDMPMessageImpl<CNDMPConfigSetExtListReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_CONFIG_SET_EXT_LIST> {};

class CNDMPConfigGetExtListRequest
    : public CNDMPMessageImpl<CNDMPConfigGetExtListRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_EXT_LIST> {};

class CNDMPConfigGetExtListReply
    : public CNDMPMessageImpl<CNDMPConfigGetExtListReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_GET_EXT_LIST> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPClassList> ExtClassList;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("ExtClassList", &ExtClassList);
    return 0;
  }
};

// ---------------------------------------------------------------------------
// CAB information and UMS. These requests are generic requests that do
// carry members; they register their own in place of the empty body.

class CNDMPCabGetFsInfoRequest
    : public CNDMPMessageImpl<CNDMPCabGetFsInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CAB_GET_FS_INFO> {
 public:
  CXDRString FSName;

 protected:
  int RegisterMembers() override {
    RegisterMember("FSName", &FSName);
    return 0;
  }
};

class CNDMPCabGetFsInfoReply
    : public CNDMPMessageImpl<CNDMPCabGetFsInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CAB_GET_FS_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPFsInfo FsInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("FsInfo", &FsInfo);
    return 0;
  }
};

class CNDMPCabGetTapeInfoRequest
    : public CNDMPMessageImpl<CNDMPCabGetTapeInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CAB_GET_TAPE_INFO> {
 public:
  CXDRString TapeName;

 protected:
  int RegisterMembers() override {
    RegisterMember("TapeName", &TapeName);
    return 0;
  }
};

class CNDMPCabGetTapeInfoReply
    : public CNDMPMessageImpl<CNDMPCabGetTapeInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CAB_GET_TAPE_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPDeviceInfo TapeInfo;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("TapeInfo", &TapeInfo);
    return 0;
  }
};

class CNDMPConfigUMSGetXCBRequest
    : public CNDMPMessageImpl<CNDMPConfigUMSGetXCBRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_CONFIG_UMS_GETXCB> {
 public:
  CXDRULong CBType;
  CXDROpaque CBData;

 protected:
  int RegisterMembers() override {
    RegisterMember("CBType", &CBType);
    RegisterMember("CBData", &CBData);
    return 0;
  }
};

// The reply's class name repeats "Request" on purpose; callers know it so.
class CNDMPConfigUMSGetXCBRequestReply
    : public CNDMPMessageImpl<CNDMPConfigUMSGetXCBRequestReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_CONFIG_UMS_GETXCB> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDROpaque CBOutData;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("CBOutData", &CBOutData);
    return 0;
  }
};

}  // namespace com::vx::korvane::ndmpc
