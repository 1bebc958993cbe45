// CSimTapeAgent: the tape and SCSI (changer) requests of one session of the
// simulated server, over the server's shared virtual tapes. The session's
// mover writes and reads the open tape through Tape() while it moves data;
// meanwhile the tape requests are refused with NDMP_ILLEGAL_STATE_ERR (a
// paused mover leaves the tape to the client, so that it can change tapes).
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "tools/simulator/sim_request.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {

class CSimTapeAgent {
 public:
  explicit CSimTapeAgent(CSimAgentContext& context) : context_(context) {}
  CSimTapeAgent(const CSimTapeAgent&) = delete;
  CSimTapeAgent& operator=(const CSimTapeAgent&) = delete;
  ~CSimTapeAgent() { Release(); }

  // True while the mover owns the tape; tape requests are refused then.
  void SetMoverBusy(std::function<bool()> busy) { moverBusy_ = std::move(busy); }

  void ScsiOpen(CSimRequest& request);
  void ScsiClose(CSimRequest& request);
  void ScsiGetState(CSimRequest& request);
  void TapeOpen(CSimRequest& request);
  void TapeClose(CSimRequest& request);
  void TapeGetState(CSimRequest& request);
  void TapeMtio(CSimRequest& request);
  void TapeWrite(CSimRequest& request);
  void TapeRead(CSimRequest& request);

  // The open, loaded tape, or null. The mover holds Lock() while it uses it.
  CVirtualTape* Tape() const { return tapeUnloaded_ ? nullptr : tape_; }
  bool Writable() const { return tapeWritable_; }
  std::mutex& Lock() { return mutex_; }
  // Closes the tape and the changer (the session ends).
  void Release();

 private:
  // False (after answering the request) while the mover owns the tape.
  bool Available(CSimRequest& request);

  CSimAgentContext& context_;
  std::function<bool()> moverBusy_;
  std::mutex mutex_;
  std::string tapeName_;
  CVirtualTape* tape_ = nullptr;
  bool tapeWritable_ = false;
  bool tapeUnloaded_ = false;
  bool changerOpen_ = false;
};

// The NDMP error for a virtual tape status.
unsigned int TapeError(CVirtualTape::Status status);

}  // namespace com::vx::korvane::ndmpc::tools
