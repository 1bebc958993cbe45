// Interoperability with an independent NDMP server: the ndmjob server of the
// amanda-server package, run as a black box on 127.0.0.1, one fresh server
// (own port and directory) per test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
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
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPEnumAddrType;
using enums::CNDMPEnumAuthType;
using enums::CNDMPEnumMoverHaltReason;
using enums::CNDMPEnumMoverMode;
using enums::CNDMPEnumMoverState;
using enums::CNDMPEnumMtioOp;
using enums::CNDMPEnumTapeOpenMode;
using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPProtocolVersion;
using testing::CCapturingLog;
using testing::CNdmjobServer;
using testing::CPacketRecorder;

// Upper bound of a wait for a reply the server does give.
constexpr unsigned int kReplySeconds = 30;
constexpr unsigned int kLoopback = 0x7F000001;

// A log (info level: one "Sending ..." line per request) that counts the
// lines containing a text, for a bounded wait on the count.
class CSendCounter : public VxLog {
 public:
  explicit CSendCounter(std::string text) : text_(std::move(text)) { setLevel(3); }
  bool WaitForCount(int n, int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return seen_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return count_ >= n; });
  }
  int count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

 protected:
  void WriteLine(Severity, const char* line) override {
    if (std::strstr(line, text_.c_str()) == nullptr) return;
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    seen_.notify_all();
  }

 private:
  const std::string text_;
  std::mutex mutex_;
  std::condition_variable seen_;
  int count_ = 0;  // guarded by mutex_
};

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

  // Connects (at `version`, or 4 then 3 when 0) and logs in with MD5.
  void ConnectAndLogIn(unsigned int version = 0) {
    CXDREnumBase<CNDMPError> err =
        version == 0 ? connection_->Connect()
                     : connection_->Connect(CXDREnumBase<CNDMPProtocolVersion>(version));
    ASSERT_EQ(err, CNDMPError::NDMP_NO_ERR) << server_.Log();
    ASSERT_EQ(connection_->Authenticate(CNdmjobServer::kUser, CNdmjobServer::kPassword),
              CNDMPError::NDMP_NO_ERR);
  }

  // Connects a second connection to the same server and logs it in.
  static void LogIn(CNDMPConnection& other) {
    ASSERT_EQ(other.Connect(), CNDMPError::NDMP_NO_ERR);
    ASSERT_EQ(other.Authenticate(CNdmjobServer::kUser, CNdmjobServer::kPassword),
              CNDMPError::NDMP_NO_ERR);
  }

  // Sends `request`; returns the send's result and the reply as class Reply
  // (null when none came or it is of another class).
  template <class Reply>
  std::unique_ptr<Reply> Ask(CNDMPMessage& request, CXDREnumBase<CNDMPError>* err,
                             unsigned int timeout = kReplySeconds) {
    CNDMPMessage* reply = nullptr;
    *err = connection_->SendMessage(request, &reply, timeout);
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
    if (reply != nullptr) {
      EXPECT_EQ(reply->Error, CNDMPError::NDMP_NO_ERR);
    }
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

TEST_F(Ndmjob, NegotiatesVersion4OrTheForcedVersion3) {
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

TEST_F(Ndmjob, TextAuthenticationAcceptedNoneRefused) {
  ASSERT_EQ(connection_->Connect(), CNDMPError::NDMP_NO_ERR);
  struct Case {
    const char* name;
    unsigned int type;
    const char* password;
    bool accepted;
  };
  // NONE and a wrong text password are refused first: each refusal leaves
  // the connection open for the next try.
  const Case cases[] = {
      {"none", CNDMPEnumAuthType::NDMP_AUTH_NONE, nullptr, false},
      {"text, wrong password", CNDMPEnumAuthType::NDMP_AUTH_TEXT, "wrong", false},
      {"text", CNDMPEnumAuthType::NDMP_AUTH_TEXT, CNdmjobServer::kPassword, true},
  };
  for (const Case& k : cases) {
    CNDMPConnectClientAuthRequest request{CXDREnumBase<CNDMPEnumAuthType>(k.type)};
    if (k.password != nullptr) {
      request.AuthenticationData.TextAuthenticationData.AuthenticationID =
          CXDRString(CNdmjobServer::kUser);
      request.AuthenticationData.TextAuthenticationData.AuthenticationPassword =
          CXDRString(k.password);
    }
    CXDREnumBase<CNDMPError> err;
    std::unique_ptr<CNDMPConnectClientAuthReply> reply =
        Ask<CNDMPConnectClientAuthReply>(request, &err);
    // A refusal comes either in the reply body or as a bare header.
    CXDREnumBase<CNDMPError> outcome =
        err != CNDMPError::NDMP_NO_ERR ? err
                                       : (reply != nullptr ? reply->NDMP_Error
                                                           : CXDREnumBase<CNDMPError>(
                                                                 CNDMPError::NDMP_UNDEFINED_ERR));
    if (k.accepted) {
      EXPECT_EQ(outcome, CNDMPError::NDMP_NO_ERR) << k.name;
    } else {
      EXPECT_NE(outcome, CNDMPError::NDMP_NO_ERR) << k.name;
      EXPECT_NE(outcome, CNDMPError::NDMP_TIMEOUT_ERR) << k.name;
    }
    EXPECT_TRUE(connection_->IsConnected()) << k.name;
  }
}

TEST_F(Ndmjob, WrongPasswordIsNotAuthorizedThenMD5Succeeds) {
  ASSERT_EQ(connection_->Connect(), CNDMPError::NDMP_NO_ERR);
  // MD5 is refused, then plain text: nothing else is offered.
  EXPECT_EQ(connection_->Authenticate(CNdmjobServer::kUser, "not-the-password"),
            CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  EXPECT_FALSE(connection_->IsAuthenticated());
  EXPECT_STREQ(connection_->GetPassword(), "");
  // The right password is then accepted with MD5 on the same connection
  // (only the MD5 path sets the flag).
  EXPECT_EQ(connection_->Authenticate(CNdmjobServer::kUser, CNdmjobServer::kPassword),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_TRUE(connection_->IsAuthenticated());
  EXPECT_STREQ(connection_->GetUserName(), CNdmjobServer::kUser);
}

TEST_F(Ndmjob, AnswersEveryConfigQuery) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
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
}

// A request with a code that no interface defines.
class CUnknownRequest
    : public CNDMPMessageImpl<CUnknownRequest, CNDMPGenericRequest, 0x0000F0F0> {};

TEST_F(Ndmjob, UnansweredRequestsTimeOutAndConnectionStaysUsable) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CNDMPConfigGetExtListRequest extList;
  CUnknownRequest unknown;
  CNDMPConnectServerAuthRequest serverAuth;
  struct Case {
    CNDMPMessage* request;
    unsigned int expected;
  };
  // The server stays silent on the first two (only the time-out tells) and
  // refuses the server authentication with a bare header.
  for (const Case& k : {Case{&extList, CNDMPError::NDMP_TIMEOUT_ERR},
                        Case{&unknown, CNDMPError::NDMP_TIMEOUT_ERR},
                        Case{&serverAuth, CNDMPError::NDMP_NOT_SUPPORTED_ERR}}) {
    CNDMPMessage* reply = nullptr;
    EXPECT_EQ(connection_->SendMessage(*k.request, &reply, 2), k.expected)
        << CNDMPMessageAccess::Code(*k.request).ToString();
    EXPECT_EQ(reply, nullptr);
  }
  AskNoError<CNDMPConfigGetHostInfoRequest, CNDMPConfigGetHostInfoReply>();
}

// Deterministic contents for a record of `size` bytes.
std::vector<unsigned char> Record(std::size_t size) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + size);
  return bytes;
}

TEST_F(Ndmjob, TapeWrittenAndReadBackThroughHelpers) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CNDMPConnection* c = connection_.get();
  ASSERT_NO_FATAL_FAILURE(OpenTape());
  // 262144 bytes is the largest record the server takes; its reply spans
  // many fragments on the way back.
  const std::size_t sizes[] = {1, 512, 4096, 65536, 262144};
  for (std::size_t size : sizes) {
    std::vector<unsigned char> record = Record(size);
    unsigned int written = 0;
    EXPECT_EQ(CNDMPTapeHelper::TapeWrite(c, record.data(), static_cast<unsigned int>(size),
                                         &written),
              CNDMPError::NDMP_NO_ERR)
        << size;
    EXPECT_EQ(written, size);
  }
  for (unsigned int op : {CNDMPEnumMtioOp::NDMP_MTIO_EOF, CNDMPEnumMtioOp::NDMP_MTIO_REW}) {
    unsigned int resid = 99;
    EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(c, CXDREnumBase<CNDMPEnumMtioOp>(op), 1, &resid),
              CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(resid, 0u);
  }

  for (std::size_t size : sizes) {
    std::vector<unsigned char> back(size, 0);
    unsigned int read = 0;
    EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, back.data(), static_cast<unsigned int>(size), &read),
              CNDMPError::NDMP_NO_ERR)
        << size;
    EXPECT_EQ(read, size);
    EXPECT_TRUE(back == Record(size)) << "record of " << size << " bytes differs";
  }
  unsigned char byte = 0;
  unsigned int read = 99;
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, &byte, 1, &read), CNDMPError::NDMP_EOF_ERR);
  EXPECT_EQ(read, 0u);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_NO_ERR);
}

TEST_F(Ndmjob, FilemarksSeparateFilesAndSpacingReportsResid) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CNDMPConnection* c = connection_.get();
  ASSERT_NO_FATAL_FAILURE(OpenTape());
  // Two files of one record each: 100 bytes, filemark, 200 bytes, filemark.
  unsigned int count = 0;
  for (std::size_t size : {100u, 200u}) {
    std::vector<unsigned char> record = Record(size);
    ASSERT_EQ(CNDMPTapeHelper::TapeWrite(c, record.data(), static_cast<unsigned int>(size), &count),
              CNDMPError::NDMP_NO_ERR);
    ASSERT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_EOF, 1, &count),
              CNDMPError::NDMP_NO_ERR);
  }
  ASSERT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_REW, 1, &count),
            CNDMPError::NDMP_NO_ERR);

  // A short read takes the start of the record; the rest of it is gone and
  // the next read meets the filemark, again and again until spaced over.
  std::vector<unsigned char> back(300, 0);
  unsigned int read = 0;
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, back.data(), 50, &read), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(read, 50u);
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + 50, Record(100).begin()));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, back.data(), 300, &read), CNDMPError::NDMP_EOF_ERR);
    EXPECT_EQ(read, 0u);
  }
  unsigned int resid = 99;
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_FSF, 1, &resid),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(resid, 0u);
  CNDMPTapeGetStateRequest state;
  auto position = AskOk<CNDMPTapeGetStateReply>(state);
  ASSERT_NE(position, nullptr);
  EXPECT_EQ(position->FileNum, 1u);
  EXPECT_EQ(position->BlockNo, 0u);
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, back.data(), 300, &read), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(read, 200u);
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + 200, Record(200).begin()));

  // Spacing five files forward from the second filemark finds one more
  // (the end of the written data) and leaves four undone.
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, back.data(), 300, &read), CNDMPError::NDMP_EOF_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_FSF, 5, &resid),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(resid, 4u);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_NO_ERR);
}

TEST_F(Ndmjob, DeviceErrorsComeBackThroughHelpers) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CNDMPConnection* c = connection_.get();
  CCapturingLog otherLog;
  otherLog.setLevel(2);
  CNDMPConnection other("127.0.0.1", "127.0.0.1", otherLog, server_.port());
  ASSERT_NO_FATAL_FAILURE(LogIn(other));
  const std::string tape = server_.NewTape("tape0");
  const CXDREnumBase<CNDMPEnumTapeOpenMode> rdwr(CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE);
  unsigned int count = 99;

  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_REW, 1, &count),
            CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(c, (server_.directory() + "/missing").c_str(), rdwr, false),
            CNDMPError::NDMP_NO_DEVICE_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(c, (server_.directory() + "/missing").c_str()),
            CNDMPError::NDMP_NO_DEVICE_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIClose(c), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);

  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(c, tape.c_str(), rdwr, false), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(c, tape.c_str(), rdwr, false),
            CNDMPError::NDMP_DEVICE_OPENED_ERR);
  // Held by the first connection: busy for the second. A name with ".."
  // is tried once even with retry.
  const std::string dotted = server_.directory() + "/../" +
                             server_.directory().substr(server_.directory().rfind('/') + 1) +
                             "/tape0";
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(&other, dotted.c_str(), rdwr, true),
            CNDMPError::NDMP_DEVICE_BUSY_ERR);
  EXPECT_EQ(otherLog.Count("bytes discarded"), 0);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_NO_ERR);

  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(c, tape.c_str(), CNDMPEnumTapeOpenMode::NDMP_TAPE_READ_MODE,
                                      false),
            CNDMPError::NDMP_NO_ERR);
  unsigned char data[16] = {};
  count = 99;
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(c, data, sizeof data, &count),
            CNDMPError::NDMP_PERMISSION_ERR);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_NO_ERR);
}

TEST_F(Ndmjob, BusyTapeOpensOnRetryOnceItsHolderClosesIt) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  CSendCounter otherLog("Sending NDMP_TAPE_OPEN");
  CNDMPConnection other("127.0.0.1", "127.0.0.1", otherLog, server_.port());
  ASSERT_NO_FATAL_FAILURE(LogIn(other));
  const std::string tape = server_.NewTape("tape0");
  const CXDREnumBase<CNDMPEnumTapeOpenMode> rdwr(CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE);
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(connection_.get(), tape.c_str(), rdwr, false),
            CNDMPError::NDMP_NO_ERR);

  CXDREnumBase<CNDMPError> result;
  std::thread opener([&] { result = CNDMPTapeHelper::TapeOpen(&other, tape.c_str(), rdwr, true); });
  // A second try is only sent after the first one was refused as busy.
  EXPECT_TRUE(otherLog.WaitForCount(2, 10000));
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(connection_.get()), CNDMPError::NDMP_NO_ERR);
  opener.join();
  EXPECT_EQ(result, CNDMPError::NDMP_NO_ERR);
  EXPECT_GE(otherLog.count(), 2);
  EXPECT_LE(otherLog.count(), 11);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(&other), CNDMPError::NDMP_NO_ERR);
}

TEST_F(Ndmjob, MoverListensOnTcpAndAborts) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn());
  std::unique_ptr<CNDMPMoverGetStateReply> idle = MoverState();
  ASSERT_NE(idle, nullptr);
  EXPECT_EQ(idle->DataConnAddress.AddressType, CNDMPEnumAddrType::NDMP_ADDR_LOCAL);
  CNDMPDataGetStateRequest request;
  auto data = AskOk<CNDMPDataGetStateReply>(request);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->State, enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE);

  std::unique_ptr<CNDMPMoverListenReply> reply = Listen();
  ASSERT_NE(reply, nullptr);
  ASSERT_GE(reply->Address.TcpAddressList.size(), 1u);
  EXPECT_EQ(reply->Address.TcpAddressList[0].IPAddress, kLoopback);
  const unsigned int port = reply->Address.TcpAddressList[0].Port;
  EXPECT_NE(port, 0u);
  std::unique_ptr<CNDMPMoverGetStateReply> state = MoverState();
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->State, CNDMPEnumMoverState::NDMP_MOVER_STATE_LISTEN);
  ASSERT_GE(state->DataConnAddress.TcpAddressList.size(), 1u);
  EXPECT_EQ(state->DataConnAddress.TcpAddressList[0].Port, port);

  // Under version 4 the halted post that follows is the reason alone, while
  // CNDMPNotifyMoverHaltedPost always reads a text reason after it; the
  // halt cycle is therefore followed under version 3 (next test).
  CNDMPMoverAbortRequest abort;
  auto aborted = AskOk<CNDMPMoverAbortReply>(abort);
  ASSERT_NE(aborted, nullptr);
  EXPECT_EQ(aborted->NDMP_Error, CNDMPError::NDMP_NO_ERR);
}

TEST_F(Ndmjob, MoverHaltCycleUnderVersion3) {
  ASSERT_NO_FATAL_FAILURE(ConnectAndLogIn(3));
  CPacketRecorder halted;
  CNDMPCallbackRegistration* registration =
      connection_->RegisterCallback(&halted, CNDMPMessageCode::NDMP_NOTIFY_MOVER_HALTED);
  std::unique_ptr<CNDMPMoverListenReply> reply = Listen();
  ASSERT_NE(reply, nullptr);
  // Version 3 carries exactly one TCP address.
  EXPECT_EQ(reply->Address.TcpAddress.IPAddress, kLoopback);
  EXPECT_NE(reply->Address.TcpAddress.Port, 0u);

  CNDMPMoverAbortRequest abort;
  auto aborted = AskOk<CNDMPMoverAbortReply>(abort);
  ASSERT_NE(aborted, nullptr);
  EXPECT_EQ(aborted->NDMP_Error, CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(halted.WaitFor(1), 1u);
  ASSERT_NE(halted.Body<CNDMPNotifyMoverHaltedPost>(0), nullptr);
  EXPECT_EQ(halted.Body<CNDMPNotifyMoverHaltedPost>(0)->Reason,
            CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_ABORTED);
  std::unique_ptr<CNDMPMoverGetStateReply> state = MoverState();
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

}  // namespace
}  // namespace com::vx::korvane::ndmpc
