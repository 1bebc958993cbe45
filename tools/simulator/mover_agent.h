// CSimMoverAgent: the NDMP_MOVER_* requests of one session of the simulated
// server. A mover moves a data connection to the open tape (mode READ: it
// reads the connection and writes records of the set size, the last one
// padded) or the tape to the connection (mode WRITE: it sends nothing until
// NDMP_MOVER_READ says which bytes of the image to send, then positions the
// tape by record). It runs on a worker thread and reports with
// NDMP_NOTIFY_MOVER_PAUSED (writing: end of medium, end of the window;
// reading: end of tape data, a read outside the window) and
// NDMP_NOTIFY_MOVER_HALTED.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/simulator/data_stream.h"
#include "tools/simulator/sim_request.h"

namespace com::vx::korvane::ndmpc::tools {

class CSimTapeAgent;
class CSimDataAgent;

class CSimMoverAgent {
 public:
  CSimMoverAgent(CSimAgentContext& context, CSimTapeAgent& tape);
  CSimMoverAgent(const CSimMoverAgent&) = delete;
  CSimMoverAgent& operator=(const CSimMoverAgent&) = delete;
  ~CSimMoverAgent() { Shutdown(); }
  void SetDataAgent(CSimDataAgent* data) { data_ = data; }

  void Listen(CSimRequest& request);
  void Connect(CSimRequest& request);
  void SetRecordSize(CSimRequest& request);
  void SetWindow(CSimRequest& request);
  void Read(CSimRequest& request);
  void Continue(CSimRequest& request);
  void Abort(CSimRequest& request);
  void Stop(CSimRequest& request);
  void Close(CSimRequest& request);
  void GetState(CSimRequest& request);

  // True while the tape belongs to the mover (listening or active).
  bool Busy();
  // For the data agent of the session connecting locally: the other end of
  // a local listen (the mover goes active), or -1 when not listening locally.
  int ConnectLocal();
  // Aborts a running mover and joins its thread (the session ends).
  void Shutdown();

 private:
  enum class State { kIdle, kListen, kActive, kPaused, kHalted };
  // NDMP_MOVER_LISTEN and NDMP_MOVER_CONNECT: from idle, with a tape fit for
  // `mode`, `open` makes the data endpoint; the mover then enters `next`
  // and starts. The NDMP error.
  unsigned int OpenEndpoint(std::uint32_t mode, State next,
                            const std::function<unsigned int(CSimEndpoint*, std::string*)>& open);

  void Start(std::uint32_t mode);
  void Work();
  void WriteTape();
  void ReadTape();
  // Writes one record to the tape, pausing at end of medium; false when the mover must halt.
  bool WriteRecord(const unsigned char* record);
  // Sends image bytes [offset, offset+length) from the tape; false when the mover must halt.
  bool Send(std::uint64_t offset, std::uint64_t length);
  // Pauses with `reason` until CONTINUE (true) or abort/close (false).
  bool Pause(unsigned int reason, std::uint64_t seek);
  void Halt(unsigned int reason, const std::string& why);
  std::uint64_t WindowEnd() const;

  CSimAgentContext& context_;
  CSimTapeAgent& tape_;
  CSimDataAgent* data_ = nullptr;

  std::mutex mutex_;
  std::condition_variable wake_;
  // Guarded by mutex_.
  State state_ = State::kIdle;
  std::uint32_t mode_ = 0;
  unsigned int pauseReason_ = 0;
  unsigned int haltReason_ = 0;
  std::uint32_t recordSize_ = 10240;
  std::uint64_t windowOffset_ = 0;
  std::uint64_t windowLength_ = ~0ull;
  std::uint64_t seekPosition_ = 0;
  std::uint64_t bytesLeftToRead_ = 0;
  bool readPending_ = false;
  std::uint64_t readOffset_ = 0;
  std::uint64_t readLength_ = 0;
  bool closeRequested_ = false;

  std::atomic<bool> abort_{false};
  std::atomic<std::uint64_t> bytesMoved_{0};
  std::atomic<std::uint32_t> recordNum_{0};
  CSimEndpoint endpoint_;  // replaced only while no worker runs
  std::thread worker_;
  // Worker only: the tape block where the window starts.
  std::uint32_t baseBlock_ = 0;
  const void* baseTape_ = nullptr;
};

}  // namespace com::vx::korvane::ndmpc::tools
