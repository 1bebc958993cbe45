// A client connection against peers that misbehave: stalls, floods,
// pathological fragmenting, resets and silence. Every wait is bounded and
// the limits are generous; under ASan the suite also shows that nothing
// leaks when a peer breaks off.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::CCapturingLog;
using testing::CRawRecord;
using testing::CScriptPeer;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A log post (version 4 layout) carrying `entry`.
std::vector<unsigned char> LogPostBody(const std::string& entry) {
  return testing::Concat({testing::XdrU32(0), testing::XdrU32(1), testing::XdrString(entry),
                          testing::XdrU32(0), testing::XdrU32(0)});
}

// Counts NDMP_LOG_MESSAGE posts and keeps the last entry text.
class CLogPostCounter : public CINDMPCallback {
 public:
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    auto* post = dynamic_cast<CNDMPLogMessagePost*>(packet.GetMessage());
    std::lock_guard<std::mutex> lock(mutex_);
    if (post != nullptr) last_ = post->Entry.GetString();
    ++count_;
    changed_.notify_all();
    return 0;
  }
  bool WaitForCount(int count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  std::string last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  std::string last_;
};

// Runs `script` on the peer after answering the open request, and connects
// a client under version 4.
void ConnectClient(CScriptPeer& peer, CNDMPConnection& client, CScriptPeer::Script script) {
  peer.Run([script](CScriptPeer& p) {
    if (testing::AnswerOpen(p) == 0) return;
    script(p);
  });
  ASSERT_EQ(client.Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(4u)),
            CNDMPError::NDMP_NO_ERR);
}

void ExpectPromptDisconnect(CNDMPConnection& client) {
  auto start = Clock::now();
  EXPECT_EQ(client.Disconnect(), CNDMPError::NDMP_NO_ERR);
  EXPECT_LT(SecondsSince(start), 5.0);
}

TEST(HostilePeer, StallInsideRecordTimesOutAndDisconnectIsPrompt) {
  CCapturingLog log;
  CScriptPeer peer;
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, peer.port());
  std::atomic<bool> done{false};
  ConnectClient(peer, client, [&done](CScriptPeer& p) {
    CRawRecord request = p.ReadRecord();
    // A fragment that promises 100 bytes; only 10 ever come.
    p.Write(testing::Concat({testing::FragmentHeader(100, true), std::vector<unsigned char>(10, 1)}));
    while (!done.load()) p.ReadBytes(1, 100);
  });

  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  auto start = Clock::now();
  EXPECT_EQ(client.SendMessage(request, &reply, 2), CNDMPError::NDMP_TIMEOUT_ERR);
  double waited = SecondsSince(start);
  EXPECT_GE(waited, 1.0);
  EXPECT_LT(waited, 6.0);
  EXPECT_EQ(reply, nullptr);
  ExpectPromptDisconnect(client);
  done = true;
  EXPECT_TRUE(peer.Join());
}

TEST(HostilePeer, FloodOfPostsDoesNotHideTheReply) {
  constexpr int kPosts = 20000;
  VxLog log;
  log.setLevel(0);
  log.setSink([](VxLog::Severity, const char*) {});
  CScriptPeer peer;
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, peer.port());
  CLogPostCounter counter;
  CNDMPCallbackRegistration* registration =
      client.RegisterCallback(&counter, CNDMPMessageCode::NDMP_LOG_MESSAGE);

  ConnectClient(peer, client, [](CScriptPeer& p) {
    std::vector<unsigned char> batch;
    for (int i = 0; i < kPosts / 2; ++i) {
      auto post = testing::PostRecord(CNDMPMessageCode::NDMP_LOG_MESSAGE,
                                      LogPostBody("post " + std::to_string(i)), 1000 + i);
      batch.insert(batch.end(), post.begin(), post.end());
    }
    p.Write(batch);  // half before the request is even read
    CRawRecord request = p.ReadRecord();
    if (!request.complete) return;
    p.Write(batch);  // the other half ahead of the reply
    p.Write(testing::ReplyRecord(
        request.header,
        testing::Concat({testing::XdrU32(0), testing::XdrString("filer"), testing::XdrString("os"),
                         testing::XdrString("1"), testing::XdrString("id")})));
  });

  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  ASSERT_EQ(client.SendMessage(request, &reply, 60), CNDMPError::NDMP_NO_ERR);
  auto* info = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->hostname.GetString(), "filer");
  client.FreeMessage(reply);

  EXPECT_TRUE(counter.WaitForCount(kPosts, 60000)) << counter.count();
  EXPECT_EQ(counter.count(), kPosts);
  EXPECT_EQ(counter.last(), "post " + std::to_string(kPosts / 2 - 1));
  EXPECT_TRUE(client.UnregisterCallback(registration));
  ExpectPromptDisconnect(client);
  EXPECT_TRUE(peer.Join());
}

TEST(HostilePeer, MessageInOneByteFragmentsIsDecoded) {
  VxLog log;
  log.setLevel(0);
  log.setSink([](VxLog::Severity, const char*) {});
  CScriptPeer peer;
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, peer.port());
  CLogPostCounter counter;
  client.RegisterCallback(&counter, CNDMPMessageCode::NDMP_LOG_MESSAGE);

  std::string entry;
  for (int i = 0; entry.size() < 100000; ++i) entry += "line " + std::to_string(i) + "\n";
  auto record = testing::PostRecord(CNDMPMessageCode::NDMP_LOG_MESSAGE, LogPostBody(entry));
  auto payload = testing::StripRecordMarks(record);
  auto fragments = testing::MakeRecord(payload, 1);
  ASSERT_GE(payload.size(), 100000u);
  ASSERT_EQ(fragments.size(), payload.size() * 5);

  ConnectClient(peer, client, [&fragments](CScriptPeer& p) {
    p.Write(fragments);
    p.ReadUntilClosed();
  });
  ASSERT_TRUE(counter.WaitForCount(1, 60000));
  EXPECT_EQ(counter.last(), entry);
  ExpectPromptDisconnect(client);
  EXPECT_TRUE(peer.Join());
}

// The peer side of a connection that the test resets by hand: CScriptPeer
// only closes cleanly.
class CResettingPeer {
 public:
  CResettingPeer() { listener_.listen("127.0.0.1", 0); }
  unsigned int port() const { return listener_.port(); }
  // Accepts, answers the open request and returns the raw descriptor.
  void Start() {
    thread_ = std::thread([this] {
      VxTcpSocket accepted;
      if (listener_.accept(accepted, testing::kWaitMs) != 0) return;
      fd_ = accepted.release();
      CRawRecord open = ReadRecord();
      if (!open.complete) return;
      Write(testing::ReplyRecord(open.header, testing::XdrU32(0)));
      CRawRecord request = ReadRecord();
      if (!request.complete) return;
      // Half a fragment, then a reset.
      Write(testing::Concat({testing::FragmentHeader(100, true), std::vector<unsigned char>(10, 7)}));
      linger l{1, 0};
      setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
      ::close(fd_);
      fd_ = -1;
    });
  }
  void Join() {
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) ::close(fd_);
  }

 private:
  std::vector<unsigned char> Read(std::size_t count) {
    std::vector<unsigned char> out(count);
    std::size_t got = 0;
    timeval tv{testing::kWaitMs / 1000, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    while (got < count) {
      ssize_t n = ::recv(fd_, out.data() + got, count - got, 0);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    out.resize(got);
    return out;
  }
  CRawRecord ReadRecord() {
    CRawRecord record;
    std::vector<unsigned char> payload;
    for (;;) {
      auto header = Read(4);
      if (header.size() != 4) return record;
      std::uint32_t word = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                           (std::uint32_t{header[2]} << 8) | header[3];
      auto data = Read(word & 0x7FFFFFFFu);
      payload.insert(payload.end(), data.begin(), data.end());
      if (word & 0x80000000u) break;
    }
    if (payload.size() < 24) return record;
    auto at = [&](int i) {
      return (std::uint32_t{payload[i]} << 24) | (std::uint32_t{payload[i + 1]} << 16) |
             (std::uint32_t{payload[i + 2]} << 8) | payload[i + 3];
    };
    record.header = {at(0), at(4), at(8), at(12), at(16), at(20)};
    record.body.assign(payload.begin() + 24, payload.end());
    record.complete = true;
    return record;
  }
  void Write(const std::vector<unsigned char>& bytes) {
    ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  VxTcpListener listener_;
  int fd_ = -1;
  std::thread thread_;
};

TEST(HostilePeer, ResetInsideFragmentEndsPendingRequestQuickly) {
  CCapturingLog log;
  CResettingPeer peer;
  peer.Start();
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, peer.port());
  ASSERT_EQ(client.Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(4u)),
            CNDMPError::NDMP_NO_ERR);

  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  auto start = Clock::now();
  EXPECT_EQ(client.SendMessage(request, &reply, 30), CNDMPError::NDMP_TIMEOUT_ERR);
  // Far below the 30 s the request allows: the broken connection ends the wait.
  EXPECT_LT(SecondsSince(start), 6.0);
  EXPECT_TRUE(log.WaitFor("Error Reading from Socket", 1000) ||
              log.WaitFor("Connection Reset", 1000));
  ExpectPromptDisconnect(client);
  peer.Join();
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
