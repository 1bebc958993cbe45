// The foundation layer: events and threads, socket status codes at the end
// of a connection, connecting by name and address, and the logger.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/foundation/vx_thread.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using testing::CCapturingLog;
using testing::CLoopbackTcp;
using testing::kWaitMs;

TEST(ThreadEvent, AutoResetReleasesOneWaitAtATimeManualResetAll) {
  VxThreadEvent event(VxThreadEvent::kAutoReset, false);
  EXPECT_EQ(event.wait(10), VX_WAIT_TIMEOUT);
  event.set();
  EXPECT_TRUE(event.isSet());
  EXPECT_EQ(event.wait(0), 0u);
  EXPECT_FALSE(event.isSet());
  EXPECT_EQ(event.wait(10), VX_WAIT_TIMEOUT);

  VxThreadEvent initially(VxThreadEvent::kAutoReset, true);
  EXPECT_EQ(initially.wait(0), 0u);
  EXPECT_EQ(initially.wait(0), VX_WAIT_TIMEOUT);

  // Waiters are woken one set at a time.
  VxThreadEvent progress(VxThreadEvent::kManualReset, false);
  std::atomic<int> released{0};
  // One waiter waits without limit (-1).
  auto waiter = [&](unsigned int ms) {
    if (event.wait(ms) == 0) ++released;
    progress.set();
  };
  std::thread first(waiter, kWaitMs);
  std::thread second(waiter, static_cast<unsigned int>(-1));
  event.set();
  ASSERT_EQ(progress.wait(kWaitMs), 0u);
  EXPECT_FALSE(event.isSet());  // taken by the released waiter
  event.set();
  first.join();
  second.join();
  EXPECT_EQ(released.load(), 2);
  EXPECT_FALSE(event.isSet());

  // A manual-reset event releases every waiter until it is reset.
  VxThreadEvent manual(VxThreadEvent::kManualReset, false);
  released = 0;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      if (manual.wait(kWaitMs) == 0) ++released;
    });
  }
  manual.set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 4);
  EXPECT_EQ(manual.wait(0), 0u);
  EXPECT_TRUE(manual.isSet());
  manual.reset();
  EXPECT_EQ(manual.wait(10), VX_WAIT_TIMEOUT);
}

class CLoopThread : public VxThread {
 public:
  VxThreadEvent started{VxThreadEvent::kManualReset, false};
  VxThreadEvent release{VxThreadEvent::kManualReset, true};
  std::atomic<int> loops{0};

 protected:
  int run() override {
    started.set();
    release.wait(kWaitMs);
    while (runnable()) {
      ++loops;
      VxThread::sleep(1);
    }
    return 0;
  }
};

// stop(false) only asks; waitUntilStopped waits for run() to return, which
// may take longer than the wait.
TEST(Thread, StopsWithinWaitUntilStoppedAndStartsAgain) {
  CLoopThread thread;
  EXPECT_TRUE(thread.waitUntilStopped(0));  // never started
  ASSERT_TRUE(thread.start());
  EXPECT_FALSE(thread.start());  // already running
  ASSERT_EQ(thread.started.wait(kWaitMs), 0u);
  EXPECT_TRUE(thread.isRunning());
  thread.stop(false);
  EXPECT_TRUE(thread.waitUntilStopped(kWaitMs));
  EXPECT_FALSE(thread.isRunning());
  // It can run again after it ended.
  ASSERT_TRUE(thread.start());
  thread.stop(true);
  EXPECT_FALSE(thread.isRunning());

  thread.release.reset();
  thread.started.reset();
  ASSERT_TRUE(thread.start());
  ASSERT_EQ(thread.started.wait(kWaitMs), 0u);
  thread.stop(false);
  EXPECT_FALSE(thread.waitUntilStopped(20));  // run() is held at `release`
  EXPECT_TRUE(thread.isRunning());
  thread.release.set();
  EXPECT_TRUE(thread.waitUntilStopped(VX_INFINITE));
  EXPECT_FALSE(thread.isRunning());
}

class COnceThread : public VxThread {
 public:
  std::atomic<int> runs{0};

 protected:
  int run() override {
    ++runs;
    return 0;
  }
};

TEST(Thread, StartsAgainAfterRunReturnedByItself) {
  COnceThread thread;
  ASSERT_TRUE(thread.start());
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (thread.isRunning() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_FALSE(thread.isRunning());
  // Nobody waited for the first run; starting again must still work.
  EXPECT_TRUE(thread.start());
  EXPECT_TRUE(thread.waitUntilStopped(kWaitMs));
  EXPECT_EQ(thread.runs.load(), 2);
}

TEST(TcpSocket, ReportsEndOfDataResetAndLocalClose) {
  CLoopbackTcp ended, reset, closed;
  ASSERT_TRUE(ended.ok() && reset.ok() && closed.ok());
  ASSERT_TRUE(ended.PeerWrite({1, 2}));
  ended.PeerClose();
  EXPECT_EQ(ended.socket.waitForInput(kWaitMs), 0u);
  unsigned char buffer[4];
  unsigned int got = 99;
  EXPECT_EQ(ended.socket.read(buffer, 4, &got), VX_SOCKET_END_OF_DATA);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(buffer[1], 2);
  EXPECT_FALSE(ended.socket.isConnected());
  EXPECT_EQ(ended.socket.waitForInput(kWaitMs), 0u);
  EXPECT_EQ(ended.socket.read(buffer, 1, &got), VX_SOCKET_END_OF_DATA);
  EXPECT_EQ(got, 0u);

  reset.PeerReset();
  EXPECT_EQ(reset.socket.waitForInput(kWaitMs), 0u);
  got = 99;
  EXPECT_EQ(reset.socket.read(buffer, 4, &got), 10054u);
  EXPECT_EQ(got, 0u);

  closed.socket.close();
  EXPECT_FALSE(closed.socket.isConnected());
  got = 99;
  EXPECT_EQ(closed.socket.write("x", 1, &got), VX_SOCKET_ABORTED);
  EXPECT_EQ(got, 0u);
  EXPECT_NE(closed.socket.waitForInput(10), 0u);
  EXPECT_TRUE(closed.PeerReadAll().empty());  // the peer sees the end
}

// Accepts one connection on `host` and checks that connecting to `target`
// reaches it. Returns false when `host` cannot listen here.
bool ConnectsThrough(const VxString& host, const VxString& target, VxString* remote) {
  VxTcpListener listener;
  if (listener.listen(host, 0) != 0) return false;
  VxTcpSocket client;
  VxTcpSocket served;
  EXPECT_EQ(client.connect(VxSocketAddress(target, listener.port()), kWaitMs), 0u) << target;
  EXPECT_EQ(listener.accept(served, kWaitMs), 0u) << target;
  EXPECT_TRUE(client.isConnected());
  unsigned int got = 0;
  EXPECT_EQ(client.write("ping", 4, &got), 0u);
  char buffer[4] = {};
  EXPECT_EQ(served.read(buffer, 4, &got), 0u);
  EXPECT_EQ(std::string(buffer, 4), "ping");
  *remote = client.getRemoteAddress().toIPAddress();
  EXPECT_EQ(client.getRemoteAddress().port(), listener.port());
  return true;
}

// A closed port is refused at once, not waited out.
TEST(TcpSocket, ConnectsByNameAndByAddressAndIsRefusedByAClosedPort) {
  unsigned int port;
  {
    VxTcpListener listener;
    ASSERT_EQ(listener.listen("127.0.0.1", 0), 0u);
    port = listener.port();
  }
  VxTcpSocket socket;
  unsigned int status = socket.connect(VxSocketAddress("127.0.0.1", port), kWaitMs);
  EXPECT_NE(status, 0u);
  EXPECT_NE(status, VX_SOCKET_TIMEOUT);
  EXPECT_FALSE(socket.isConnected());
  EXPECT_NE(socket.connect(VxSocketAddress("", port), kWaitMs), 0u);

  VxString remote;
  ASSERT_TRUE(ConnectsThrough("127.0.0.1", "127.0.0.1", &remote));
  EXPECT_EQ(remote, "127.0.0.1");
  ASSERT_TRUE(ConnectsThrough("127.0.0.1", "localhost", &remote));
  EXPECT_EQ(remote, "127.0.0.1");
  if (!ConnectsThrough("::1", "::1", &remote)) {
    GTEST_SKIP() << "no IPv6 loopback here";
  }
  EXPECT_EQ(remote, "::1");
}

TEST(TcpListener, AcceptWithoutWaitingTakesOnlyAPendingConnection) {
  VxTcpListener listener;
  ASSERT_EQ(listener.listen("127.0.0.1", 0), 0u);
  VxTcpSocket idle;
  EXPECT_EQ(listener.accept(idle, 20), VX_SOCKET_TIMEOUT);
  EXPECT_EQ(listener.accept(idle, 0), VX_SOCKET_TIMEOUT);
  VxTcpSocket client;
  ASSERT_EQ(client.connect(VxSocketAddress("127.0.0.1", listener.port()), kWaitMs), 0u);
  VxTcpSocket served;
  unsigned int status = VX_SOCKET_TIMEOUT;
  // The handshake may still be finishing on the listening side: retry, bounded.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (status == VX_SOCKET_TIMEOUT && std::chrono::steady_clock::now() < deadline) {
    status = listener.accept(served, 0);
  }
  EXPECT_EQ(status, 0u);
  EXPECT_TRUE(served.isConnected());
}

// Lines below the level are dropped; wide labels and long lines come out whole.
TEST(Log, FiltersByLevelAndFormatsWideLabelsAndLongLines) {
  CCapturingLog log;
  const std::vector<VxLog::Severity> all = {VxLog::kError, VxLog::kWarning, VxLog::kInfo,
                                            VxLog::kDebug};
  for (int level : {0, 1, 2, 3, 4, 7}) {
    log.Clear();
    log.setLevel(level);
    log.error("e");
    log.warning("w");
    log.info("i");
    log.debug("d");
    std::vector<VxLog::Severity> kept;
    for (auto& line : log.Lines()) kept.push_back(line.first);
    EXPECT_EQ(kept, std::vector<VxLog::Severity>(all.begin(), all.begin() + std::min(level, 4)))
        << "level " << level;
  }
  VxLog plain;
  EXPECT_EQ(plain.getLevel(), 2);
  log.Clear();
  const wchar_t label[] = L"(CXDRStream::readInputBuffer)";
  log.warning("%ls Detected NO_MORE_DATA. Closing socket.", label);
  const std::string longText(3000, 'q');
  log.error("%s|%d", longText.c_str(), 42);
  auto texts = log.Texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], "(CXDRStream::readInputBuffer) Detected NO_MORE_DATA. Closing socket.");
  EXPECT_EQ(texts[1], longText + "|42");
}

// Every line is "<letter>" repeated, then the letter's count; a line mixed
// from two writers fails the check.
TEST(Log, LinesFromManyThreadsAreNeverInterleaved) {
  char path[] = "/tmp/ndmpc_log_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  {
    VxLog log(path);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
      writers.emplace_back([&log, t] {
        const std::string body(700, static_cast<char>('a' + t));
        for (int i = 0; i < kLines; ++i) log.warning("<%s|%d>", body.c_str(), i);
      });
    }
    for (auto& w : writers) w.join();
    log.flush();
  }
  std::ifstream in(path);
  std::string line;
  int count = 0;
  while (std::getline(in, line)) {
    ++count;
    std::size_t open = line.find('<');
    ASSERT_NE(open, std::string::npos) << line;
    ASSERT_EQ(line.back(), '>') << line;
    const char letter = line[open + 1];
    EXPECT_EQ(line.find_first_not_of(letter, open + 1), open + 701) << line.substr(0, 80);
    EXPECT_EQ(line[open + 701], '|');
  }
  EXPECT_EQ(count, kThreads * kLines);
  std::remove(path);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
