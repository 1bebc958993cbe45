#include "tools/simulator/mover_agent.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tools/simulator/data_agent.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/tape_agent.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;
using HaltReason = enums::CNDMPEnumMoverHaltReason;
using PauseReason = enums::CNDMPEnumMoverPauseReason;
using MoverMode = enums::CNDMPEnumMoverMode;

namespace {

constexpr std::uint64_t kToTheEnd = ~0ull;
constexpr auto kPeerCheck = std::chrono::milliseconds(10);

}  // namespace

CSimMoverAgent::CSimMoverAgent(CSimAgentContext& context, CSimTapeAgent& tape)
    : context_(context), tape_(tape) {
  tape_.SetMoverBusy([this] { return Busy(); });
}

bool CSimMoverAgent::Busy() {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_ == State::kListen || state_ == State::kActive;
}

std::uint64_t CSimMoverAgent::WindowEnd() const {
  return windowLength_ == kToTheEnd || windowOffset_ + windowLength_ < windowOffset_
             ? kToTheEnd
             : windowOffset_ + windowLength_;
}

// Which request fits the mover's state, and whether the tape suits `mode`:
// the error, or NDMP_NO_ERR.
static unsigned int CheckTape(CSimTapeAgent& tape, std::uint32_t mode) {
  std::lock_guard<std::mutex> lock(tape.Lock());
  if (mode != MoverMode::NDMP_MOVER_MODE_READ && mode != MoverMode::NDMP_MOVER_MODE_WRITE) {
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  if (tape.Tape() == nullptr) return CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  if (mode == MoverMode::NDMP_MOVER_MODE_READ && !tape.Writable()) {
    return CNDMPError::NDMP_PERMISSION_ERR;
  }
  return CNDMPError::NDMP_NO_ERR;
}

void CSimMoverAgent::Listen(CSimRequest& request) {
  auto* body = request.Body<CNDMPMoverListenRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPMoverListenReply reply;
  const unsigned int type = body->AddressType.getInt32();
  reply.Error = CXDREnumBase<CNDMPError>(
      OpenEndpoint(body->Mode.getInt32(), State::kListen, [&](CSimEndpoint* e, std::string* why) {
        return ListenEndpoint(type, context_.localAddress, e, &reply.Address, why);
      }));
  request.Reply(reply);
}

void CSimMoverAgent::Connect(CSimRequest& request) {
  auto* body = request.Body<CNDMPMoverConnectRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPMoverConnectReply reply;
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(
      OpenEndpoint(body->Mode.getInt32(), State::kActive, [&](CSimEndpoint* e, std::string* why) {
        return ConnectEndpoint(
            body->Address, [this] { return data_ == nullptr ? -1 : data_->ConnectLocal(); }, e,
            why);
      }));
  request.Reply(reply);
}

unsigned int CSimMoverAgent::OpenEndpoint(
    std::uint32_t mode, State next,
    const std::function<unsigned int(CSimEndpoint*, std::string*)>& open) {
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kIdle) error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  }
  if (error == CNDMPError::NDMP_NO_ERR) error = CheckTape(tape_, mode);
  CSimEndpoint endpoint;
  std::string why;
  if (error == CNDMPError::NDMP_NO_ERR) error = open(&endpoint, &why);
  if (!why.empty()) context_.log.warning("sim client %u: mover: %s", context_.id, why.c_str());
  if (error == CNDMPError::NDMP_NO_ERR) {
    std::lock_guard<std::mutex> lock(mutex_);
    endpoint_ = std::move(endpoint);
    state_ = next;
    Start(mode);
  }
  return error;
}

int CSimMoverAgent::ConnectLocal() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kListen || !endpoint_.stream || !endpoint_.stream->LocalListen()) return -1;
  const int fd = endpoint_.stream->TakeLocalPeer();
  if (fd >= 0) state_ = State::kActive;
  return fd;
}

void CSimMoverAgent::Start(std::uint32_t mode) {
  if (worker_.joinable()) worker_.join();  // a halted run, already ended
  mode_ = mode;
  pauseReason_ = PauseReason::NDMP_MOVER_PAUSE_NA;
  haltReason_ = HaltReason::NDMP_MOVER_HALT_NA;
  readPending_ = false;
  closeRequested_ = false;
  bytesLeftToRead_ = 0;
  abort_ = false;
  bytesMoved_ = 0;
  recordNum_ = 0;
  baseTape_ = nullptr;
  worker_ = std::thread([this] { Work(); });
}

void CSimMoverAgent::SetRecordSize(CSimRequest& request) {
  auto* body = request.Body<CNDMPMoverSetRecordSizeRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPMoverSetRecordSizeReply reply;
  const std::uint32_t size = body->RecordLength.getInt32();
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kIdle) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else if (size == 0 || size > context_.server.Config().maxRecordSize) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    recordSize_ = size;
  }
  request.Reply(reply);
}

void CSimMoverAgent::SetWindow(CSimRequest& request) {
  auto* body = request.Body<CNDMPMoverSetWindowRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPMoverSetWindowReply reply;
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kIdle && state_ != State::kListen && state_ != State::kPaused) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else {
    windowOffset_ = body->Offset.getUint64();
    windowLength_ = body->Length.getUint64();
  }
  request.Reply(reply);
}

void CSimMoverAgent::Read(CSimRequest& request) {
  auto* body = request.Body<CNDMPMoverReadRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPMoverReadReply reply;
  std::lock_guard<std::mutex> lock(mutex_);
  if (mode_ != MoverMode::NDMP_MOVER_MODE_WRITE || readPending_ ||
      (state_ != State::kListen && state_ != State::kActive)) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else if (body->Length.getUint64() == 0) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    readPending_ = true;
    readOffset_ = body->Offset.getUint64();
    readLength_ = body->Length.getUint64();
    bytesLeftToRead_ = readLength_;
    wake_.notify_all();
  }
  request.Reply(reply);
}

void CSimMoverAgent::Continue(CSimRequest& request) {
  CNDMPMoverContinueReply reply;
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kPaused) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else {
    state_ = State::kActive;
    pauseReason_ = PauseReason::NDMP_MOVER_PAUSE_NA;
    wake_.notify_all();
  }
  request.Reply(reply);
}

void CSimMoverAgent::Abort(CSimRequest& request) {
  CNDMPMoverAbortReply reply;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::kIdle || state_ == State::kHalted) {
      reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
    }
  }
  if (reply.NDMP_Error == CNDMPError::NDMP_NO_ERR) Shutdown();
  request.Reply(reply);
}

void CSimMoverAgent::Close(CSimRequest& request) {
  CNDMPMoverCloseReply reply;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kPaused) {
      reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
    } else {
      closeRequested_ = true;
      wake_.notify_all();
    }
  }
  if (reply.NDMP_Error == CNDMPError::NDMP_NO_ERR && worker_.joinable()) worker_.join();
  request.Reply(reply);
}

void CSimMoverAgent::Stop(CSimRequest& request) {
  StopWhenHalted<CNDMPMoverStopReply>(
      request, mutex_, worker_, [this] { return state_ == State::kHalted; },
      [this] {
        endpoint_ = CSimEndpoint();
        state_ = State::kIdle;
        haltReason_ = HaltReason::NDMP_MOVER_HALT_NA;
      });
}

void CSimMoverAgent::Shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    abort_ = true;
    if (endpoint_.stream) endpoint_.stream->Shutdown();
    wake_.notify_all();
  }
  if (worker_.joinable()) worker_.join();
}

void CSimMoverAgent::GetState(CSimRequest& request) {
  CNDMPMoverGetStateReply reply;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    static const unsigned int kStates[] = {enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_IDLE,
                                           enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_LISTEN,
                                           enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_ACTIVE,
                                           enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_PAUSED,
                                           enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_HALTED};
    reply.Mode = CXDREnumBase<MoverMode>(mode_);
    reply.State = kStates[static_cast<int>(state_)];
    reply.PauseReason = CXDREnumBase<PauseReason>(pauseReason_);
    reply.HaltReason = CXDREnumBase<HaltReason>(haltReason_);
    reply.RecordSize = recordSize_;
    reply.RecordNum = recordNum_.load();
    reply.BytesMoved = CNDMPUQuad(bytesMoved_.load());
    reply.SeekPosition = CNDMPUQuad(seekPosition_);
    reply.BytesLeftToRead = CNDMPUQuad(bytesLeftToRead_);
    reply.WindowOffset = CNDMPUQuad(windowOffset_);
    reply.WindowLength = CNDMPUQuad(windowLength_);
    FillAddress(reply.DataConnAddress, endpoint_.tcp && state_ != State::kIdle, endpoint_.ip,
                endpoint_.port);
  }
  request.Reply(reply);
}

// ---------------------------------------------------------------------------
// The worker thread

void CSimMoverAgent::Work() {
  if (!endpoint_.stream->WaitConnected(abort_)) {
    return Halt(HaltReason::NDMP_MOVER_HALT_CONNECT_ERROR, "no data connection");
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (endpoint_.tcp && state_ == State::kListen) state_ = State::kActive;
  }
  if (mode_ == MoverMode::NDMP_MOVER_MODE_READ) {
    WriteTape();
  } else {
    ReadTape();
  }
}

void CSimMoverAgent::WriteTape() {
  std::uint32_t size = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    size = recordSize_;
  }
  std::vector<unsigned char> record(size);
  std::size_t fill = 0;
  for (;;) {
    const long n = endpoint_.stream->Read(record.data() + fill, size - fill);
    if (n > 0) {
      fill += static_cast<std::size_t>(n);
      if (fill == size) {
        if (!WriteRecord(record.data())) return;
        fill = 0;
      }
    } else if (n == 0) {
      if (fill > 0) {
        std::memset(record.data() + fill, 0, size - fill);  // the last record, padded
        if (!WriteRecord(record.data())) return;
      }
      return Halt(HaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED, "the data connection closed");
    } else {
      return Halt(HaltReason::NDMP_MOVER_HALT_CONNECT_ERROR, "reading the data connection failed");
    }
  }
}

bool CSimMoverAgent::WriteRecord(const unsigned char* record) {
  for (;;) {
    std::uint64_t position = 0;
    std::uint32_t size = 0;
    bool outside = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      size = recordSize_;
      position = static_cast<std::uint64_t>(recordNum_.load()) * size;
      outside = position < windowOffset_ || position >= WindowEnd();
    }
    if (abort_) {
      Halt(HaltReason::NDMP_MOVER_HALT_ABORTED, "aborted");
      return false;
    }
    if (outside) {
      if (!Pause(PauseReason::NDMP_MOVER_PAUSE_EOW, position)) return false;
      continue;
    }
    CVirtualTape::Status status = CVirtualTape::Status::kIoError;
    {
      std::lock_guard<std::mutex> lock(tape_.Lock());
      if (CVirtualTape* tape = tape_.Tape()) status = tape->WriteRecord(record, size);
    }
    if (status == CVirtualTape::Status::kOk) {
      bytesMoved_ += size;
      ++recordNum_;
      return true;
    }
    if (status != CVirtualTape::Status::kEndOfMedium) {
      Halt(HaltReason::NDMP_MOVER_HALT_MEDIA_ERROR, "the tape write failed");
      return false;
    }
    if (!Pause(PauseReason::NDMP_MOVER_PAUSE_EOM, position)) return false;
  }
}

void CSimMoverAgent::ReadTape() {
  for (;;) {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      while (!readPending_ && !abort_) {
        lock.unlock();
        const bool closed = endpoint_.stream->PeerClosed(0);
        lock.lock();
        if (closed) break;
        // The predicate also catches a read that came while unlocked.
        wake_.wait_for(lock, kPeerCheck, [this] { return readPending_ || abort_; });
      }
      if (!readPending_ && !abort_) {
        lock.unlock();
        return Halt(HaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED, "the data connection closed");
      }
      offset = readOffset_;
      length = readLength_;
    }
    if (abort_) return Halt(HaltReason::NDMP_MOVER_HALT_ABORTED, "aborted");
    if (!Send(offset, length)) return;
  }
}

bool CSimMoverAgent::Send(std::uint64_t offset, std::uint64_t length) {
  const std::uint64_t end =
      length == kToTheEnd || offset + length < offset ? kToTheEnd : offset + length;
  std::uint64_t position = offset;
  std::vector<unsigned char> data;
  while (position < end) {
    if (abort_) {
      Halt(HaltReason::NDMP_MOVER_HALT_ABORTED, "aborted");
      return false;
    }
    std::uint64_t windowOffset = 0;
    std::uint32_t size = 0;
    bool outside = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      windowOffset = windowOffset_;
      size = recordSize_;
      outside = position < windowOffset_ || position >= WindowEnd();
    }
    if (outside) {
      if (!Pause(PauseReason::NDMP_MOVER_PAUSE_SEEK, position)) return false;
      continue;
    }
    const std::uint64_t record = (position - windowOffset) / size;
    const std::size_t skip = static_cast<std::size_t>((position - windowOffset) % size);
    CVirtualTape::Status status = CVirtualTape::Status::kIoError;
    data.clear();
    {
      std::lock_guard<std::mutex> lock(tape_.Lock());
      if (CVirtualTape* tape = tape_.Tape()) {
        if (tape != baseTape_) {  // a new tape: the window starts where it is positioned
          baseTape_ = tape;
          baseBlock_ = tape->BlockNumber();
        }
        const std::int64_t target = static_cast<std::int64_t>(baseBlock_ + record);
        const std::int64_t move = target - static_cast<std::int64_t>(tape->BlockNumber());
        std::uint32_t resid = 0;
        status = move == 0
                     ? CVirtualTape::Status::kOk
                     : tape->SpaceRecords(
                           move > 0, static_cast<std::uint32_t>(move > 0 ? move : -move), &resid);
        if (status == CVirtualTape::Status::kOk) status = tape->ReadRecord(size, &data);
        if (status == CVirtualTape::Status::kFilemark) {
          resid = 0;
          tape->SpaceFilemarks(false, 1, &resid);  // stay in front of it for a retry
        }
      }
    }
    if (status == CVirtualTape::Status::kFilemark || status == CVirtualTape::Status::kEndOfData ||
        (status == CVirtualTape::Status::kOk && skip >= data.size())) {
      // The image goes on elsewhere: the client may load the next tape and continue.
      if (length == kToTheEnd && endpoint_.stream->PeerClosed(0)) {
        Halt(HaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED, "the data connection closed");
        return false;
      }
      if (!Pause(PauseReason::NDMP_MOVER_PAUSE_EOF, position)) return false;
      continue;
    }
    if (status != CVirtualTape::Status::kOk) {
      Halt(HaltReason::NDMP_MOVER_HALT_MEDIA_ERROR, "the tape read failed");
      return false;
    }
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(data.size() - skip, end - position));
    {
      // The read is done before its last bytes go out: the data agent may
      // ask for the next one as soon as it has them.
      std::lock_guard<std::mutex> lock(mutex_);
      bytesLeftToRead_ = end == kToTheEnd ? 0 : end - position - count;
      if (position + count == end) readPending_ = false;
    }
    if (!endpoint_.stream->WriteAll(data.data() + skip, count)) {
      Halt(HaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED, "the data connection closed");
      return false;
    }
    position += count;
    bytesMoved_ += count;
    recordNum_ = static_cast<std::uint32_t>(record + 1);
  }
  return true;
}

bool CSimMoverAgent::Pause(unsigned int reason, std::uint64_t seek) {
  static const char* const kNames[] = {"",
                                       "end of medium",
                                       "end of tape data",
                                       "a read outside the window",
                                       "a media error",
                                       "the end of the window"};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::kPaused;
    pauseReason_ = reason;
    seekPosition_ = seek;
  }
  context_.log.info("sim client %u: mover paused at byte %llu: %s", context_.id,
                    static_cast<unsigned long long>(seek), reason < 6 ? kNames[reason] : "");
  CNDMPNotifyMoverPausedPost post;
  post.Reason = CXDREnumBase<PauseReason>(reason);
  post.SeekPosition = CNDMPUQuad(seek);
  context_.post(post);
  std::unique_lock<std::mutex> lock(mutex_);
  bool peerClosed = false;
  while (state_ == State::kPaused && !abort_ && !closeRequested_ && !peerClosed) {
    if (mode_ == MoverMode::NDMP_MOVER_MODE_WRITE) {
      lock.unlock();
      peerClosed = endpoint_.stream->PeerClosed(0);
      lock.lock();
    }
    wake_.wait_for(lock, kPeerCheck * 10, [this] {
      return state_ != State::kPaused || abort_ || closeRequested_;
    });
  }
  const bool closed = closeRequested_;
  lock.unlock();
  if (abort_) {
    Halt(HaltReason::NDMP_MOVER_HALT_ABORTED, "aborted");
  } else if (closed || peerClosed) {
    Halt(HaltReason::NDMP_MOVER_HALT_CONNECTION_CLOSED,
         closed ? "closed by the client" : "the data connection closed");
  } else {
    return true;
  }
  return false;
}

void CSimMoverAgent::Halt(unsigned int reason, const std::string& why) {
  if (abort_) reason = HaltReason::NDMP_MOVER_HALT_ABORTED;
  endpoint_.stream->Close();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::kHalted;
    haltReason_ = reason;
    pauseReason_ = PauseReason::NDMP_MOVER_PAUSE_NA;
  }
  context_.log.info("sim client %u: mover halted after %llu bytes: %s", context_.id,
                    static_cast<unsigned long long>(bytesMoved_.load()),
                    abort_ ? "aborted" : why.c_str());
  CNDMPNotifyMoverHaltedPost post;
  post.Reason = CXDREnumBase<HaltReason>(reason);
  post.TextReason = abort_ ? std::string("aborted") : why;
  context_.post(post);
}

}  // namespace com::vx::korvane::ndmpc::tools
