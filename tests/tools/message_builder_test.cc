// Building requests from text, the generic JSON rendering, and the JSON
// writer's escaping.
#include "tools/cli/message_builder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/message_factory.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/tools/tools_test_support.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/options.h"
#include "tools/cli/xdr_reflect.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

// Every enumerated member and every array anywhere in `value` is known to
// the generic access; `path` names the offenders.
void CheckKnown(CIXDR& value, const std::string& path, std::vector<std::string>* unknown) {
  if (value.GetMemberType() == CIXDR::MEMBER_ENUM && EnumInfoOf(&value) == nullptr) {
    unknown->push_back(path);
  }
  if (value.GetMemberType() == CIXDR::MEMBER_ARRAY) {
    const CArrayAccess* access = ArrayAccessOf(value);
    if (access == nullptr) {
      unknown->push_back(path + "[]");
      return;
    }
    CheckKnown(access->Prototype(), path + "[]", unknown);
  }
  auto* record = dynamic_cast<CXDRContainer*>(&value);
  if (record == nullptr) return;
  const std::size_t n = MemberCount(*record);
  for (std::size_t i = 0; i < n; ++i) {
    CheckKnown(*record->GetMember(i).member, path + "." + record->GetMember(i).name, unknown);
  }
}

TEST(MessageBuilder, EveryMessageOfTheCatalogueIsReachable) {
  std::vector<std::string> unknown;
  for (const CNDMPFactoryEntry& entry : NDMPFactoryTable()) {
    for (unsigned int version : {3u, 4u}) {
      for (auto make : {entry.makeRequest, entry.makeReply}) {
        std::unique_ptr<CNDMPMessage> message(make());
        message->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
        CheckKnown(*message, enums::CNDMPMessageCode::ToString(entry.code), &unknown);
        CJsonWriter json;
        WriteJsonValue(json, *message);
        CJson parsed;
        EXPECT_TRUE(ParseJson(json.Text(), &parsed)) << json.Text();
      }
    }
  }
  EXPECT_TRUE(unknown.empty()) << unknown.front();
}

TEST(MessageBuilder, FindsMessagesByLooseNames) {
  std::uint32_t code = 0;
  std::string error;
  for (const char* name : {"NDMP_TAPE_OPEN", "tape_open", "ndmp_tape_open", "0x300", "768"}) {
    code = 0;
    EXPECT_TRUE(FindMessageCode(name, &code, &error)) << name << ": " << error;
    EXPECT_EQ(code, 0x300u) << name;
  }
  EXPECT_FALSE(FindMessageCode("TAPE_OPN", &code, &error));
  EXPECT_FALSE(FindMessageCode("0x301234", &code, &error));
  EXPECT_FALSE(FindMessageCode("SNAP_CRE", &code, &error));
  EXPECT_NE(error.find("NDMP_SNAP_CREATE"), std::string::npos) << error;
}

// Lists, unions and enumerations by name are also set by the simulator
// tests, which write their requests as text.
TEST(MessageBuilder, SetsFieldsOfEveryKind) {
  std::string error;
  auto request = MakeRequest(enums::CNDMPMessageCode::NDMP_TAPE_OPEN, 4);
  ASSERT_TRUE(ApplyAssignment(*request, "Device=/tmp/t=x", &error)) << error;
  ASSERT_TRUE(ApplyAssignment(*request, "mode=rdwr", &error)) << error;
  auto* open = dynamic_cast<CNDMPTapeOpenRequest*>(request.get());
  EXPECT_EQ(open->Device.GetString(), "/tmp/t=x");
  EXPECT_EQ(open->Mode, enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE);
  ASSERT_TRUE(ApplyAssignment(*request, "Mode=2", &error)) << error;
  EXPECT_EQ(open->Mode, 2u);

  auto write = MakeRequest(enums::CNDMPMessageCode::NDMP_TAPE_WRITE, 4);
  ASSERT_TRUE(ApplyAssignment(*write, "DataOut=0x0A0b:0c", &error)) << error;
  auto* data = dynamic_cast<CNDMPTapeWriteRequest*>(write.get());
  ASSERT_EQ(data->DataOut.GetSize(), 3u);
  EXPECT_EQ(static_cast<const unsigned char*>(data->DataOut.GetData())[2], 0x0C);
  ASSERT_TRUE(ApplyAssignment(*write, "DataOut=text:hi", &error)) << error;
  EXPECT_EQ(data->DataOut.GetSize(), 2u);

  auto window = MakeRequest(enums::CNDMPMessageCode::NDMP_MOVER_SET_WINDOW, 4);
  ASSERT_TRUE(ApplyAssignment(*window, "Offset=1099511627776", &error)) << error;
  ASSERT_TRUE(ApplyAssignment(*window, "Length.Low=0x10", &error)) << error;
  auto* set = dynamic_cast<CNDMPMoverSetWindowRequest*>(window.get());
  EXPECT_EQ(set->Offset.getUint64(), 1ull << 40);
  EXPECT_EQ(set->Length.getUint64(), 16u);

  // Under version 3 a TCP address is a single record without environment.
  auto connect3 = MakeRequest(enums::CNDMPMessageCode::NDMP_MOVER_CONNECT, 3);
  ASSERT_TRUE(ApplyAssignment(*connect3, "Address.AddressType=tcp", &error)) << error;
  EXPECT_FALSE(ApplyAssignment(*connect3, "Address.TcpAddress[].Port=1", &error));
  EXPECT_NE(error.find("'Address.TcpAddress' is not a list"), std::string::npos) << error;
  ASSERT_TRUE(ApplyAssignment(*connect3, "Address.TcpAddress.Port=10001", &error)) << error;
  SettleVersion(*connect3, 3);
  CJsonWriter json;
  WriteJsonValue(json, *connect3);
  CJson parsed;
  ASSERT_TRUE(ParseJson(json.Text(), &parsed)) << json.Text();
  EXPECT_EQ(parsed["Address"]["TcpAddress"]["Port"].number, 10001);
  EXPECT_FALSE(parsed["Address"]["TcpAddress"].Has("AddressEnv")) << json.Text();
}

TEST(MessageBuilder, RejectsBadValuesWithReasons) {
  using Code = enums::CNDMPMessageCode;
  const struct {
    std::uint32_t code;
    const char* assignment;
    const char* reason;
  } cases[] = {
      {Code::NDMP_TAPE_READ, "Count=-1", "32-bit number"},
      {Code::NDMP_TAPE_READ, "Count=4294967296", "32-bit number"},
      {Code::NDMP_TAPE_READ, "Cont=1", "its fields are: Count"},
      {Code::NDMP_TAPE_READ, "Count", "not FIELD=VALUE"},
      {Code::NDMP_TAPE_MTIO, "TapeOp=spin", "not a value of CNDMPEnumMtioOp"},
      {Code::NDMP_TAPE_OPEN, "Mode=raw", "ambiguous: NDMP_TAPE_RAW_MODE, NDMP_TAPE_RAW_MODE_OLD"},
      {Code::NDMP_SCSI_SET_TARGET, "TargetID=70000", "16-bit"},
      {Code::NDMP_MOVER_CONNECT, "Address=1", "record"},
      // A union's arms are settable once its discriminant chose one.
      {Code::NDMP_MOVER_CONNECT, "Address.TcpAddress[].Port=1", "its fields are: AddressType"},
      {Code::NDMP_DATA_START_BACKUP, "Environments[5].Name=X", "use index 0 (or []) to append"},
      {Code::NDMP_DATA_START_BACKUP, "Environments.Name=X", "name an element as Environments[0]"},
      {Code::NDMP_CONFIG_GET_HOST_INFO, "X=1", "no fields"},
      {Code::NDMP_TAPE_WRITE, "DataOut=plain", "0x0a0b"},
      {Code::NDMP_TAPE_WRITE, "DataOut=0xABC", "odd number of hex digits"},
  };
  for (const auto& c : cases) {
    auto request = MakeRequest(c.code, 4);
    std::string error;
    EXPECT_FALSE(ApplyAssignment(*request, c.assignment, &error)) << c.assignment;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.assignment << ": " << error;
  }
}

TEST(JsonWriter, EscapesEverythingThatMustBe) {
  const std::string raw = std::string("q\"b\\n\n\t\x01 \x7f") + "\xC3\xA9" + "\xFF" + "\xE2\x82";
  CJsonWriter json(0);
  json.BeginObject().Key(raw).String(raw).Key("n").Number(std::uint64_t{1} << 63).EndObject();
  EXPECT_EQ(CJsonWriter::Quote(raw),
            "\"q\\\"b\\\\n\\n\\t\\u0001 \\u007f\xC3\xA9\\u00ff\\u00e2\\u0082\"");
  CJson parsed;
  ASSERT_TRUE(ParseJson(json.Text(), &parsed)) << json.Text();
  EXPECT_EQ(parsed.members.size(), 2u);
  EXPECT_EQ(parsed["n"].number, 9223372036854775808.0);
  CJsonWriter empty;
  empty.BeginObject()
      .Key("a")
      .BeginArray()
      .EndArray()
      .Key("b")
      .BeginObject()
      .EndObject()
      .EndObject();
  EXPECT_EQ(empty.Text(), "{\n  \"a\": [],\n  \"b\": {}\n}");
}

TEST(Options, ParsesSharedAndCommandOptions) {
  const char* argv[] = {"ndmpc", "-vv", "-Hfiler1",      "tape", "--port=10001", "write",
                        "d",     "-",   "--record-size", "256K", "--",           "--json"};
  COptions options;
  std::string error;
  ASSERT_TRUE(ParseOptions(12, argv, &options, &error)) << error;
  EXPECT_EQ(options.verbosity, 2);
  EXPECT_EQ(options.host, "filer1");
  EXPECT_EQ(options.port, 10001u);
  EXPECT_EQ(options.recordSize, 256u * 1024);
  EXPECT_FALSE(options.json);
  EXPECT_EQ(options.args, (std::vector<std::string>{"tape", "write", "d", "-", "--json"}));
  for (std::vector<const char*> bad :
       std::vector<std::vector<const char*>>{{"ndmpc", "--port", "70000"},
                                             {"ndmpc", "--protocol", "5"},
                                             {"ndmpc", "--nope"},
                                             {"ndmpc", "-p"},
                                             {"ndmpc", "--json=1"},
                                             {"ndmpc", "--record-size", "0"}}) {
    COptions o;
    EXPECT_FALSE(ParseOptions(static_cast<int>(bad.size()), bad.data(), &o, &error)) << bad[1];
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
