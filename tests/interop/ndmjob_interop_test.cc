// Interoperability with an independent NDMP server: the ndmjob server of the
// amanda-server package, run as a black box on 127.0.0.1, one fresh server
// (own port and directory) per test.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/helpers/scsi_helper.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/support/ndmjob_server.h"
#include "tests/support/peer_support.h"
#include "tests/support/tape_script.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPEnumAddrType;
using enums::CNDMPEnumAuthType;
using enums::CNDMPEnumMoverHaltReason;
using enums::CNDMPEnumMoverMode;
using enums::CNDMPEnumMoverState;
using enums::CNDMPEnumTapeOpenMode;
using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPProtocolVersion;
using testing::CCapturingLog;
using testing::CNdmjobServer;
using testing::CPacketRecorder;

constexpr unsigned int kLoopback = 0x7F000001;

class Ndmjob : public ::testing::Test {
 protected:
  void SetUp() override {
    if (CNdmjobServer::FindProgram().empty()) {
      GTEST_SKIP() << "ndmjob is not installed (amanda-server package)";
    }
    ASSERT_TRUE(server_.Start()) << server_.error();
    log_.setLevel(2);  // warnings and errors: decoding trouble shows there
    connection_ = std::make_unique<CNDMPConnection>("127.0.0.1", "127.0.0.1", log_, server_.port());
  }

  void TearDown() override {
    // A reply or post that did not decode exactly leaves one of these lines.
    EXPECT_EQ(log_.Count("bytes discarded"), 0) << Lines();
    EXPECT_EQ(log_.Count("Error receiving message packet"), 0) << Lines();
    if (connection_ != nullptr) connection_->Disconnect();
    connection_.reset();
    server_.Stop();
  }

  std::string Lines() const {
    std::string all;
    for (const std::string& line : log_.Texts()) all += line + "\n";
    return all;
  }

  // Connects `c` (the test's connection when null) at `version`, or 4 then
  // 3 when 0, and logs in with MD5.
  void ConnectAndLogIn(unsigned int version = 0, CNDMPConnection* c = nullptr) {
    c = c != nullptr ? c : connection_.get();
    ASSERT_EQ(version == 0 ? c->Connect() : c->Connect(CXDREnumBase<CNDMPProtocolVersion>(version)),
              CNDMPError::NDMP_NO_ERR)
        << server_.Log();
    ASSERT_EQ(c->Authenticate(CNdmjobServer::kUser, CNdmjobServer::kPassword),
              CNDMPError::NDMP_NO_ERR);
  }

  // Sends `request` and waits up to 30 s for a reply; returns the send's
  // result and the reply as class Reply (null when none came or it is of
  // another class).
  template <class Reply>
  std::unique_ptr<Reply> Ask(CNDMPMessage& request, CXDREnumBase<CNDMPError>* err) {
    CNDMPMessage* reply = nullptr;
    *err = connection_->SendMessage(request, &reply, 30);
    auto* typed = dynamic_cast<Reply*>(reply);
    if (typed == nullptr) connection_->FreeMessage(reply);
    return std::unique_ptr<Reply>(typed);
  }

  // The same, expecting a reply without error in the header.
  template <class Reply>
  std::unique_ptr<Reply> AskOk(CNDMPMessage& request) {
    CXDREnumBase<CNDMPError> err;
    std::unique_ptr<Reply> reply = Ask<Reply>(request, &err);
    EXPECT_EQ(err, CNDMPError::NDMP_NO_ERR) << err.ToString();
    EXPECT_NE(reply, nullptr);
    return reply;
  }

  std::unique_ptr<CNDMPMoverGetStateReply> MoverState() {
    CNDMPMoverGetStateRequest request;
    return AskOk<CNDMPMoverGetStateReply>(request);
  }

  // Asks a query whose reply must decode whole and carry no error.
  template <class Request, class Reply>
  std::unique_ptr<Reply> AskNoError() {
    Request request;
    std::unique_ptr<Reply> reply = AskOk<Reply>(request);
    EXPECT_EQ(reply != nullptr ? reply->Error.getInt32() : 0u, CNDMPError::NDMP_NO_ERR);
    return reply;
  }

  // Opens a fresh tape file "tape0" on this connection.
  void OpenTape(unsigned int mode = CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE) {
    ASSERT_EQ(CNDMPTapeHelper::TapeOpen(connection_.get(), server_.NewTape("tape0").c_str(),
                                        CXDREnumBase<CNDMPEnumTapeOpenMode>(mode), false),
              CNDMPError::NDMP_NO_ERR);
  }

  // Opens a tape, asks the mover to listen on TCP for reading.
  std::unique_ptr<CNDMPMoverListenReply> Listen() {
    OpenTape();
    CNDMPMoverListenRequest listen;
    listen.Mode = CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ;
    listen.AddressType = CNDMPEnumAddrType::NDMP_ADDR_TCP;
    std::unique_ptr<CNDMPMoverListenReply> reply = AskOk<CNDMPMoverListenReply>(listen);
    if (reply != nullptr) {
      EXPECT_EQ(reply->Error, CNDMPError::NDMP_NO_ERR);
      EXPECT_EQ(reply->Address.AddressType, CNDMPEnumAddrType::NDMP_ADDR_TCP);
    }
    return reply;
  }

  CNdmjobServer server_;
  CCapturingLog log_;
  std::unique_ptr<CNDMPConnection> connection_;
};

// A request with a code that no interface defines.
class CUnknownRequest
    : public CNDMPMessageImpl<CUnknownRequest, CNDMPGenericRequest, 0x0000F0F0> {};

TEST_F(Ndmjob, NegotiatesAnswersConfigQueriesAndOutlivesUnansweredRequests) {
  // The server's greeting reaches a callback registered for it.
  CPacketRecorder posts;
  CNDMPCallbackRegistration* registration =
      connection_->RegisterCallback(&posts, CNDMPMessageCode::NDMP_NOTIFY_CONNECTION_STATUS);
  ASSERT_NE(registration, nullptr);
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  ASSERT_EQ(posts.WaitFor(1), 1u);
  auto* greeting = posts.Body<CNDMPNotifyConnectionStatusPost>(0);
  ASSERT_NE(greeting, nullptr);
  EXPECT_EQ(greeting->Reason, enums::CNDMPEnumConnectionStatusReason::NDMP_CONNECTED);
  EXPECT_EQ(greeting->Protocol, CNDMPProtocolVersion::PROTOCOL_VERSION_4);
  connection_->UnregisterCallback(registration);
  EXPECT_EQ(connection_->GetProtocolVersion(), CNDMPProtocolVersion::PROTOCOL_VERSION_4);
  EXPECT_TRUE(connection_->IsConnected());
  std::unique_ptr<CNDMPMoverGetStateReply> v4 = MoverState();
  ASSERT_NE(v4, nullptr);
  EXPECT_EQ(v4->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_IDLE);
  CNDMPConfigGetExtListRequest extList;
  CUnknownRequest unknown;
  CNDMPConnectServerAuthRequest serverAuth;
  struct Case {
    CNDMPMessage* request;
    unsigned int expected;
  };
  // The server stays silent on the first two (only the time-out tells) and
  // refuses the server authentication with a bare header; the connection
  // stays usable for the queries after them.
  for (const Case& k : {Case{&extList, CNDMPError::NDMP_TIMEOUT_ERR},
                        Case{&unknown, CNDMPError::NDMP_TIMEOUT_ERR},
                        Case{&serverAuth, CNDMPError::NDMP_NOT_SUPPORTED_ERR}}) {
    CNDMPMessage* reply = nullptr;
    EXPECT_EQ(connection_->SendMessage(*k.request, &reply, 2), k.expected)
        << CNDMPMessageAccess::Code(*k.request).ToString();
    EXPECT_EQ(reply, nullptr);
  }
  auto host = AskNoError<CNDMPConfigGetHostInfoRequest, CNDMPConfigGetHostInfoReply>();
  ASSERT_NE(host, nullptr);
  EXPECT_FALSE(host->OSType.GetString().empty());
  auto server = AskNoError<CNDMPConfigGetServerInfoRequest, CNDMPConfigGetServerInfoReply>();
  ASSERT_NE(server, nullptr);
  EXPECT_FALSE(server->VenderName.GetString().empty());
  EXPECT_FALSE(server->ProductName.GetString().empty());
  std::vector<unsigned int> types;
  for (auto& t : server->AuthenticationTypes) types.push_back(t.getInt32());
  EXPECT_EQ(types, (std::vector<unsigned int>{CNDMPEnumAuthType::NDMP_AUTH_TEXT,
                                              CNDMPEnumAuthType::NDMP_AUTH_MD5}));
  auto kinds = AskNoError<CNDMPConfigGetConnectionTypeRequest, CNDMPConfigGetConnectionTypeReply>();
  ASSERT_NE(kinds, nullptr);
  bool tcp = false;
  for (auto& t : kinds->AddressTypes) tcp = tcp || t == CNDMPEnumAddrType::NDMP_ADDR_TCP;
  EXPECT_TRUE(tcp);
  // One 64-byte challenge per connection: asking again gives the same.
  std::vector<std::string> challenges;
  for (int i = 0; i < 2; ++i) {
    CNDMPConfigGetAuthAttrRequest request;
    request.AuthType = CNDMPEnumAuthType::NDMP_AUTH_MD5;
    auto reply = AskOk<CNDMPConfigGetAuthAttrReply>(request);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->Error, CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(reply->ServerAttr.AuthType, CNDMPEnumAuthType::NDMP_AUTH_MD5);
    ASSERT_EQ(reply->ServerAttr.Challenge.GetSize(), 64u);
    challenges.emplace_back(static_cast<const char*>(reply->ServerAttr.Challenge.GetData()), 64);
  }
  EXPECT_EQ(challenges[0], challenges[1]);
  EXPECT_NE(challenges[0], std::string(64, '\0'));
  // With an empty configuration these lists are empty.
  AskNoError<CNDMPConfigGetButypeAttrRequest, CNDMPConfigGetButypeAttrReply>();
  AskNoError<CNDMPConfigGetFsInfoRequest, CNDMPConfigGetFsInfoReply>();
  AskNoError<CNDMPConfigGetTapeInfoRequest, CNDMPConfigGetTapeInfoReply>();
  AskNoError<CNDMPConfigGetSCSIInfoRequest, CNDMPConfigGetSCSIInfoReply>();

  // A second connection to the same server, this time at version 3 only:
  // replies whose layout differs between the versions decode under 3.
  connection_->Disconnect();
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn(3));
  EXPECT_EQ(connection_->GetProtocolVersion(), CNDMPProtocolVersion::PROTOCOL_VERSION_3);
  std::unique_ptr<CNDMPMoverGetStateReply> v3 = MoverState();
  ASSERT_NE(v3, nullptr);
  EXPECT_EQ(v3->Error, CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(v3->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_IDLE);
  EXPECT_EQ(v3->RecordSize, v4->RecordSize);
  auto info = AskNoError<CNDMPConfigGetHostInfoRequest, CNDMPConfigGetHostInfoReply>();
  ASSERT_NE(info, nullptr);
  EXPECT_FALSE(info->hostname.GetString().empty());
}

TEST_F(Ndmjob, AuthenticationRefusalsLeaveTheConnectionOpenForTheRightPassword) {
  ASSERT_EQ(connection_->Connect(), CNDMPError::NDMP_NO_ERR);
  // MD5 is refused, then plain text: nothing else is offered.
  EXPECT_EQ(connection_->Authenticate(CNdmjobServer::kUser, "not-the-password"),
            CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  EXPECT_FALSE(connection_->IsAuthenticated());
  EXPECT_STREQ(connection_->GetPassword(), "");
  // Raw requests: NONE and a wrong text password refused, the right one taken.
  const struct {
    unsigned int type;
    const char* password;
    bool accepted;
  } cases[] = {
      {CNDMPEnumAuthType::NDMP_AUTH_NONE, nullptr, false},
      {CNDMPEnumAuthType::NDMP_AUTH_TEXT, "wrong", false},
      {CNDMPEnumAuthType::NDMP_AUTH_TEXT, CNdmjobServer::kPassword, true},
  };
  for (const auto& k : cases) {
    CNDMPConnectClientAuthRequest request{CXDREnumBase<CNDMPEnumAuthType>(k.type)};
    auto& text = request.AuthenticationData.TextAuthenticationData;
    text.AuthenticationID = CXDRString(CNdmjobServer::kUser);
    text.AuthenticationPassword = CXDRString(k.password == nullptr ? "" : k.password);
    CXDREnumBase<CNDMPError> err;
    auto reply = Ask<CNDMPConnectClientAuthReply>(request, &err);
    // A refusal comes either in the reply body or as a bare header.
    if (err == CNDMPError::NDMP_NO_ERR) {
      err = reply != nullptr ? reply->NDMP_Error : CNDMPError::NDMP_UNDEFINED_ERR;
    }
    EXPECT_EQ(err == CNDMPError::NDMP_NO_ERR, k.accepted) << k.type << " " << err.ToString();
    EXPECT_NE(err, CNDMPError::NDMP_TIMEOUT_ERR) << k.type;
    EXPECT_TRUE(connection_->IsConnected()) << k.type;
  }
  // MD5 with the right password (only the MD5 path sets the flag).
  EXPECT_EQ(connection_->Authenticate(CNdmjobServer::kUser, CNdmjobServer::kPassword),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_TRUE(connection_->IsAuthenticated());
  EXPECT_STREQ(connection_->GetUserName(), CNdmjobServer::kUser);
}


TEST_F(Ndmjob, TapeSessionThroughHelpers) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CNDMPConnection other("127.0.0.1", "127.0.0.1", log_, server_.port());
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn(0, &other));
  server_.NewTape("tape0");
  const std::string dir = server_.directory();
  constexpr unsigned int kOk = CNDMPError::NDMP_NO_ERR, kEof = CNDMPError::NDMP_EOF_ERR;
  testing::RunTapeSteps(
      {connection_.get(), &other}, dir + "/",
      {
          {0, "close", "", 0, CNDMPError::NDMP_DEV_NOT_OPEN_ERR, 0},
          {0, "rew", "", 1, CNDMPError::NDMP_DEV_NOT_OPEN_ERR, 0},
          {0, "open", "missing", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "open", "tape0", 0, kOk, 0},
          {0, "open", "tape0", 0, CNDMPError::NDMP_DEVICE_OPENED_ERR, 0},
          // Busy for the other connection; a name with ".." is tried once even with retry.
          {1, "open-retry", "../" + dir.substr(dir.rfind('/') + 1) + "/tape0", 0,
           CNDMPError::NDMP_DEVICE_BUSY_ERR, 0},
          // 262144 bytes is the largest record the server takes; its reply
          // spans many fragments on the way back.
          {0, "write", "", 1, kOk, 1},
          {0, "write", "", 100, kOk, 100},
          {0, "write", "", 4096, kOk, 4096},
          {0, "write", "", 65536, kOk, 65536},
          {0, "write", "", 262144, kOk, 262144},
          {0, "eof", "", 1, kOk, 0},
          {0, "write", "", 200, kOk, 200},
          {0, "eof", "", 1, kOk, 0},
          {0, "rew", "", 1, kOk, 0},
          {0, "read", "", 1, kOk, 1},
          // A short read takes the start of a record; the rest of it is gone.
          {0, "read", "", 50, kOk, 50},
          {0, "read", "", 4096, kOk, 4096},
          {0, "read", "", 65536, kOk, 65536},
          {0, "read", "", 262144, kOk, 262144},
          // The filemark is met again and again until spaced over.
          {0, "read", "", 300, kEof, 0},
          {0, "read", "", 300, kEof, 0},
          {0, "fsf", "", 1, kOk, 0},
          {0, "state", "", 1, kOk, 0},
          {0, "read", "", 300, kOk, 200},
          // Five files forward from the second filemark find one more (the
          // end of the written data) and leave four undone.
          {0, "read", "", 300, kEof, 0},
          {0, "fsf", "", 5, kOk, 4},
          {0, "close", "", 0, kOk, 0},
          {0, "read-only", "tape0", 0, kOk, 0},
          {0, "write", "", 16, CNDMPError::NDMP_PERMISSION_ERR, 0},
          {0, "close", "", 0, kOk, 0},
      });
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(connection_.get(), (dir + "/missing").c_str()),
            CNDMPError::NDMP_NO_DEVICE_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIClose(connection_.get()), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
}

TEST_F(Ndmjob, BusyTapeOpensOnRetryOnceItsHolderClosesIt) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CCapturingLog otherLog;
  otherLog.setLevel(3);  // one "Sending ..." line per request
  CNDMPConnection other("127.0.0.1", "127.0.0.1", otherLog, server_.port());
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn(0, &other));
  ASSERT_NO_FATAL_FAILURE(OpenTape());
  const std::string tape = server_.directory() + "/tape0";
  CXDREnumBase<CNDMPError> result;
  std::thread opener([&] {
    result = CNDMPTapeHelper::TapeOpen(&other, tape.c_str(),
                                       CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE, true);
  });
  // A second try is only sent after the first one was refused as busy.
  EXPECT_TRUE(otherLog.WaitFor("Sending NDMP_TAPE_OPEN", 10000, 2));
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(connection_.get()), CNDMPError::NDMP_NO_ERR);
  opener.join();
  EXPECT_EQ(result, CNDMPError::NDMP_NO_ERR);
  const int tries = otherLog.Count("Sending NDMP_TAPE_OPEN");
  EXPECT_GE(tries, 2);
  EXPECT_LE(tries, 11);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(&other), CNDMPError::NDMP_NO_ERR);
}

// The mover listens on TCP (one address under version 3, a list under 4)
// and halts on an abort. Under version 4 the halted post that follows is the
// reason alone, while CNDMPNotifyMoverHaltedPost always reads a text reason
// after it; the halt cycle is therefore followed under version 3 only.
TEST_F(Ndmjob, MoverListensOnTcpAndHaltsOnAbort) {
  for (unsigned int version : {3u, 4u}) {
    SCOPED_TRACE(version);
    const bool v3 = version == 3;
    connection_->Disconnect();
    ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn(version));
    std::unique_ptr<CNDMPMoverGetStateReply> state = MoverState();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->DataConnAddress.AddressType, CNDMPEnumAddrType::NDMP_ADDR_LOCAL);
    CNDMPDataGetStateRequest request;
    auto data = AskOk<CNDMPDataGetStateReply>(request);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->State, enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE);

    CPacketRecorder halted;
    CNDMPCallbackRegistration* registration =
        connection_->RegisterCallback(&halted, CNDMPMessageCode::NDMP_NOTIFY_MOVER_HALTED);
    std::unique_ptr<CNDMPMoverListenReply> reply = Listen();
    ASSERT_NE(reply, nullptr);
    state = MoverState();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_LISTEN);
    ASSERT_TRUE(v3 || (reply->Address.TcpAddressList.size() > 0 &&
                       state->DataConnAddress.TcpAddressList.size() > 0));
    const CNDMPTcpAddr& listening =
        v3 ? reply->Address.TcpAddress : reply->Address.TcpAddressList[0];
    const CNDMPTcpAddr& shown =
        v3 ? state->DataConnAddress.TcpAddress : state->DataConnAddress.TcpAddressList[0];
    EXPECT_EQ(listening.IPAddress, kLoopback);
    EXPECT_NE(listening.Port, 0u);
    EXPECT_EQ(shown.Port, listening.Port);
    CNDMPMoverAbortRequest abort;
    auto aborted = AskOk<CNDMPMoverAbortReply>(abort);
    ASSERT_NE(aborted, nullptr);
    EXPECT_EQ(aborted->NDMP_Error, CNDMPError::NDMP_NO_ERR);
    if (!v3) {
      connection_->UnregisterCallback(registration);
      break;
    }

    ASSERT_EQ(halted.WaitFor(1), 1u);
    ASSERT_NE(halted.Body<CNDMPNotifyMoverHaltedPost>(0), nullptr);
    EXPECT_EQ(halted.Body<CNDMPNotifyMoverHaltedPost>(0)->Reason,
              CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_ABORTED);
    state = MoverState();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_HALTED);
    EXPECT_EQ(state->HaltReason, CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_ABORTED);
    CNDMPMoverStopRequest stop;
    auto stopped = AskOk<CNDMPMoverStopReply>(stop);
    ASSERT_NE(stopped, nullptr);
    EXPECT_EQ(stopped->NDMP_Error, CNDMPError::NDMP_NO_ERR);
    state = MoverState();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_IDLE);
    EXPECT_EQ(CNDMPTapeHelper::TapeClose(connection_.get()), CNDMPError::NDMP_NO_ERR);
    connection_->UnregisterCallback(registration);
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
