// Soak run: many client connections against the simulated server for a
// while, with random disconnects and reconnects, watching throughput and
// resident memory. Not a test and not timed by CI; run it by hand:
//
//   ndmpc_soak [seconds=180] [connections=200] [drop-one-in=50]
//
// The server runs in a child process so that the two memory figures are
// apart; the parent reads the child's /proc/PID/status. Each worker thread
// drives ten connections, picking one at random for every step: a closed
// one is connected (version 3 or 4, at random) and authenticated, an open
// one is dropped with probability 1/drop-one-in (never when 0), otherwise it sends one request of
// the mix and waits for its reply.
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/quiet_log.h"
#include "ndmpc/ndmpc.h"
#include "tools/simulator/sim_server.h"

namespace ndmpc = com::vx::korvane::ndmpc;
namespace enums = ndmpc::enums;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPerWorker = 10;

using ndmpc::bench::QuietLog;

// VmRSS of a process in KiB (the caller's own for "self"), or -1.
long ResidentKb(const std::string& pid) {
  std::ifstream status("/proc/" + pid + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// Bytes the allocator has handed out and not taken back (live blocks).
long HeapInUse() { return static_cast<long>(mallinfo2().uordblks); }
// Bytes the allocator holds from the system: its arenas and mapped blocks.
long HeapHeld() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<long>(info.arena + info.hblkhd);
}

// Runs the server in a child; returns its PID and port, or -1. `*reportFd`
// then reads the child's heap bytes in use and held, two longs per SIGUSR1.
pid_t StartServer(unsigned int* port, int* reportFd) {
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return -1;
  pid_t child = ::fork();
  if (child != 0) {
    ::close(pipeFds[1]);
    bool ok = child > 0 && ::read(pipeFds[0], port, sizeof(*port)) == sizeof(*port);
    *reportFd = pipeFds[0];
    return ok ? child : -1;
  }
  ::close(pipeFds[0]);
  // Blocked before any server thread starts, so that only sigwait sees them.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  ndmpc::tools::CSimServerConfig config;
  config.port = 0;
  config.maxClients = 1024;
  char dir[] = "/tmp/ndmpc_soak_XXXXXX";
  if (::mkdtemp(dir) == nullptr) ::_exit(1);
  config.tapeDir = dir;
  ndmpc::tools::CNDMPSimServer server(config, QuietLog());
  std::string error;
  if (!server.Start(&error)) ::_exit(1);
  unsigned int chosen = server.Port();
  if (::write(pipeFds[1], &chosen, sizeof(chosen)) != sizeof(chosen)) ::_exit(1);
  // Serves until the parent ends it with SIGTERM.
  int signal = 0;
  while (sigwait(&set, &signal) == 0 && signal == SIGUSR1) {
    const long figures[2] = {HeapInUse(), HeapHeld()};
    if (::write(pipeFds[1], figures, sizeof(figures)) != sizeof(figures)) break;
  }
  server.Stop();
  ::rmdir(dir);
  ::_exit(0);
}

std::unique_ptr<ndmpc::CNDMPMessage> MakeRequest(unsigned int pick) {
  switch (pick % 7) {
    case 0: return std::make_unique<ndmpc::CNDMPConfigGetHostInfoRequest>();
    case 1: return std::make_unique<ndmpc::CNDMPConfigGetServerInfoRequest>();
    case 2: return std::make_unique<ndmpc::CNDMPConfigGetFsInfoRequest>();
    case 3: return std::make_unique<ndmpc::CNDMPConfigGetTapeInfoRequest>();
    case 4: return std::make_unique<ndmpc::CNDMPTapeGetStateRequest>();
    case 5: return std::make_unique<ndmpc::CNDMPMoverGetStateRequest>();
    default: return std::make_unique<ndmpc::CNDMPDataGetStateRequest>();
  }
}

struct CCounters {
  std::atomic<long> requests{0};
  std::atomic<long> failures{0};
  std::atomic<long> connects{0};
  std::atomic<long> disconnects{0};
};

void Worker(unsigned int port, unsigned int seed, unsigned int dropOneIn,
            const std::atomic<bool>& stop, CCounters& counters) {
  std::mt19937 random(seed);
  std::vector<std::unique_ptr<ndmpc::CNDMPConnection>> connections;
  for (int i = 0; i < kPerWorker; ++i) {
    connections.push_back(
        std::make_unique<ndmpc::CNDMPConnection>("127.0.0.1", "127.0.0.1", QuietLog(), port));
  }
  while (!stop.load()) {
    ndmpc::CNDMPConnection& c = *connections[random() % kPerWorker];
    if (!c.IsConnected()) {
      const unsigned int version = random() % 2 == 0 ? 3u : 4u;
      if (c.Connect(ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(version)) ==
              enums::CNDMPError::NDMP_NO_ERR &&
          c.Authenticate("ndmp", "secret") == enums::CNDMPError::NDMP_NO_ERR) {
        ++counters.connects;
      } else {
        ++counters.failures;
        c.Disconnect();
      }
      continue;
    }
    if (dropOneIn != 0 && random() % dropOneIn == 0) {
      c.Disconnect();
      ++counters.disconnects;
      continue;
    }
    std::unique_ptr<ndmpc::CNDMPMessage> request = MakeRequest(random());
    ndmpc::CNDMPMessage* reply = nullptr;
    if (c.SendMessage(*request, &reply, 30) == enums::CNDMPError::NDMP_NO_ERR) {
      ++counters.requests;
      c.FreeMessage(reply);
    } else {
      ++counters.failures;
    }
  }
  for (auto& c : connections) c->Disconnect();
}

struct CServerProcess {
  pid_t pid;
  int reportFd;
};

// The server's heap bytes in use and held, or -1s.
void ServerHeap(const CServerProcess& server, long figures[2]) {
  if (::kill(server.pid, SIGUSR1) != 0 ||
      ::read(server.reportFd, figures, 2 * sizeof(long)) != 2 * sizeof(long)) {
    figures[0] = figures[1] = -1;
  }
}

// One line: throughput over the last interval, then resident memory and
// heap in use (live allocated blocks) / held from the system of both processes. Resident memory
// growing while the heap in use stays flat is allocator fragmentation.
void Report(const char* when, double seconds, long requests, long previous, double interval,
            const CServerProcess& server) {
  long serverHeap[2];
  ServerHeap(server, serverHeap);
  std::printf(
      "%-5s t=%6.1f s  req/s %6.0f  client RSS %6ld heap %6ld/%6ld  "
      "server RSS %6ld heap %6ld/%6ld KiB\n",
      when, seconds, interval > 0 ? static_cast<double>(requests - previous) / interval : 0.0,
      ResidentKb("self"), HeapInUse() / 1024, HeapHeld() / 1024,
      ResidentKb(std::to_string(server.pid)), serverHeap[0] / 1024, serverHeap[1] / 1024);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const double duration = argc > 1 ? std::atof(argv[1]) : 180.0;
  const int connectionCount = argc > 2 ? std::atoi(argv[2]) : 200;
  const int dropOneIn = argc > 3 ? std::atoi(argv[3]) : 50;
  if (duration <= 0 || connectionCount < kPerWorker || dropOneIn < 0) {
    std::fprintf(stderr, "usage: %s [seconds > 0] [connections >= %d] [drop-one-in >= 0]\n",
                 argv[0], kPerWorker);
    return 2;
  }
  unsigned int port = 0;
  CServerProcess server{-1, -1};
  server.pid = StartServer(&port, &server.reportFd);
  if (server.pid < 0) {
    std::fprintf(stderr, "the simulated server did not start\n");
    return 1;
  }
  CCounters counters;
  std::atomic<bool> stop{false};
  const auto start = Clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  Report("start", 0, 0, 0, 0, server);
  std::vector<std::thread> workers;
  for (int i = 0; i < connectionCount / kPerWorker; ++i) {
    workers.emplace_back(Worker, port, 1234u + static_cast<unsigned int>(i),
                         static_cast<unsigned int>(dropOneIn), std::cref(stop), std::ref(counters));
  }
  // One line every 10 s; the first after 30 s marks the warm state.
  long previous = 0;
  double last = 0;
  for (double next = 30; next < duration; next += 10) {
    while (elapsed() < next) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const long now = counters.requests.load();
    Report(next == 30 ? "warm" : "", elapsed(), now, previous, elapsed() - last, server);
    previous = now;
    last = elapsed();
  }
  while (elapsed() < duration) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const long total = counters.requests.load();
  Report("end", elapsed(), total, previous, elapsed() - last, server);
  stop = true;
  for (auto& t : workers) t.join();
  std::printf("total: %ld requests (%.0f/s), %ld connects, %ld deliberate disconnects, %ld failures\n",
              total, static_cast<double>(total) / duration, counters.connects.load(),
              counters.disconnects.load(), counters.failures.load());
  ::kill(server.pid, SIGTERM);
  int status = 0;
  ::waitpid(server.pid, &status, 0);
  ::close(server.reportFd);
  return 0;
}
