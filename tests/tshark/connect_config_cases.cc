// Connect and config messages as tshark must read them.
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/tshark/tshark_cases.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

using namespace enums;  // NOLINT: the value names read like the protocol's

CXDREnumBase<CNDMPError> Err(CNDMPError::enum_value e) { return CXDREnumBase<CNDMPError>(e); }

CNDMPAuthAttr Md5Attr(const std::vector<unsigned char>& challenge) {
  CNDMPAuthAttr attr(CNDMPEnumAuthType::NDMP_AUTH_MD5);
  attr.Challenge.SetData(challenge.data(), challenge.size());
  return attr;
}

void AddConnect(CCaseList& list) {
  // Each conversation opens with these; the conversation's version is the
  // one the request offers.
  for (unsigned version : {4u, 3u}) {
    list.Add<CNDMPConnectOpenRequest>(
        "connect", version,
        [version](auto& m) { m.ProtocolVersion = CXDREnumBase<CNDMPProtocolVersion>(version); },
        {Num("ndmp.version", version)});
    list.Add<CNDMPConnectOpenReply>("connect", version, [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR); },
                                    {Num("ndmp.error", CNDMPError::NDMP_NO_ERR)});
  }

  list.Add<CNDMPConnectClientAuthRequest>(
      "connect", 4,
      [](auto& m) {
        m.AuthenticationData.AuthenticationType = CNDMPEnumAuthType::NDMP_AUTH_TEXT;
        m.AuthenticationData.TextAuthenticationData.AuthenticationID = "backup-operator";
        m.AuthenticationData.TextAuthenticationData.AuthenticationPassword = "s3cr3t!";
      },
      {Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_TEXT), Str("ndmp.auth.id", "backup-operator"),
       Str("ndmp.auth.password", "s3cr3t!")},
      "Text");
  const std::vector<unsigned char> digest = Pattern(16, 0xA1);
  list.Add<CNDMPConnectClientAuthRequest>(
      "connect", 4,
      [digest](auto& m) {
        m.AuthenticationData.AuthenticationType = CNDMPEnumAuthType::NDMP_AUTH_MD5;
        m.AuthenticationData.MD5AuthenticationData.AuthenticationID = "root";
        m.AuthenticationData.MD5AuthenticationData.AuthenticationDigest.SetData(digest.data(),
                                                                                digest.size());
      },
      {Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5), Str("ndmp.auth.id", "root"),
       Raw("ndmp.auth.digest", digest)},
      "MD5");
  list.Add<CNDMPConnectClientAuthReply>("connect", 4,
                                        [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_NOT_AUTHORIZED_ERR); },
                                        {Num("ndmp.error", CNDMPError::NDMP_NOT_AUTHORIZED_ERR)});

  const std::vector<unsigned char> challenge = Pattern(64, 0x10);
  list.Add<CNDMPConnectServerAuthRequest>(
      "connect", 4, [challenge](auto& m) { m.ClientAuthData = Md5Attr(challenge); },
      {Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5), Raw("ndmp.auth.challenge", challenge)});
  const std::vector<unsigned char> serverDigest = Pattern(16, 0x3C);
  list.Add<CNDMPConnectServerAuthReply>(
      "connect", 4,
      [serverDigest](auto& m) {
        m.NDMP_Error = Err(CNDMPError::NDMP_NO_ERR);
        m.Server_Result.AuthenticationType = CNDMPEnumAuthType::NDMP_AUTH_MD5;
        m.Server_Result.MD5AuthenticationData.AuthenticationID = "filer-admin";
        m.Server_Result.MD5AuthenticationData.AuthenticationDigest.SetData(serverDigest.data(),
                                                                           serverDigest.size());
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5),
       Str("ndmp.auth.id", "filer-admin"), Raw("ndmp.auth.digest", serverDigest)});

  list.AddEmpty<CNDMPConnectCloseRequest>("connect", 4);
}

void AddConfig(CCaseList& list) {
  list.AddEmpty<CNDMPConfigGetHostInfoRequest>("config", 4);
  list.Add<CNDMPConfigGetHostInfoReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        m.hostname = "filer-07.example";
        m.OSType = "NetOS";
        m.OSVersion = "9.13.1P4";
        m.HostID = "0151750419";
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Str("ndmp.hostname", "filer-07.example"),
       Str("ndmp.os.type", "NetOS"), Str("ndmp.os.version", "9.13.1P4"),
       Str("ndmp.hostid", "0151750419")});

  list.AddEmpty<CNDMPConfigGetConnectionTypeRequest>("config", 4);
  list.Add<CNDMPConfigGetConnectionTypeReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        m.AddressTypes.AddItem(CXDREnumBase<CNDMPEnumAddrType>(CNDMPEnumAddrType::NDMP_ADDR_LOCAL));
        m.AddressTypes.AddItem(CXDREnumBase<CNDMPEnumAddrType>(CNDMPEnumAddrType::NDMP_ADDR_TCP));
        m.AddressTypes.AddItem(CXDREnumBase<CNDMPEnumAddrType>(CNDMPEnumAddrType::NDMP_ADDR_IPC));
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_LOCAL),
       Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_TCP), Num("ndmp.addr_type", CNDMPEnumAddrType::NDMP_ADDR_IPC)});

  list.Add<CNDMPConfigGetAuthAttrRequest>("config", 4, [](auto& m) { m.AuthType = CNDMPEnumAuthType::NDMP_AUTH_MD5; },
                                          {Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5)});
  const std::vector<unsigned char> challenge = Pattern(64, 0x81);
  list.Add<CNDMPConfigGetAuthAttrReply>(
      "config", 4,
      [challenge](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        m.ServerAttr = Md5Attr(challenge);
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5),
       Raw("ndmp.auth.challenge", challenge)});

  list.AddEmpty<CNDMPConfigGetButypeAttrRequest>("config", 4);
  list.Add<CNDMPConfigGetButypeAttrReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        CNDMPConfigButypeInfo dump;
        dump.BackupTypeName = "dump";
        dump.DefaultEnvironment.AddItem(CNDMPPVal("HIST", "y"));
        dump.DefaultEnvironment.AddItem(CNDMPPVal("LEVEL", "0"));
        dump.Attributes = 0x1Fu;
        CNDMPConfigButypeInfo tar;
        tar.BackupTypeName = "tar";
        tar.DefaultEnvironment.AddItem(CNDMPPVal("DIRECT", "n"));
        tar.Attributes = 0x06u;
        m.BackupTypeInfo.AddItem(dump);
        m.BackupTypeInfo.AddItem(tar);
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Str("ndmp.butype.name", "dump"),
       Str("ndmp.butype.name", "tar"), Str("ndmp.butype.env.name", "HIST"),
       Str("ndmp.butype.env.name", "LEVEL"), Str("ndmp.butype.env.name", "DIRECT"),
       Str("ndmp.butype.env.value", "y"), Str("ndmp.butype.env.value", "0"),
       Str("ndmp.butype.env.value", "n"), Num("ndmp.butype.attr", 0x1F),
       Num("ndmp.butype.attr", 0x06)});

  list.AddEmpty<CNDMPConfigGetFsInfoRequest>("config", 4);
  list.Add<CNDMPConfigGetFsInfoReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        CNDMPFsInfo vol0;
        vol0.Unsupported = 0x18u;
        vol0.FSType = "WAFL";
        vol0.LogDeviceName = "/vol/vol0";
        vol0.PhysDeviceName = "aggr0";
        vol0.TotalSize = CNDMPUQuad(0x0000012A05F20000ull);
        vol0.UsedSize = CNDMPUQuad(0x000000E8D4A51000ull);
        vol0.AvailSize = CNDMPUQuad(0x00000041312CF000ull);
        vol0.TotalInodes = CNDMPUQuad(0x1000000123ull);
        vol0.UsedInodes = CNDMPUQuad(0x0ABCDEull);
        vol0.FSEnvironment.AddItem(CNDMPPVal("LOCAL", "y"));
        vol0.FSEnvironment.AddItem(CNDMPPVal("TYPE", "flex"));
        vol0.FSStatus = "online";
        CNDMPFsInfo home;
        home.Unsupported = 0u;
        home.FSType = "ext4";
        home.LogDeviceName = "/home";
        home.PhysDeviceName = "/dev/sdb1";
        home.TotalSize = CNDMPUQuad(5000000000ull);
        home.UsedSize = CNDMPUQuad(1ull);
        home.AvailSize = CNDMPUQuad(4999999999ull);
        home.TotalInodes = CNDMPUQuad(300000ull);
        home.UsedInodes = CNDMPUQuad(1234ull);
        home.FSStatus = "mounted";
        m.FsInfoArray.AddItem(vol0);
        m.FsInfoArray.AddItem(home);
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.fs.invalid", 0x18), Num("ndmp.fs.invalid", 0),
       Str("ndmp.fs.type", "WAFL"), Str("ndmp.fs.type", "ext4"),
       Str("ndmp.fs.logical_device", "/vol/vol0"), Str("ndmp.fs.logical_device", "/home"),
       Str("ndmp.fs.physical_device", "aggr0"), Str("ndmp.fs.physical_device", "/dev/sdb1"),
       Num("ndmp.fs.total_size", 0x0000012A05F20000ull), Num("ndmp.fs.total_size", 5000000000ull),
       Num("ndmp.fs.used_size", 0x000000E8D4A51000ull), Num("ndmp.fs.used_size", 1),
       Num("ndmp.fs.avail_size", 0x00000041312CF000ull), Num("ndmp.fs.avail_size", 4999999999ull),
       Num("ndmp.fs.total_inodes", 0x1000000123ull), Num("ndmp.fs.total_inodes", 300000),
       Num("ndmp.fs.used_inodes", 0x0ABCDE), Num("ndmp.fs.used_inodes", 1234),
       Str("ndmp.fs.env.name", "LOCAL"), Str("ndmp.fs.env.name", "TYPE"),
       Str("ndmp.fs.env.value", "y"), Str("ndmp.fs.env.value", "flex"),
       Str("ndmp.fs.status", "online"), Str("ndmp.fs.status", "mounted")});

  // Two devices, the first with two capabilities of two and one pairs.
  auto fillDevices = [](CXDRArray<CNDMPDeviceInfo>& devices, const char* first, const char* second) {
    CNDMPDeviceInfo a;
    a.Model = first;
    CNDMPDeviceCapability cap0;
    cap0.Device = "/dev/nst0";
    cap0.Attributes = 0x1u;
    cap0.Capability.AddItem(CNDMPPVal("EXECUTE_CDB", "t"));
    cap0.Capability.AddItem(CNDMPPVal("SERIAL_NUMBER", "HU1234ABCD"));
    CNDMPDeviceCapability cap1;
    cap1.Device = "/dev/nst1";
    cap1.Attributes = 0x3u;
    cap1.Capability.AddItem(CNDMPPVal("BLOCKSIZE", "65536"));
    a.CapabilityList.AddItem(cap0);
    a.CapabilityList.AddItem(cap1);
    CNDMPDeviceInfo b;
    b.Model = second;
    CNDMPDeviceCapability cap2;
    cap2.Device = "/dev/sg4";
    cap2.Attributes = 0x2u;
    b.CapabilityList.AddItem(cap2);
    devices.AddItem(a);
    devices.AddItem(b);
  };
  list.AddEmpty<CNDMPConfigGetTapeInfoRequest>("config", 4);
  list.Add<CNDMPConfigGetTapeInfoReply>(
      "config", 4,
      [fillDevices](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        fillDevices(m.TapeInfoArray, "ULTRIUM-HH8", "ULT3580-TD9");
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Str("ndmp.tape.model", "ULTRIUM-HH8"),
       Str("ndmp.tape.model", "ULT3580-TD9"), Str("ndmp.tape.device", "/dev/nst0"),
       Str("ndmp.tape.device", "/dev/nst1"), Str("ndmp.tape.device", "/dev/sg4"),
       Num("ndmp.tape.attr", 1), Num("ndmp.tape.attr", 3), Num("ndmp.tape.attr", 2),
       Str("ndmp.tape.cap.name", "EXECUTE_CDB"), Str("ndmp.tape.cap.name", "SERIAL_NUMBER"),
       Str("ndmp.tape.cap.name", "BLOCKSIZE"), Str("ndmp.tape.cap.value", "t"),
       Str("ndmp.tape.cap.value", "HU1234ABCD"), Str("ndmp.tape.cap.value", "65536")});
  list.AddEmpty<CNDMPConfigGetSCSIInfoRequest>("config", 4);
  list.Add<CNDMPConfigGetSCSIInfoReply>(
      "config", 4,
      [fillDevices](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        fillDevices(m.SCSIInfoArray, "STK L700", "TS4300");
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Str("ndmp.scsi.model", "STK L700"),
       Str("ndmp.scsi.model", "TS4300"), Str("ndmp.tape.device", "/dev/nst0"),
       Str("ndmp.tape.device", "/dev/nst1"), Str("ndmp.tape.device", "/dev/sg4"),
       Num("ndmp.tape.attr", 1), Num("ndmp.tape.attr", 3), Num("ndmp.tape.attr", 2),
       Str("ndmp.tape.cap.name", "EXECUTE_CDB"), Str("ndmp.tape.cap.name", "SERIAL_NUMBER"),
       Str("ndmp.tape.cap.name", "BLOCKSIZE"), Str("ndmp.tape.cap.value", "t"),
       Str("ndmp.tape.cap.value", "HU1234ABCD"), Str("ndmp.tape.cap.value", "65536")});

  list.AddEmpty<CNDMPConfigGetServerInfoRequest>("config", 4);
  list.Add<CNDMPConfigGetServerInfoReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        m.VenderName = "Example Storage";
        m.ProductName = "FilerOS";
        m.RevisionNumber = "9.13";
        m.AuthenticationTypes.AddItem(CXDREnumBase<CNDMPEnumAuthType>(CNDMPEnumAuthType::NDMP_AUTH_NONE));
        m.AuthenticationTypes.AddItem(CXDREnumBase<CNDMPEnumAuthType>(CNDMPEnumAuthType::NDMP_AUTH_TEXT));
        m.AuthenticationTypes.AddItem(CXDREnumBase<CNDMPEnumAuthType>(CNDMPEnumAuthType::NDMP_AUTH_MD5));
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Str("ndmp.server.vendor", "Example Storage"),
       Str("ndmp.server.product", "FilerOS"), Str("ndmp.server.revision", "9.13"),
       Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_NONE), Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_TEXT),
       Num("ndmp.auth_type", CNDMPEnumAuthType::NDMP_AUTH_MD5)});

  list.Add<CNDMPConfigSetExtListRequest>(
      "config", 4,
      [](auto& m) {
        CNDMPClassVersion a;
        a.ExtensionClassID = 0x2050;
        a.ExtentionVersion = 1;
        CNDMPClassVersion b;
        b.ExtensionClassID = 0x2052;
        b.ExtentionVersion = 3;
        m.SelectedExtensions.AddItem(a);
        m.SelectedExtensions.AddItem(b);
      },
      {Num("ndmp.class.id", 0x2050), Num("ndmp.class.id", 0x2052), Num("ndmp.class.version", 1),
       Num("ndmp.class.version", 3)});
  list.Add<CNDMPConfigSetExtListReply>("config", 4,
                                       [](auto& m) { m.NDMP_Error = Err(CNDMPError::NDMP_EXT_DUPL_CLASSES_ERR); },
                                       {Num("ndmp.error", CNDMPError::NDMP_EXT_DUPL_CLASSES_ERR)});

  list.AddEmpty<CNDMPConfigGetExtListRequest>("config", 4);
  list.Add<CNDMPConfigGetExtListReply>(
      "config", 4,
      [](auto& m) {
        m.Error = Err(CNDMPError::NDMP_NO_ERR);
        CNDMPClassList a;
        a.ExtensionClassID = 0x2050;
        a.ExtentionVersions.AddItem(CXDRUShort(1));
        a.ExtentionVersions.AddItem(CXDRUShort(2));
        CNDMPClassList b;
        b.ExtensionClassID = 0x2052;
        b.ExtentionVersions.AddItem(CXDRUShort(7));
        m.ExtClassList.AddItem(a);
        m.ExtClassList.AddItem(b);
      },
      {Num("ndmp.error", CNDMPError::NDMP_NO_ERR), Num("ndmp.class.id", 0x2050), Num("ndmp.class.id", 0x2052),
       Num("ndmp.ext_version_list.version", 1), Num("ndmp.ext_version_list.version", 2),
       Num("ndmp.ext_version_list.version", 7)});
}

}  // namespace

void AddConnectConfigCases(CCaseList& list) {
  AddConnect(list);
  AddConfig(list);
}

}  // namespace com::vx::korvane::ndmpc::testing
