// CSimDataAgent: the NDMP_DATA_* requests of one session of the simulated
// server. It backs up a directory under the data root as a tar image
// ("tar": path-based file history, "dump": directory and node history) onto
// its data connection, and restores from one, asking for image bytes with
// NDMP_NOTIFY_DATA_READ. The data engine runs on a worker thread; log,
// history and halt posts go to the client from there.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/simulator/data_engine.h"
#include "tools/simulator/data_stream.h"
#include "tools/simulator/sim_request.h"

namespace com::vx::korvane::ndmpc::tools {

class CSimMoverAgent;

class CSimDataAgent {
 public:
  explicit CSimDataAgent(CSimAgentContext& context) : context_(context) {}
  CSimDataAgent(const CSimDataAgent&) = delete;
  CSimDataAgent& operator=(const CSimDataAgent&) = delete;
  ~CSimDataAgent() { Shutdown(); }
  void SetMover(CSimMoverAgent* mover) { mover_ = mover; }

  void Listen(CSimRequest& request);
  void Connect(CSimRequest& request);
  void StartBackup(CSimRequest& request);
  void StartRecover(CSimRequest& request);
  void StartRecoverFilehist(CSimRequest& request);
  void GetState(CSimRequest& request);
  void GetEnv(CSimRequest& request);
  void Abort(CSimRequest& request);
  void Stop(CSimRequest& request);

  // For the mover of the session connecting locally: the other end of a
  // local listen, or -1 when the agent does not listen locally.
  int ConnectLocal();
  // Aborts a running operation and joins its thread (the session ends).
  void Shutdown();

 private:
  enum class State { kIdle, kListen, kConnected, kActive, kHalted };
  using CEnv = std::vector<std::pair<std::string, std::string>>;

  void Recover(CSimRequest& request, bool historyOnly);
  // NDMP_NO_ERR when a start may go ahead in the current state.
  unsigned int CanStart();
  // History, log, abort flag and byte count of an engine job, to this agent.
  template <class Job>
  void Wire(Job& job);
  void Launch(unsigned int operation, CEnv env, std::function<CSimHaltReason()> run);
  void Finish(CSimHaltReason reason);
  void Log(int level, const std::string& text);
  void PostFiles(const std::vector<CSimFileEntry>& entries);
  void PostDirs(const std::vector<CSimFileEntry>& entries);
  void PostNodes(const std::vector<CSimFileEntry>& entries);
  void PostHalted(unsigned int reason, const std::string& text);

  CSimAgentContext& context_;
  CSimMoverAgent* mover_ = nullptr;

  std::mutex mutex_;
  // Guarded by mutex_.
  State state_ = State::kIdle;
  unsigned int operation_ = 0;
  unsigned int haltReason_ = 0;
  CEnv env_;
  std::uint64_t readOffset_ = 0;
  std::uint64_t readLength_ = 0;

  std::atomic<bool> abort_{false};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<unsigned int> messageId_{0};
  CSimEndpoint endpoint_;  // replaced only while no worker runs
  std::thread worker_;
};

}  // namespace com::vx::korvane::ndmpc::tools
