// The simulated server through the library: negotiation, authentication,
// the tape agent, many clients at once, clients that send garbage, and the
// data agent and mover driven by raw requests (backup, restore, pauses,
// aborts, dropped data connections, requests in the wrong state).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
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

// ---------------------------------------------------------------------------
// Data agent and mover

using MoverMode = enums::CNDMPEnumMoverMode;
using Addr = enums::CNDMPEnumAddrType;
using DataHalt = enums::CNDMPEnumDataHaltReason;
using MoverHalt = enums::CNDMPEnumMoverHaltReason;
constexpr std::uint64_t kAll = ~0ull;
constexpr unsigned int kRecord = 8192;

// The posts a session receives, kept for the test thread.
class CPosts : public CINDMPCallback {
 public:
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    if (packet.GetHeader().MessageType != enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST) return 0;
    std::lock_guard<std::mutex> lock(mutex_);
    CNDMPMessage* body = packet.GetMessage();
    if (dynamic_cast<CNDMPLogMessagePost*>(body) != nullptr) ++logs;
    if (auto* halt = dynamic_cast<CNDMPNotifyDataHaltedPost*>(body)) dataHalt = halt->Reason;
    if (auto* halt = dynamic_cast<CNDMPNotifyMoverHaltedPost*>(body)) moverHalt = halt->Reason;
    if (auto* pause = dynamic_cast<CNDMPNotifyMoverPausedPost*>(body))
      pauses.push_back(pause->Reason);
    if (auto* read = dynamic_cast<CNDMPNotifyDataReadPost*>(body)) {
      reads.emplace_back(read->Offset.getUint64(), read->Length.getUint64());
    }
    if (auto* files = dynamic_cast<CNDMPFhAddFilePost*>(body)) {
      for (auto& file : files->Files) {
        fhInfo[file.FileNameList[0].UnixFileName.GetString()] = file.FileHistInfo.getUint64();
      }
    }
    if (auto* nodes = dynamic_cast<CNDMPFhAddNodePost*>(body)) nodeCount += nodes->Nodes.size();
    if (auto* dirs = dynamic_cast<CNDMPFhAddDirPost*>(body)) {
      for (auto& dir : dirs->Directories)
        dirNames.push_back(dir.DirNameList[0].UnixFileName.GetString());
    }
    changed_.notify_all();
    return 0;
  }
  // Runs `check` under the lock until it holds; false after 30 s.
  bool Wait(const std::function<bool()>& check) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), check);
  }
  template <class F>
  auto With(F f) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  void Reset() {
    With([this] {
      dataHalt = moverHalt = 0;
      pauses.clear();
      reads.clear();
      return 0;
    });
  }

  int logs = 0;
  unsigned int dataHalt = 0, moverHalt = 0;
  std::vector<unsigned int> pauses;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> reads;
  std::map<std::string, std::uint64_t> fhInfo;
  std::size_t nodeCount = 0;
  std::vector<std::string> dirNames;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
};

// A client of a server with a data root, its posts recorded.
class CAgents {
 public:
  explicit CAgents(unsigned int port, unsigned int version = 4) : client_(port) {
    EXPECT_TRUE(client_.Open("ndmp", "secret", version));
    registration_ = client_->RegisterCallback(&posts);
  }
  ~CAgents() { client_->UnregisterCallback(registration_); }
  CClient& operator*() { return client_; }
  CClient* operator->() { return &client_; }

  template <class R>
  std::shared_ptr<R> Get(CNDMPMessage& request) {
    CNDMPMessage* reply = nullptr;
    if (client_->SendMessage(request, &reply, 10) != CNDMPError::NDMP_NO_ERR) return nullptr;
    CNDMPConnection* connection = client_.get();
    return std::shared_ptr<R>(dynamic_cast<R*>(reply),
                              [connection, reply](R*) { connection->FreeMessage(reply); });
  }
  // Retries while a session that just ended still holds the tape.
  unsigned int OpenTape(const char* name) {
    return CNDMPTapeHelper::TapeOpen(client_.get(), name, Mode::NDMP_TAPE_RDWR_MODE, true)
        .getInt32();
  }
  unsigned int Rewind() {
    unsigned int resid = 0;
    return CNDMPTapeHelper::TapeMTIO(client_.get(), Op::NDMP_MTIO_REW, 1, &resid).getInt32();
  }
  // Record size, window, a local mover listen in `mode`, and the data agent connected to it.
  void Join(unsigned int mode) {
    CNDMPMoverSetRecordSizeRequest size;
    size.RecordLength = kRecord;
    CNDMPMoverSetWindowRequest window;
    window.Length = CNDMPUQuad(kAll);
    CNDMPMoverListenRequest listen;
    listen.Mode = CXDREnumBase<MoverMode>(mode);
    listen.AddressType = Addr::NDMP_ADDR_LOCAL;
    CNDMPDataConnectRequest connect;
    connect.Address.AddressType = Addr::NDMP_ADDR_LOCAL;
    for (CNDMPMessage* request : std::vector<CNDMPMessage*>{&size, &window, &listen, &connect}) {
      ASSERT_EQ(client_.Ask(*request), CNDMPError::NDMP_NO_ERR)
          << CNDMPMessageAccess::Code(*request).ToString();
    }
  }
  unsigned int Backup(const std::string& type, const std::string& fileSystem) {
    CNDMPDataStartBackupRequest start;
    start.BUTypeName = type;
    start.Environments.AddItem(CNDMPPVal("FILESYSTEM", fileSystem));
    start.Environments.AddItem(CNDMPPVal("HIST", "y"));
    return client_.Ask(start);
  }
  // Restores `original` (fh_info `fh`) to `destination`, answering each read
  // request with NDMP_MOVER_READ; the data agent's halt reason.
  unsigned int Restore(const std::string& original, const std::string& destination,
                       std::uint64_t fh) {
    CNDMPDataStartRecoverRequest start;
    CNDMPName& name = start.NameList.AppendNew();
    name.OriginalPath = original;
    name.DestinationDir = destination;
    name.FileHistoryInfo = CNDMPUQuad(fh);
    start.BackupTypeName = "tar";
    if (client_.Ask(start) != CNDMPError::NDMP_NO_ERR) return 0;
    for (std::size_t answered = 0; answered < 1000; ++answered) {
      std::pair<std::uint64_t, std::uint64_t> next{0, 0};
      if (!posts.Wait([&] {
            if (posts.reads.size() > answered) next = posts.reads[answered];
            return posts.dataHalt != 0 || next.second != 0;
          })) {
        return 0;
      }
      if (next.second == 0) return posts.With([this] { return posts.dataHalt; });
      CNDMPMoverReadRequest read;
      read.Offset = CNDMPUQuad(next.first);
      read.Length = CNDMPUQuad(next.second);
      EXPECT_EQ(client_.Ask(read), CNDMPError::NDMP_NO_ERR);
    }
    return 0;
  }
  // Aborts whatever still runs and brings both agents back to idle.
  void Idle() {
    CNDMPDataAbortRequest dataAbort;
    CNDMPMoverAbortRequest moverAbort;
    CNDMPDataStopRequest dataStop;
    CNDMPMoverStopRequest moverStop;
    client_.Ask(dataAbort);
    client_.Ask(moverAbort);
    EXPECT_EQ(client_.Ask(dataStop), CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(client_.Ask(moverStop), CNDMPError::NDMP_NO_ERR);
    posts.Reset();
  }
  bool Halted() {
    return posts.Wait([this] { return posts.dataHalt != 0 && posts.moverHalt != 0; });
  }

  CPosts posts;

 private:
  CClient client_;
  CNDMPCallbackRegistration* registration_ = nullptr;
};

// A small tree under `root`/src; its files and their contents.
std::map<std::string, std::string> MakeTree(const std::string& root) {
  for (const char* dir : {"/src", "/src/dir", "/src/dir/sub with space"}) {
    ::mkdir((root + dir).c_str(), 0755);
  }
  std::map<std::string, std::string> files;
  const std::pair<const char*, std::size_t> sizes[] = {
      {"/a.txt", 1000}, {"/empty", 0}, {"/dir/b.bin", 300000}, {"/dir/sub with space/c", 5000}};
  unsigned int seed = 1;
  for (const auto& [name, size] : sizes)
    files[name] = WriteRandomFile(root + "/src" + name, size, seed++);
  return files;
}

CSimServerConfig DataConfig(const std::string& root, std::uint64_t capacity = 1ull << 30) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.dataRoot = root;
  config.tapeCapacity = capacity;
  return config;
}

TEST(SimAgents, TwoWayBackupAndRestoreThroughOneSession) {
  struct CCase {
    unsigned int version;
    const char* type;
  };
  for (const CCase& c : {CCase{3, "tar"}, CCase{4, "dump"}}) {
    SCOPED_TRACE(c.type);
    CTempDir root;
    const auto files = MakeTree(root.Path());
    CSimFixture sim(DataConfig(root.Path()));
    CAgents agents(sim.Port(), c.version);
    ASSERT_EQ(agents.OpenTape("t"), CNDMPError::NDMP_NO_ERR);
    agents.Join(MoverMode::NDMP_MOVER_MODE_READ);
    ASSERT_EQ(agents.Backup(c.type, "/src"), CNDMPError::NDMP_NO_ERR);
    ASSERT_TRUE(agents.Halted());
    EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
    EXPECT_EQ(agents.posts.moverHalt, MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED);
    EXPECT_GE(agents.posts.logs, 2);
    CNDMPDataGetEnvRequest getEnv;
    auto env = agents.Get<CNDMPDataGetEnvReply>(getEnv);
    ASSERT_TRUE(env && env->Environments.size() == 3);  // FILESYSTEM, HIST, TYPE
    EXPECT_EQ(env->Environments[2].Value.GetString(), c.type);
    CNDMPMoverGetStateRequest getMover;
    auto mover = agents.Get<CNDMPMoverGetStateReply>(getMover);
    ASSERT_TRUE(mover);
    const std::uint64_t moved = mover->BytesMoved.getUint64();
    EXPECT_EQ(moved, std::uint64_t{mover->RecordNum} * kRecord);
    EXPECT_GT(moved, 306000u);
    if (c.version == 3) {
      // Path history: every file and directory, each at its header's offset.
      EXPECT_EQ(agents.posts.fhInfo.size(), 7u);
      EXPECT_EQ(agents.posts.fhInfo.at("/"), 0u);
    } else {
      EXPECT_EQ(agents.posts.nodeCount, 7u);  // every node, the root's included
      EXPECT_EQ(agents.posts.dirNames.size(), 7u);
    }
    agents.Idle();

    // The tape holds a tar image in records of the set size.
    ASSERT_EQ(agents.Rewind(), CNDMPError::NDMP_NO_ERR);
    std::vector<char> record(2 * kRecord);
    unsigned int read = 0;
    ASSERT_EQ(CNDMPTapeHelper::TapeRead(agents->get(), record.data(), 2 * kRecord, &read),
              CNDMPError::NDMP_NO_ERR);
    EXPECT_EQ(read, kRecord);
    EXPECT_EQ(std::string(record.data() + 257, 5), "ustar");

    // The whole image to /copy, then one file by its history offset.
    ASSERT_EQ(agents.Rewind(), CNDMPError::NDMP_NO_ERR);
    agents.Join(MoverMode::NDMP_MOVER_MODE_WRITE);
    EXPECT_EQ(agents.Restore("/", "/copy", kAll), DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
    for (const auto& [name, data] : files)
      EXPECT_EQ(ReadFile(root.Path() + "/copy" + name), data) << name;
    agents.Idle();
    if (c.version == 3) {
      ASSERT_EQ(agents.Rewind(), CNDMPError::NDMP_NO_ERR);
      agents.Join(MoverMode::NDMP_MOVER_MODE_WRITE);
      const std::uint64_t fh =
          agents.posts.With([&] { return agents.posts.fhInfo.at("/dir/sub with space/c"); });
      EXPECT_EQ(agents.Restore("/dir/sub with space/c", "/one", fh),
                DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
      EXPECT_EQ(ReadFile(root.Path() + "/one"), files.at("/dir/sub with space/c"));
      EXPECT_GT(agents.posts.With([&] { return agents.posts.reads.at(0).first; }), 0u);
      agents.Idle();
    }
  }
}

TEST(SimAgents, EndOfMediumPausesForATapeChangeAnAbortOrADisconnect) {
  CTempDir root;
  MakeTree(root.Path());
  CSimFixture sim(DataConfig(root.Path(), 200 * 1024));
  for (const char* how : {"continue", "abort", "disconnect"}) {
    SCOPED_TRACE(how);
    {
      CAgents agents(sim.Port());
      ASSERT_EQ(agents.OpenTape("t1"), CNDMPError::NDMP_NO_ERR);
      agents.Join(MoverMode::NDMP_MOVER_MODE_READ);
      ASSERT_EQ(agents.Backup("tar", "/src"), CNDMPError::NDMP_NO_ERR);
      // Paused at the end of the small tape, the data agent blocked behind it.
      ASSERT_TRUE(agents.posts.Wait([&] { return !agents.posts.pauses.empty(); }));
      EXPECT_EQ(agents.posts.pauses[0], enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOM);
      if (std::string(how) == "disconnect") continue;
      const bool resume = std::string(how) == "continue";
      if (resume) {  // the tape is the client's while the mover pauses
        ASSERT_EQ(CNDMPTapeHelper::TapeClose(agents->get()), CNDMPError::NDMP_NO_ERR);
        ASSERT_EQ(agents.OpenTape("t2"), CNDMPError::NDMP_NO_ERR);
      }
      CNDMPMoverContinueRequest proceed;
      CNDMPDataAbortRequest dataAbort;
      CNDMPMoverAbortRequest moverAbort;
      for (CNDMPMessage* request : resume ? std::vector<CNDMPMessage*>{&proceed}
                                          : std::vector<CNDMPMessage*>{&dataAbort, &moverAbort}) {
        EXPECT_EQ(agents->Ask(*request), CNDMPError::NDMP_NO_ERR);
      }
      ASSERT_TRUE(agents.Halted());
      EXPECT_EQ(agents.posts.dataHalt,
                resume ? DataHalt::NDMP_DATA_HALT_SUCCESSFUL : DataHalt::NDMP_DATA_HALT_ABORTED);
      EXPECT_EQ(agents.posts.moverHalt, resume ? MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED
                                               : MoverHalt::NDMP_MOVER_HALT_ABORTED);
      if (resume) {  // no record lost at the change: the two tapes hold all that moved
        CNDMPMoverGetStateRequest getMover;
        auto mover = agents.Get<CNDMPMoverGetStateReply>(getMover);
        CNDMPTapeGetStateRequest getTape;
        auto tape = agents.Get<CNDMPTapeGetStateReply>(getTape);
        ASSERT_TRUE(mover && tape);
        EXPECT_EQ(200u * 1024 / kRecord * kRecord + tape->BlockNo.getInt32() * kRecord,
                  mover->BytesMoved.getUint64());
      }
      agents.Idle();
    }
    CAgents next(sim.Port());  // threads joined, tapes released
    EXPECT_EQ(next.OpenTape("t1"), CNDMPError::NDMP_NO_ERR);
  }
}

TEST(SimAgents, DroppedDataConnectionsHaltTheAgents) {
  CTempDir root;
  MakeTree(root.Path());
  CSimFixture sim(DataConfig(root.Path()));
  CAgents agents(sim.Port());
  ASSERT_EQ(agents.OpenTape("t"), CNDMPError::NDMP_NO_ERR);
  // A peer that sends 10000 bytes to the mover and goes: two padded records.
  CNDMPMoverSetRecordSizeRequest size;
  size.RecordLength = kRecord;
  ASSERT_EQ(agents->Ask(size), CNDMPError::NDMP_NO_ERR);
  CNDMPMoverListenRequest listen;
  listen.Mode = MoverMode::NDMP_MOVER_MODE_READ;
  listen.AddressType = Addr::NDMP_ADDR_TCP;
  auto address = agents.Get<CNDMPMoverListenReply>(listen);
  ASSERT_TRUE(address && address->Address.TcpAddressList.size() == 1);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = htonl(address->Address.TcpAddressList[0].IPAddress.getInt32());
  peer.sin_port =
      htons(static_cast<std::uint16_t>(address->Address.TcpAddressList[0].Port.getInt32()));
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)), 0);
  std::string bytes(10000, 'x');
  EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), 10000);
  ::close(fd);
  ASSERT_TRUE(agents.posts.Wait([&] { return agents.posts.moverHalt != 0; }));
  EXPECT_EQ(agents.posts.moverHalt, MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED);
  CNDMPMoverGetStateRequest getMover;
  auto mover = agents.Get<CNDMPMoverGetStateReply>(getMover);
  ASSERT_TRUE(mover);
  EXPECT_EQ(mover->BytesMoved.getUint64(), 2u * kRecord);

  // A mover that accepts the data agent's connection and drops it.
  int server = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(local);
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&local), sizeof(local)), 0);
  ASSERT_EQ(::listen(server, 1), 0);
  ASSERT_EQ(::getsockname(server, reinterpret_cast<sockaddr*>(&local), &length), 0);
  CNDMPDataConnectRequest connect;
  connect.Address.AddressType = Addr::NDMP_ADDR_TCP;
  CNDMPTcpAddr& to = connect.Address.TcpAddressList.AppendNew();
  to.IPAddress = ntohl(local.sin_addr.s_addr);
  to.Port = ntohs(local.sin_port);
  ASSERT_EQ(agents->Ask(connect), CNDMPError::NDMP_NO_ERR);
  ::close(::accept(server, nullptr, nullptr));
  ::close(server);
  ASSERT_EQ(agents.Backup("tar", "/src"), CNDMPError::NDMP_NO_ERR);
  ASSERT_TRUE(agents.posts.Wait([&] { return agents.posts.dataHalt != 0; }));
  EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_CONNECT_ERROR);
}

TEST(SimAgents, RequestsInTheWrongStateAreRefused) {
  CTempDir root;
  MakeTree(root.Path());
  WriteRandomFile(root.File("plain-file"), 10, 1);
  CSimFixture sim(DataConfig(root.Path()));
  CAgents agents(sim.Port());
  CNDMPConfigGetFsInfoRequest fsInfo;
  auto fs = agents.Get<CNDMPConfigGetFsInfoReply>(fsInfo);  // the data root's directories
  ASSERT_TRUE(fs && fs->FsInfoArray.size() == 1);
  EXPECT_EQ(fs->FsInfoArray[0].LogDeviceName.GetString(), "/src");
  EXPECT_GT(fs->FsInfoArray[0].TotalSize.getUint64(), 0u);
  CNDMPConfigGetButypeAttrRequest butypes;
  auto types = agents.Get<CNDMPConfigGetButypeAttrReply>(butypes);
  ASSERT_TRUE(types && types->BackupTypeInfo.size() == 2);
  EXPECT_EQ(types->BackupTypeInfo[1].BackupTypeName.GetString(), "dump");
  auto backup = [](const char* type, const char* fileSystem) {
    auto start = std::make_shared<CNDMPDataStartBackupRequest>();
    start->BUTypeName = type;
    start->Environments.AddItem(CNDMPPVal("FILESYSTEM", fileSystem));
    return start;
  };
  auto recordSize = [](unsigned int size) {
    auto request = std::make_shared<CNDMPMoverSetRecordSizeRequest>();
    request->RecordLength = size;
    return request;
  };
  auto listen = std::make_shared<CNDMPMoverListenRequest>();
  listen->Mode = MoverMode::NDMP_MOVER_MODE_READ;
  listen->AddressType = Addr::NDMP_ADDR_LOCAL;
  auto connect = std::make_shared<CNDMPDataConnectRequest>();
  connect->Address.AddressType = Addr::NDMP_ADDR_LOCAL;
  auto openTape = std::make_shared<CNDMPTapeOpenRequest>();
  openTape->Device = "t";
  openTape->Mode = Mode::NDMP_TAPE_RDWR_MODE;
  const struct {
    std::shared_ptr<CNDMPMessage> request;
    unsigned int error;
  } steps[] = {
      {backup("tar", "/src"), CNDMPError::NDMP_ILLEGAL_STATE_ERR},  // no connection
      {std::make_shared<CNDMPDataStopRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPDataAbortRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPDataGetEnvRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPMoverContinueRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPMoverStopRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPMoverReadRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {connect, CNDMPError::NDMP_ILLEGAL_STATE_ERR},  // the mover does not listen
      {listen, CNDMPError::NDMP_DEV_NOT_OPEN_ERR},
      {recordSize(0), CNDMPError::NDMP_ILLEGAL_ARGS_ERR},
      {recordSize(2 * 1024 * 1024), CNDMPError::NDMP_ILLEGAL_ARGS_ERR},
      {openTape, CNDMPError::NDMP_NO_ERR},
      {listen, CNDMPError::NDMP_NO_ERR},
      {listen, CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {recordSize(kRecord), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPTapeCloseRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {std::make_shared<CNDMPMoverReadRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},  // mode READ
      {connect, CNDMPError::NDMP_NO_ERR},
      {connect, CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {backup("cpio", "/src"), CNDMPError::NDMP_ILLEGAL_ARGS_ERR},
      {backup("tar", "/../etc"), CNDMPError::NDMP_ILLEGAL_ARGS_ERR},
      {backup("tar", "/missing"), CNDMPError::NDMP_ILLEGAL_ARGS_ERR},
      {std::make_shared<CNDMPDataStopRequest>(), CNDMPError::NDMP_ILLEGAL_STATE_ERR},
      {backup("tar", "/src"), CNDMPError::NDMP_NO_ERR},
      {backup("tar", "/src"), CNDMPError::NDMP_ILLEGAL_STATE_ERR},  // a second start
  };
  for (std::size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
    EXPECT_EQ(agents->Ask(*steps[i].request), steps[i].error)
        << "step " << i << " " << CNDMPMessageAccess::Code(*steps[i].request).ToString();
  }
  ASSERT_TRUE(agents.Halted());
  EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
