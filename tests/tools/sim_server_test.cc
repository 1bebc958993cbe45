// The simulated server through the library: negotiation, authentication,
// the tape agent, many clients at once and clients that send garbage.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "ndmpc/ndmp/messages/snapshot_messages.h"
#include "tests/tools/tools_test_support.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

using enums::CNDMPError;
using Mode = enums::CNDMPEnumTapeOpenMode;
using Op = enums::CNDMPEnumMtioOp;

// A connected (and, unless told otherwise, authenticated) library client.
class CClient {
 public:
  explicit CClient(unsigned int port) : connection_("127.0.0.1", "", QuietLog(), port) {}
  ~CClient() { connection_.Disconnect(); }
  bool Open(const char* user = "ndmp", const char* password = "secret", unsigned int version = 0) {
    CXDREnumBase<CNDMPError> r =
        version == 0 ? connection_.Connect()
                     : connection_.Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
    if (r != CNDMPError::NDMP_NO_ERR) return false;
    return user == nullptr || connection_.Authenticate(user, password) == CNDMPError::NDMP_NO_ERR;
  }
  CNDMPConnection* operator->() { return &connection_; }
  CNDMPConnection* get() { return &connection_; }
  // The error of a request: the header's, else the reply's first error field.
  unsigned int Ask(CNDMPMessage& request) {
    CNDMPMessage* reply = nullptr;
    unsigned int error = connection_.SendMessage(request, &reply, 10).getInt32();
    if (error == CNDMPError::NDMP_NO_ERR && reply != nullptr) {
      for (std::size_t i = 0; i < reply->GetMemberCount(); ++i) {
        if (auto* e = dynamic_cast<CXDREnumBase<CNDMPError>*>(reply->GetMember(i).member)) {
          error = e->getInt32();
          break;
        }
      }
    }
    connection_.FreeMessage(reply);
    return error;
  }

 private:
  CNDMPConnection connection_;
};

TEST(SimServer, NegotiatesTheVersionsItIsConfiguredFor) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.versions = {3};
  CSimFixture sim(config);
  CClient any(sim.Port());
  ASSERT_TRUE(any.Open());
  EXPECT_EQ(any->GetProtocolVersion(), 3u);  // 4 refused, 3 taken
  CClient four(sim.Port());
  EXPECT_FALSE(four.Open("ndmp", "secret", 4));
}

TEST(SimServer, AuthenticatesOnlyWithTheConfiguredMethodsAndCredentials) {
  struct CCase {
    bool md5, text, none;
    const char* user;
    const char* password;
    bool accepted;
  };
  const CCase cases[] = {
      {true, false, false, "ndmp", "secret", true},
      {true, false, false, "ndmp", "wrong", false},
      {true, false, false, "other", "secret", false},
      {false, true, false, "ndmp", "secret", true},
      {false, true, false, "ndmp", "wrong", false},
      {false, false, true, "", "", true},
      {true, true, false, "", "", false},
  };
  for (const CCase& c : cases) {
    CSimServerConfig config = CSimFixture::DefaultConfig();
    config.authMD5 = c.md5;
    config.authText = c.text;
    config.authNone = c.none;
    CSimFixture sim(config);
    CClient client(sim.Port());
    EXPECT_EQ(client.Open(c.user, c.password), c.accepted)
        << c.md5 << c.text << c.none << " " << c.user << "/" << c.password;
  }
}

TEST(SimServer, RefusesRequestsBeforeAuthentication) {
  CSimFixture sim;
  CClient client(sim.Port());
  ASSERT_TRUE(client.Open(nullptr));
  CNDMPConfigGetServerInfoRequest info;
  EXPECT_EQ(client.Ask(info), CNDMPError::NDMP_NO_ERR);
  CNDMPConfigGetHostInfoRequest host;
  EXPECT_EQ(client.Ask(host), CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  CNDMPSnapCreateRequest snap;
  EXPECT_EQ(client.Ask(snap), CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  ASSERT_EQ(client->Authenticate("ndmp", "secret"), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(client.Ask(host), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(client.Ask(snap), CNDMPError::NDMP_NOT_SUPPORTED_ERR);
}

TEST(SimServer, TapeAgentAnswersLikeADrive) {
  CSimFixture sim;
  CClient a(sim.Port());
  CClient b(sim.Port());
  ASSERT_TRUE(a.Open());
  ASSERT_TRUE(b.Open());
  unsigned int n = 0;
  unsigned char record[100];
  for (unsigned int i = 0; i < sizeof(record); ++i) record[i] = static_cast<unsigned char>(i);
  unsigned char buffer[200];

  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(a.get(), record, 10, &n), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  for (const char* bad : {"../escape", "a/b", "", ".hidden"}) {
    EXPECT_EQ(CNDMPTapeHelper::TapeOpen(a.get(), bad, Mode::NDMP_TAPE_RDWR_MODE, false),
              CNDMPError::NDMP_NO_DEVICE_ERR)
        << bad;
  }
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(a.get(), "missing", Mode::NDMP_TAPE_READ_MODE, false),
            CNDMPError::NDMP_NO_DEVICE_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(a.get(), "t", Mode::NDMP_TAPE_RDWR_MODE, false),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(a.get(), "t", Mode::NDMP_TAPE_RDWR_MODE, false),
            CNDMPError::NDMP_DEVICE_OPENED_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(b.get(), "t", Mode::NDMP_TAPE_READ_MODE, false),
            CNDMPError::NDMP_DEVICE_BUSY_ERR);

  // Two records, a filemark, one more record.
  ASSERT_EQ(CNDMPTapeHelper::TapeWrite(a.get(), record, 100, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(n, 100u);
  ASSERT_EQ(CNDMPTapeHelper::TapeWrite(a.get(), record, 30, &n), CNDMPError::NDMP_NO_ERR);
  unsigned int resid = 99;
  ASSERT_EQ(CNDMPTapeHelper::TapeMTIO(a.get(), Op::NDMP_MTIO_EOF, 1, &resid),
            CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeWrite(a.get(), record, 5, &n), CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeMTIO(a.get(), Op::NDMP_MTIO_REW, 1, &resid),
            CNDMPError::NDMP_NO_ERR);

  // A short read truncates the record; the next read starts at the next record.
  ASSERT_EQ(CNDMPTapeHelper::TapeRead(a.get(), buffer, 40, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(n, 40u);
  EXPECT_EQ(buffer[39], 39);
  ASSERT_EQ(CNDMPTapeHelper::TapeRead(a.get(), buffer, 200, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(n, 30u);
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(a.get(), buffer, 200, &n), CNDMPError::NDMP_EOF_ERR);
  EXPECT_EQ(n, 0u);
  ASSERT_EQ(CNDMPTapeHelper::TapeRead(a.get(), buffer, 200, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(a.get(), buffer, 200, &n), CNDMPError::NDMP_EOM_ERR);

  // Motions with their residual counts.
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(a.get(), Op::NDMP_MTIO_BSF, 2, &resid),
            CNDMPError::NDMP_EOM_ERR);
  EXPECT_EQ(resid, 1u);
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(a.get(), Op::NDMP_MTIO_FSR, 5, &resid),
            CNDMPError::NDMP_EOF_ERR);
  EXPECT_EQ(resid, 3u);
  CNDMPTapeGetStateRequest stateRequest;
  CNDMPMessage* reply = nullptr;
  ASSERT_EQ(a->SendMessage(stateRequest, &reply, 10), CNDMPError::NDMP_NO_ERR);
  auto* state = dynamic_cast<CNDMPTapeGetStateReply*>(reply);
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->FileNum, 0u);
  EXPECT_EQ(state->BlockNo, 2u);
  EXPECT_EQ(state->SpaceRemaining.getUint64(), state->TotalSpace.getUint64() - 135);
  a->FreeMessage(reply);

  // Read-only opens refuse writes; a closed tape is free for others.
  ASSERT_EQ(CNDMPTapeHelper::TapeClose(a.get()), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(a.get()), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(b.get(), "t", Mode::NDMP_TAPE_READ_MODE, false),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(b.get(), record, 10, &n), CNDMPError::NDMP_PERMISSION_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(b.get(), Op::NDMP_MTIO_EOF, 1, &resid),
            CNDMPError::NDMP_PERMISSION_ERR);
  // Records above the limit are refused.
  CSimServerConfig config = sim.Server().Config();
  std::vector<unsigned char> big(config.maxRecordSize + 1);
  ASSERT_EQ(CNDMPTapeHelper::TapeClose(b.get()), CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(b.get(), "t", Mode::NDMP_TAPE_RDWR_MODE, false),
            CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(
      CNDMPTapeHelper::TapeWrite(b.get(), big.data(), static_cast<unsigned int>(big.size()), &n),
      CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
}

TEST(SimServer, TapeEndsAtItsCapacity) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.tapeCapacity = 250;
  CSimFixture sim(config);
  CClient client(sim.Port());
  ASSERT_TRUE(client.Open());
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(client.get(), "small", Mode::NDMP_TAPE_RDWR_MODE, false),
            CNDMPError::NDMP_NO_ERR);
  unsigned char record[100] = {0};
  unsigned int n = 0;
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(client.get(), record, 100, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(client.get(), record, 100, &n), CNDMPError::NDMP_NO_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(client.get(), record, 100, &n), CNDMPError::NDMP_EOM_ERR);
  EXPECT_EQ(n, 0u);
}

TEST(SimServer, TapesSurviveARestart) {
  CTempDir tapes;
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.tapeDir = tapes.Path();
  unsigned char record[64];
  for (unsigned int i = 0; i < sizeof(record); ++i) record[i] = static_cast<unsigned char>(i * 3);
  for (int run = 0; run < 2; ++run) {
    CNDMPSimServer server(config, QuietLog());
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;
    CClient client(server.Port());
    ASSERT_TRUE(client.Open());
    ASSERT_EQ(CNDMPTapeHelper::TapeOpen(client.get(), "keep", Mode::NDMP_TAPE_RDWR_MODE, false),
              CNDMPError::NDMP_NO_ERR);
    unsigned int n = 0;
    unsigned int resid = 0;
    if (run == 0) {
      ASSERT_EQ(CNDMPTapeHelper::TapeWrite(client.get(), record, 64, &n), CNDMPError::NDMP_NO_ERR);
      ASSERT_EQ(CNDMPTapeHelper::TapeMTIO(client.get(), Op::NDMP_MTIO_EOF, 1, &resid),
                CNDMPError::NDMP_NO_ERR);
    } else {
      unsigned char buffer[128];
      ASSERT_EQ(CNDMPTapeHelper::TapeRead(client.get(), buffer, 128, &n), CNDMPError::NDMP_NO_ERR);
      ASSERT_EQ(n, 64u);
      EXPECT_EQ(std::memcmp(buffer, record, 64), 0);
      EXPECT_EQ(CNDMPTapeHelper::TapeRead(client.get(), buffer, 128, &n), CNDMPError::NDMP_EOF_ERR);
    }
    client->Disconnect();
    server.Stop();
  }
}

constexpr unsigned int kOk = CNDMPError::NDMP_NO_ERR;

// One client's whole session on its own tape: the step that failed, or "".
std::string TapeSession(unsigned int port, int i) {
  CClient client(port);
  if (!client.Open()) return "open";
  CNDMPConfigGetHostInfoRequest host;
  CNDMPConfigGetFsInfoRequest fs;
  CNDMPConfigGetTapeInfoRequest tapes;
  if (client.Ask(host) != 0 || client.Ask(fs) != 0 || client.Ask(tapes) != 0) return "config";
  const std::string tape = "tape" + std::to_string(i);
  if (CNDMPTapeHelper::TapeOpen(client.get(), tape.c_str(), Mode::NDMP_TAPE_RDWR_MODE, false) !=
      kOk) {
    return "tape open";
  }
  std::vector<unsigned char> data(20000 + i);
  std::mt19937 random(static_cast<unsigned int>(i));
  for (unsigned char& b : data) b = static_cast<unsigned char>(random());
  const auto size = static_cast<unsigned int>(data.size());
  unsigned int n = 0;
  for (int r = 0; r < 4; ++r) {
    if (CNDMPTapeHelper::TapeWrite(client.get(), data.data(), size, &n) != kOk) return "write";
  }
  CNDMPTapeHelper::TapeMTIO(client.get(), Op::NDMP_MTIO_REW, 1, &n);
  std::vector<unsigned char> back(size);
  for (int r = 0; r < 4; ++r) {
    if (CNDMPTapeHelper::TapeRead(client.get(), back.data(), size, &n) != kOk || back != data) {
      return "read";
    }
  }
  return "";
}

TEST(SimServer, ServesManyClientsAtOnce) {
  CSimFixture sim;
  constexpr int kClients = 8;
  std::vector<std::string> failures(kClients, "not run");
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] { failures[i] = TapeSession(sim.Port(), i); });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < kClients; ++i) EXPECT_EQ(failures[i], "") << "client " << i;
}

// Sends raw bytes on a fresh connection and closes it.
void SendRaw(unsigned int port, const std::vector<unsigned char>& bytes) {
  VxTcpSocket socket;
  ASSERT_EQ(socket.connect(VxSocketAddress("127.0.0.1", port), 5000), 0u);
  unsigned int written = 0;
  socket.write(bytes.data(), static_cast<unsigned int>(bytes.size()), &written);
  socket.close();
}

TEST(SimServer, SurvivesGarbageAndKeepsServingOthers) {
  CSimFixture sim;
  CClient steady(sim.Port());
  ASSERT_TRUE(steady.Open());

  std::mt19937 random(99);
  std::vector<unsigned char> noise(5000);
  for (unsigned char& b : noise) b = static_cast<unsigned char>(random());
  SendRaw(sim.Port(), noise);
  // A fragment header announcing 2 GiB, then a little data.
  SendRaw(sim.Port(), {0xFF, 0xFF, 0xFF, 0xF0, 1, 2, 3, 4});
  // A whole record holding only a header with an unknown message code.
  SendRaw(sim.Port(), {0x80, 0, 0,    24,   0,    0,    0, 1, 0, 0, 0, 0, 0, 0,
                       0,    0, 0x7E, 0x57, 0xC0, 0xDE, 0, 0, 0, 0, 0, 0, 0, 0});
  // A client stuck inside a huge record, still connected while the others
  // are served (and while the server stops at the end).
  VxTcpSocket stuck;
  ASSERT_EQ(stuck.connect(VxSocketAddress("127.0.0.1", sim.Port()), 5000), 0u);
  const unsigned char header[] = {0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1};
  unsigned int written = 0;
  stuck.write(header, sizeof(header), &written);
  CNDMPConfigGetHostInfoRequest host;
  EXPECT_EQ(steady.Ask(host), CNDMPError::NDMP_NO_ERR);
  CClient fresh(sim.Port());
  ASSERT_TRUE(fresh.Open());
  EXPECT_EQ(fresh.Ask(host), CNDMPError::NDMP_NO_ERR);
}

TEST(SimServer, StopsWhileClientsAreConnected) {
  CTempDir tapes;
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.tapeDir = tapes.Path();
  CNDMPSimServer server(config, QuietLog());
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  CClient idle(server.Port());
  ASSERT_TRUE(idle.Open());
  // A client that connected but never spoke.
  VxTcpSocket silent;
  ASSERT_EQ(silent.connect(VxSocketAddress("127.0.0.1", server.Port()), 5000), 0u);
  server.Stop();
  EXPECT_EQ(server.ActiveClients(), 0u);
  CNDMPConfigGetHostInfoRequest host;
  EXPECT_NE(idle.Ask(host), CNDMPError::NDMP_NO_ERR);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
