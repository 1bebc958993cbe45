// The simulated server through the library: negotiation, authentication,
// the tape agent, many clients at once, clients that send garbage, and the
// data agent and mover driven by raw requests (the TCP join the jobs do not
// use, pauses, aborts, dropped data connections, requests in the wrong
// state). Whole backups and restores through these agents are the job
// tests' subject.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/support/tape_script.h"
#include "tests/tools/tools_test_support.h"
#include "tools/cli/message_builder.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

using enums::CNDMPError;
using Mode = enums::CNDMPEnumTapeOpenMode;
using MoverMode = enums::CNDMPEnumMoverMode;
using Addr = enums::CNDMPEnumAddrType;
using DataHalt = enums::CNDMPEnumDataHaltReason;
using MoverHalt = enums::CNDMPEnumMoverHaltReason;
constexpr unsigned int kOk = CNDMPError::NDMP_NO_ERR;
constexpr unsigned int kRecord = 8192;
const std::string kAll = "18446744073709551615";  // a length without limit

TEST(SimServer, NegotiatesAndAuthenticatesAsConfigured) {
  const struct {
    bool md5, text, none;
    const char* user;
    const char* password;
    bool accepted;
  } cases[] = {
      {true, false, false, "ndmp", "secret", true},  {true, false, false, "ndmp", "wrong", false},
      {true, false, false, "other", "secret", false}, {false, true, false, "ndmp", "secret", true},
      {false, true, false, "ndmp", "wrong", false},  {false, false, true, "", "", true},
      {true, true, false, "", "", false},
  };
  for (const auto& c : cases) {
    CSimServerConfig config = CSimFixture::DefaultConfig();
    config.authMD5 = c.md5, config.authText = c.text, config.authNone = c.none;
    CSimFixture sim(config);
    CClient client(sim.Port());
    EXPECT_EQ(client.Open(c.user, c.password), c.accepted)
        << c.md5 << c.text << c.none << " " << c.user << "/" << c.password;
  }
  // Only version 3 on offer: 4 refused, 3 taken. Before authentication only
  // the server information is open.
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.versions = {3};
  CSimFixture sim(config);
  CClient four(sim.Port());
  EXPECT_FALSE(four.Open("ndmp", "secret", 4));
  CClient client(sim.Port());
  ASSERT_TRUE(client.Open(nullptr));
  EXPECT_EQ(client->GetProtocolVersion(), 3u);
  EXPECT_EQ(client.Ask("NDMP_CONFIG_GET_SERVER_INFO"), kOk);
  EXPECT_EQ(client.Ask("NDMP_CONFIG_GET_HOST_INFO"), CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  EXPECT_EQ(client.Ask("NDMP_SNAP_CREATE"), CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  ASSERT_EQ(client->Authenticate("ndmp", "secret"), kOk);
  EXPECT_EQ(client.Ask("NDMP_CONFIG_GET_HOST_INFO"), kOk);
  EXPECT_EQ(client.Ask("NDMP_SNAP_CREATE"), CNDMPError::NDMP_NOT_SUPPORTED_ERR);
}

TEST(SimServer, TapeAgentAnswersLikeADriveAndKeepsTapesAcrossARestart) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.tapeCapacity = 250;
  config.maxRecordSize = 1000;
  CSimFixture sim(config);
  CClient a(sim.Port()), b(sim.Port());
  ASSERT_TRUE(a.Open() && b.Open());
  constexpr unsigned int kAny = ndmpc::testing::CTapeStep::kAny;
  ndmpc::testing::RunTapeSteps(
      {a.get(), b.get()}, "",
      {
          {0, "write", "", 10, CNDMPError::NDMP_DEV_NOT_OPEN_ERR, 0},
          {0, "open", "../escape", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "open", "a/b", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "open", "", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "open", ".hidden", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "read-only", "missing", 0, CNDMPError::NDMP_NO_DEVICE_ERR, 0},
          {0, "open", "t", 0, kOk, 0},
          {0, "open", "t", 0, CNDMPError::NDMP_DEVICE_OPENED_ERR, 0},
          {1, "read-only", "t", 0, CNDMPError::NDMP_DEVICE_BUSY_ERR, 0},
          // Two records, a filemark, one more record.
          {0, "write", "", 100, kOk, 100},
          {0, "write", "", 30, kOk, 30},
          {0, "eof", "", 1, kOk, 0},
          {0, "write", "", 5, kOk, 5},
          {0, "rew", "", 1, kOk, 0},
          // A short read truncates the record; the next read starts at the next one.
          {0, "read", "", 40, kOk, 40},
          {0, "read", "", 200, kOk, 30},
          {0, "read", "", 200, CNDMPError::NDMP_EOF_ERR, 0},
          {0, "read", "", 200, kOk, 5},
          {0, "read", "", 200, CNDMPError::NDMP_EOM_ERR, kAny},
          {0, "bsf", "", 2, CNDMPError::NDMP_EOM_ERR, 1},
          {0, "fsr", "", 5, CNDMPError::NDMP_EOF_ERR, 3},
          {0, "state", "", 0, kOk, 2},
          {0, "used", "", 0, kOk, 135},
          {0, "close", "", 0, kOk, 0},
          {0, "close", "", 0, CNDMPError::NDMP_DEV_NOT_OPEN_ERR, 0},
          // Read-only opens refuse writes; a closed tape is free for others.
          {1, "read-only", "t", 0, kOk, 0},
          {1, "write", "", 10, CNDMPError::NDMP_PERMISSION_ERR, 0},
          {1, "eof", "", 1, CNDMPError::NDMP_PERMISSION_ERR, kAny},
          {1, "close", "", 0, kOk, 0},
          // Records above the limit are refused; the tape ends at its capacity.
          {1, "open", "t", 0, kOk, 0},
          {1, "write", "", 1001, CNDMPError::NDMP_ILLEGAL_ARGS_ERR, 0},
          {1, "rew", "", 1, kOk, 0},
          {1, "write", "", 100, kOk, 100},
          {1, "write", "", 150, kOk, 150},  // exactly full
          {1, "write", "", 1, CNDMPError::NDMP_EOM_ERR, 0},
      });
  // A new server on the same directory finds the tape as it was left.
  b->Disconnect();
  sim.Server().Stop();
  CNDMPSimServer again(sim.Server().Config(), QuietLog());
  std::string error;
  ASSERT_TRUE(again.Start(&error)) << error;
  CClient client(again.Port());
  ASSERT_TRUE(client.Open());
  ndmpc::testing::RunTapeSteps({client.get()}, "",
                               {{0, "read-only", "t", 0, kOk, 0}, {0, "read", "", 1000, kOk, 100}});
  client->Disconnect();
  again.Stop();
}

// One client's whole session on its own tape, records of a size of its own.
void TapeSession(unsigned int port, int i) {
  CClient client(port);
  ASSERT_TRUE(client.Open());
  for (const char* request :
       {"CONFIG_GET_HOST_INFO", "CONFIG_GET_FS_INFO", "CONFIG_GET_TAPE_INFO"}) {
    EXPECT_EQ(client.Ask(request), kOk) << request;
  }
  const auto size = static_cast<unsigned int>(20000 + i);
  std::vector<ndmpc::testing::CTapeStep> steps = {{0, "open", "tape" + std::to_string(i), 0, kOk, 0}};
  for (const char* op : {"write", "write", "write", "write", "rew", "read", "read", "read", "read"}) {
    const bool rew = std::string(op) == "rew";
    steps.push_back({0, op, "", rew ? 1 : size, kOk, rew ? 0 : size});
  }
  ndmpc::testing::RunTapeSteps({client.get()}, "", steps, static_cast<unsigned int>(i));
}

// Eight clients run whole tape sessions while others send garbage.
TEST(SimServer, ServesManyClientsThroughGarbageAndStopsWhileClientsAreConnected) {
  CSimFixture sim;
  CClient steady(sim.Port());
  ASSERT_TRUE(steady.Open());
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { TapeSession(sim.Port(), i); });
  std::mt19937 random(99);
  std::vector<unsigned char> noise(5000);
  for (unsigned char& b : noise) b = static_cast<unsigned char>(random());
  const std::vector<unsigned char> garbage[] = {
      noise,
      {0xFF, 0xFF, 0xFF, 0xF0, 1, 2, 3, 4},  // a fragment announcing 2 GiB, then a little
      // A whole record holding only a header with an unknown message code.
      {0x80, 0, 0, 24, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x7E, 0x57, 0xC0, 0xDE, 0, 0, 0, 0, 0,
       0, 0, 0}};
  unsigned int written = 0;
  for (const auto& bytes : garbage) {
    VxTcpSocket socket;
    EXPECT_EQ(socket.connect(VxSocketAddress("127.0.0.1", sim.Port()), 5000), 0u);
    socket.write(bytes.data(), static_cast<unsigned int>(bytes.size()), &written);
    socket.close();
  }
  for (std::thread& t : threads) t.join();
  // Still connected when the server stops: a client stuck inside a huge
  // record and one that never spoke.
  VxTcpSocket stuck, silent;
  ASSERT_EQ(stuck.connect(VxSocketAddress("127.0.0.1", sim.Port()), 5000), 0u);
  ASSERT_EQ(silent.connect(VxSocketAddress("127.0.0.1", sim.Port()), 5000), 0u);
  const unsigned char header[] = {0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1};
  stuck.write(header, sizeof(header), &written);
  EXPECT_EQ(steady.Ask("NDMP_CONFIG_GET_HOST_INFO"), kOk);
  CClient fresh(sim.Port());
  ASSERT_TRUE(fresh.Open());
  EXPECT_EQ(fresh.Ask("NDMP_CONFIG_GET_HOST_INFO"), kOk);
  sim.Server().Stop();
  EXPECT_EQ(sim.Server().ActiveClients(), 0u);
  EXPECT_NE(steady.Ask("NDMP_CONFIG_GET_HOST_INFO"), kOk);
}

// ---------------------------------------------------------------------------
// Data agent and mover

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
    if (auto* pause = dynamic_cast<CNDMPNotifyMoverPausedPost*>(body)) pause_ = pause->Reason;
    if (auto* read = dynamic_cast<CNDMPNotifyDataReadPost*>(body)) {
      reads.emplace_back(read->Offset.getUint64(), read->Length.getUint64());
    }
    if (auto* nodes = dynamic_cast<CNDMPFhAddNodePost*>(body)) nodeCount += nodes->Nodes.size();
    changed_.notify_all();
    return 0;
  }
  // Runs `check` under the lock until it holds; false after 30 s.
  bool Wait(const std::function<bool()>& check) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), check);
  }
  // The first pause's reason, 0 when none came.
  unsigned int Paused() {
    Wait([this] { return pause_ != 0; });
    return pause_;
  }

  int logs = 0;
  unsigned int dataHalt = 0, moverHalt = 0;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> reads;
  std::size_t nodeCount = 0;

 private:
  unsigned int pause_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
};

// A client of a server with a data root, its posts recorded.
class CAgents : public CClient {
 public:
  explicit CAgents(unsigned int port) : CClient(port) {
    EXPECT_TRUE(Open());
    registration_ = (*this)->RegisterCallback(&posts);
  }
  ~CAgents() { (*this)->UnregisterCallback(registration_); }

  // Retries while a session that just ended still holds the tape.
  unsigned int OpenTape(const char* name) {
    return CNDMPTapeHelper::TapeOpen(get(), name, Mode::NDMP_TAPE_RDWR_MODE, true).getInt32();
  }
  // Record size, window, and the mover and the data agent joined: the mover
  // listens locally and the data agent connects, or (`overTcp`) the data agent
  // listens on TCP and the mover connects.
  void Join(const std::string& mode, bool overTcp = false) {
    ASSERT_EQ(Ask("NDMP_MOVER_SET_RECORD_SIZE", {"RecordLength=" + std::to_string(kRecord)}) |
                  Ask("NDMP_MOVER_SET_WINDOW", {"Length=" + kAll}),
              kOk);
    if (!overTcp) {
      ASSERT_EQ(Ask("NDMP_MOVER_LISTEN", {"Mode=" + mode, "AddressType=NDMP_ADDR_LOCAL"}), kOk);
      ASSERT_EQ(Ask("NDMP_DATA_CONNECT", {"Address.AddressType=NDMP_ADDR_LOCAL"}), kOk);
      return;
    }
    CNDMPDataListenRequest listen;
    listen.AddressType = Addr::NDMP_ADDR_TCP;
    auto address = Get<CNDMPDataListenReply>(listen);
    ASSERT_TRUE(address && address->Error == kOk);
    CNDMPMoverConnectRequest connect;
    std::string error;
    ASSERT_TRUE(ApplyAssignment(connect, "Mode=" + mode, &error)) << error;
    connect.Address = address->DataConnAddress;
    ASSERT_EQ(Ask(connect), kOk);
  }
  unsigned int Backup(const std::string& type) {
    return Ask("NDMP_DATA_START_BACKUP", {"BUTypeName=" + type, "Environments=FILESYSTEM=/src",
                                          "Environments[1].Name=HIST", "Environments[1].Value=y"});
  }
  // Restores the whole image to `destination`, answering the data agent's
  // one read request for all of it; the data agent's halt reason.
  unsigned int RestoreAll(const std::string& destination) {
    EXPECT_EQ(Ask("NDMP_DATA_START_RECOVER",
                  {"BackupTypeName=dump", "NameList[].OriginalPath=/",
                   "NameList[0].DestinationDir=" + destination, "NameList[0].FileHistoryInfo=" + kAll}),
              kOk);
    std::pair<std::uint64_t, std::uint64_t> first;
    EXPECT_TRUE(posts.Wait([&] {
      if (!posts.reads.empty()) first = posts.reads[0];
      return !posts.reads.empty();
    }));
    EXPECT_EQ(first, std::make_pair(std::uint64_t{0}, ~std::uint64_t{0}));
    EXPECT_EQ(Ask("NDMP_MOVER_READ", {"Offset=0", "Length=" + kAll}), kOk);
    return posts.Wait([this] { return posts.dataHalt != 0; }) ? posts.dataHalt : 0;
  }
  // Aborts whatever still runs and brings both agents back to idle.
  void Idle() {
    Ask("NDMP_DATA_ABORT");
    Ask("NDMP_MOVER_ABORT");
    EXPECT_EQ(Ask("NDMP_DATA_STOP"), kOk);
    EXPECT_EQ(Ask("NDMP_MOVER_STOP"), kOk);
    posts.Wait([this] {  // under the posts' lock
      posts.dataHalt = posts.moverHalt = 0;
      return true;
    });
  }
  bool Halted() {
    return posts.Wait([this] { return posts.dataHalt != 0 && posts.moverHalt != 0; });
  }

  CPosts posts;

 private:
  CNDMPCallbackRegistration* registration_ = nullptr;
};

// A server whose data root holds the test tree under /src, with a 1 MB file
// so that an image outgrows what a dropped connection's buffers take.
struct CDataSim {
  explicit CDataSim(std::uint64_t capacity = 1ull << 30) {
    BuildTestTree(root.File("src"), 100, false);
    WriteRandomFile(root.File("src/z/1 MB"), 1 << 20, 1);
    sim = std::make_unique<CSimFixture>(CSimFixture::DataConfig(root.Path(), capacity));
  }
  CTempDir root;
  std::unique_ptr<CSimFixture> sim;
};

TEST(SimAgents, JoinedOverTcpTheyBackUpAndRestore) {
  CDataSim data;
  CAgents agents(data.sim->Port());
  ASSERT_EQ(agents.OpenTape("t"), kOk);
  agents.Join("NDMP_MOVER_MODE_READ", true);
  ASSERT_EQ(agents.Backup("dump"), kOk);
  ASSERT_TRUE(agents.Halted());
  EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
  EXPECT_EQ(agents.posts.moverHalt, MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED);
  EXPECT_GE(agents.posts.logs, 2);
  const auto tree = SnapshotTree(data.root.File("src"));
  EXPECT_EQ(agents.posts.nodeCount, tree.size());  // every node, the root's included
  CNDMPDataGetEnvRequest getEnv;
  auto env = agents.Get<CNDMPDataGetEnvReply>(getEnv);
  ASSERT_TRUE(env && env->Environments.size() == 3);  // FILESYSTEM, HIST, TYPE
  EXPECT_EQ(env->Environments[2].Value.GetString(), "dump");
  CNDMPMoverGetStateRequest getMover;
  auto mover = agents.Get<CNDMPMoverGetStateReply>(getMover);
  ASSERT_TRUE(mover);
  EXPECT_EQ(mover->BytesMoved.getUint64(), std::uint64_t{mover->RecordNum} * kRecord);
  EXPECT_GT(mover->BytesMoved.getUint64(), 100000u);
  agents.Idle();

  ASSERT_EQ(agents.Ask("NDMP_TAPE_MTIO", {"TapeOp=NDMP_MTIO_REW", "Count=1"}), kOk);
  agents.Join("NDMP_MOVER_MODE_WRITE", true);
  EXPECT_EQ(agents.RestoreAll("/copy"), DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
  EXPECT_EQ(SnapshotTree(data.root.File("copy")), tree);
  agents.Idle();
}

TEST(SimAgents, EndOfMediumPauseEndsOnAnAbortOrADisconnect) {
  CDataSim data(64 * 1024);  // far less than the image, so the data agent must wait
  for (bool disconnect : {false, true}) {
    {
      CAgents agents(data.sim->Port());
      ASSERT_EQ(agents.OpenTape("t1"), kOk);
      agents.Join("NDMP_MOVER_MODE_READ");
      ASSERT_EQ(agents.Backup("tar"), kOk);
      // Paused at the end of the small tape, the data agent blocked behind it.
      EXPECT_EQ(agents.posts.Paused(), enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOM);
      if (!disconnect) {
        EXPECT_EQ(agents.Ask("NDMP_DATA_ABORT") | agents.Ask("NDMP_MOVER_ABORT"), kOk);
        ASSERT_TRUE(agents.Halted());
        EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_ABORTED);
        EXPECT_EQ(agents.posts.moverHalt, MoverHalt::NDMP_MOVER_HALT_ABORTED);
        agents.Idle();
      }
    }
    CAgents next(data.sim->Port());  // threads joined, tapes released
    EXPECT_EQ(next.OpenTape("t1"), kOk) << disconnect;
  }
}

TEST(SimAgents, DroppedDataConnectionsHaltTheAgents) {
  CDataSim data;
  CAgents agents(data.sim->Port());
  ASSERT_EQ(agents.OpenTape("t"), kOk);
  // A peer that sends 10000 bytes to the mover and goes: two padded records.
  ASSERT_EQ(agents.Ask("NDMP_MOVER_SET_RECORD_SIZE", {"RecordLength=8192"}), kOk);
  CNDMPMoverListenRequest listen;
  listen.Mode = MoverMode::NDMP_MOVER_MODE_READ;
  listen.AddressType = Addr::NDMP_ADDR_TCP;
  auto address = agents.Get<CNDMPMoverListenReply>(listen);
  ASSERT_TRUE(address && address->Address.TcpAddressList.size() == 1);
  VxTcpSocket peer;
  ASSERT_EQ(peer.connect(VxSocketAddress("127.0.0.1",
                                         address->Address.TcpAddressList[0].Port.getInt32())),
            0u);
  const std::string bytes(10000, 'x');
  unsigned int written = 0;
  peer.write(bytes.data(), 10000, &written);
  EXPECT_EQ(written, 10000u);
  peer.close();
  ASSERT_TRUE(agents.posts.Wait([&] { return agents.posts.moverHalt != 0; }));
  EXPECT_EQ(agents.posts.moverHalt, MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED);
  CNDMPMoverGetStateRequest getMover;
  auto mover = agents.Get<CNDMPMoverGetStateReply>(getMover);
  ASSERT_TRUE(mover);
  EXPECT_EQ(mover->BytesMoved.getUint64(), 2u * kRecord);

  // A mover that accepts the data agent's connection and drops it.
  VxTcpListener listener;
  ASSERT_EQ(listener.listen("127.0.0.1", 0), 0u);
  ASSERT_EQ(agents.Ask("NDMP_DATA_CONNECT",
                       {"Address.AddressType=NDMP_ADDR_TCP",
                        "Address.TcpAddress[].IPAddress=127.0.0.1",
                        "Address.TcpAddress[0].Port=" + std::to_string(listener.port())}),
            kOk);
  VxTcpSocket accepted;
  ASSERT_EQ(listener.accept(accepted, 10000), 0u);
  accepted.close();
  ASSERT_EQ(agents.Backup("tar"), kOk);
  ASSERT_TRUE(agents.posts.Wait([&] { return agents.posts.dataHalt != 0; }));
  EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_CONNECT_ERROR);
}

TEST(SimAgents, RequestsInTheWrongStateAreRefused) {
  CDataSim data;
  WriteRandomFile(data.root.File("plain-file"), 10, 1);
  CAgents agents(data.sim->Port());
  CNDMPConfigGetFsInfoRequest fsInfo;
  auto fs = agents.Get<CNDMPConfigGetFsInfoReply>(fsInfo);  // the data root's directories
  ASSERT_TRUE(fs && fs->FsInfoArray.size() == 1);
  EXPECT_EQ(fs->FsInfoArray[0].LogDeviceName.GetString(), "/src");
  EXPECT_GT(fs->FsInfoArray[0].TotalSize.getUint64(), 0u);
  CNDMPConfigGetButypeAttrRequest butypes;
  auto types = agents.Get<CNDMPConfigGetButypeAttrReply>(butypes);
  ASSERT_TRUE(types && types->BackupTypeInfo.size() == 2);
  EXPECT_EQ(types->BackupTypeInfo[1].BackupTypeName.GetString(), "dump");
  constexpr unsigned int kState = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  constexpr unsigned int kArgs = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  const std::vector<std::string> listen = {"Mode=NDMP_MOVER_MODE_READ",
                                           "AddressType=NDMP_ADDR_LOCAL"};
  const std::vector<std::string> local = {"Address.AddressType=NDMP_ADDR_LOCAL"};
  const auto backup = [](const std::string& type, const std::string& fileSystem) {
    return std::vector<std::string>{"BUTypeName=" + type, "Environments=FILESYSTEM=" + fileSystem};
  };
  const struct {
    const char* message;
    std::vector<std::string> fields;
    unsigned int error;
  } steps[] = {
      {"NDMP_DATA_START_BACKUP", backup("tar", "/src"), kState},  // no connection
      {"NDMP_DATA_STOP", {}, kState},
      {"NDMP_DATA_ABORT", {}, kState},
      {"NDMP_DATA_GET_ENV", {}, kState},
      {"NDMP_MOVER_CONTINUE", {}, kState},
      {"NDMP_MOVER_STOP", {}, kState},
      {"NDMP_MOVER_READ", {}, kState},
      {"NDMP_DATA_CONNECT", local, kState},  // the mover does not listen
      {"NDMP_MOVER_LISTEN", listen, CNDMPError::NDMP_DEV_NOT_OPEN_ERR},
      {"NDMP_MOVER_SET_RECORD_SIZE", {"RecordLength=0"}, kArgs},
      {"NDMP_MOVER_SET_RECORD_SIZE", {"RecordLength=2097152"}, kArgs},
      {"NDMP_TAPE_OPEN", {"Device=t", "Mode=rdwr"}, kOk},
      {"NDMP_MOVER_LISTEN", listen, kOk},
      {"NDMP_MOVER_LISTEN", listen, kState},
      {"NDMP_MOVER_SET_RECORD_SIZE", {"RecordLength=8192"}, kState},
      {"NDMP_TAPE_CLOSE", {}, kState},
      {"NDMP_MOVER_READ", {}, kState},  // mode READ
      {"NDMP_DATA_CONNECT", local, kOk},
      {"NDMP_DATA_CONNECT", local, kState},
      {"NDMP_DATA_START_BACKUP", backup("cpio", "/src"), kArgs},
      {"NDMP_DATA_START_BACKUP", backup("tar", "/../etc"), kArgs},
      {"NDMP_DATA_START_BACKUP", backup("tar", "/missing"), kArgs},
      {"NDMP_DATA_STOP", {}, kState},
      {"NDMP_DATA_START_BACKUP", backup("tar", "/src"), kOk},
      {"NDMP_DATA_START_BACKUP", backup("tar", "/src"), kState},  // a second start
  };
  for (std::size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
    EXPECT_EQ(agents.Ask(steps[i].message, steps[i].fields), steps[i].error)
        << "step " << i << " " << steps[i].message;
  }
  ASSERT_TRUE(agents.Halted());
  EXPECT_EQ(agents.posts.dataHalt, DataHalt::NDMP_DATA_HALT_SUCCESSFUL);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
