#include "tools/simulator/tape_agent.h"

#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;

unsigned int TapeError(CVirtualTape::Status status) {
  switch (status) {
    case CVirtualTape::Status::kOk:
      return CNDMPError::NDMP_NO_ERR;
    case CVirtualTape::Status::kFilemark:
      return CNDMPError::NDMP_EOF_ERR;
    case CVirtualTape::Status::kEndOfData:
    case CVirtualTape::Status::kBeginning:
    case CVirtualTape::Status::kEndOfMedium:
      return CNDMPError::NDMP_EOM_ERR;
    case CVirtualTape::Status::kWriteProtected:
      return CNDMPError::NDMP_WRITE_PROTECT_ERR;
    case CVirtualTape::Status::kIoError:
      break;
  }
  return CNDMPError::NDMP_IO_ERR;
}

bool CSimTapeAgent::Available(CSimRequest& request) {
  if (!moverBusy_ || !moverBusy_()) return true;
  request.Fail(CNDMPError::NDMP_ILLEGAL_STATE_ERR);
  return false;
}

void CSimTapeAgent::Release() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (tape_ != nullptr) context_.server.ReleaseTape(tapeName_, this);
  tape_ = nullptr;
  if (changerOpen_) context_.server.ReleaseChanger(this);
  changerOpen_ = false;
}

void CSimTapeAgent::ScsiOpen(CSimRequest& request) {
  auto* body = request.Body<CNDMPScsiOpenRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPScsiOpenReply reply;
  if (changerOpen_) {
    reply.NDMP_Error = CNDMPError::NDMP_DEVICE_OPENED_ERR;
  } else {
    switch (context_.server.AcquireChanger(body->Device.GetString(), this)) {
      case CNDMPSimServer::DeviceResult::kOk:
        changerOpen_ = true;
        break;
      case CNDMPSimServer::DeviceResult::kBusy:
        reply.NDMP_Error = CNDMPError::NDMP_DEVICE_BUSY_ERR;
        break;
      default:
        reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
        break;
    }
  }
  request.Reply(reply);
}

void CSimTapeAgent::ScsiClose(CSimRequest& request) {
  CNDMPScsiCloseReply reply;
  if (!changerOpen_) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else {
    context_.server.ReleaseChanger(this);
    changerOpen_ = false;
  }
  request.Reply(reply);
}

void CSimTapeAgent::ScsiGetState(CSimRequest& request) {
  CNDMPScsiGetStateReply reply;
  if (!changerOpen_) reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  request.Reply(reply);
}

// ---------------------------------------------------------------------------
// Tape

void CSimTapeAgent::TapeOpen(CSimRequest& request) {
  if (!Available(request)) return;
  auto* body = request.Body<CNDMPTapeOpenRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeOpenReply reply;
  const std::string name = body->Device.GetString();
  const unsigned int mode = body->Mode.getInt32();
  using Mode = enums::CNDMPEnumTapeOpenMode;
  const bool write = mode == Mode::NDMP_TAPE_RDWR_MODE || mode == Mode::NDMP_TAPE_RAW_MODE ||
                     mode == Mode::NDMP_TAPE_RAW_MODE_OLD;
  if (tape_ != nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEVICE_OPENED_ERR;
  } else if (!write && mode != Mode::NDMP_TAPE_READ_MODE) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else if (!CNDMPSimServer::IsValidTapeName(name)) {
    reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
  } else {
    CVirtualTape* tape = nullptr;
    switch (context_.server.AcquireTape(name, write, this, &tape)) {
      case CNDMPSimServer::DeviceResult::kOk:
        if (write && !tape->IsWritable()) {
          context_.server.ReleaseTape(name, this);
          reply.NDMP_Error = CNDMPError::NDMP_WRITE_PROTECT_ERR;
        } else {
          std::lock_guard<std::mutex> lock(mutex_);
          tape_ = tape;
          tapeName_ = name;
          tapeWritable_ = write;
          tapeUnloaded_ = false;
        }
        break;
      case CNDMPSimServer::DeviceResult::kBusy:
        reply.NDMP_Error = CNDMPError::NDMP_DEVICE_BUSY_ERR;
        break;
      case CNDMPSimServer::DeviceResult::kNoDevice:
        reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
        break;
      case CNDMPSimServer::DeviceResult::kIoError:
        reply.NDMP_Error = CNDMPError::NDMP_IO_ERR;
        break;
    }
  }
  if (reply.NDMP_Error == CNDMPError::NDMP_NO_ERR) {
    context_.log.info("sim client %u: tape %s opened (%s)", context_.id, name.c_str(),
                      body->Mode.ToString().c_str());
  }
  request.Reply(reply);
}

void CSimTapeAgent::TapeClose(CSimRequest& request) {
  if (!Available(request)) return;
  CNDMPTapeCloseReply reply;
  if (tape_ == nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else {
    std::lock_guard<std::mutex> lock(mutex_);
    context_.server.ReleaseTape(tapeName_, this);
    tape_ = nullptr;
  }
  request.Reply(reply);
}

void CSimTapeAgent::TapeGetState(CSimRequest& request) {
  CNDMPTapeGetStateReply reply;
  std::unique_lock<std::mutex> lock(mutex_);  // the mover may be writing
  if (tape_ == nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    reply.NDMP_Error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else {
    reply.Flags = tape_->IsWritable() ? 0u : 0x10u;  // write protected
    reply.FileNum = tape_->FileNumber();
    reply.BlockNo = tape_->BlockNumber();
    reply.BlockSize = 0u;  // variable-size records
    reply.TotalSpace = CNDMPUQuad(tape_->Capacity());
    reply.SpaceRemaining = CNDMPUQuad(tape_->Remaining());
  }
  lock.unlock();
  request.Reply(reply);
}

void CSimTapeAgent::TapeMtio(CSimRequest& request) {
  if (!Available(request)) return;
  auto* body = request.Body<CNDMPTapeMtioRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeMtioReply reply;
  const std::uint32_t count = body->Count.getInt32();
  std::uint32_t resid = 0;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  using Op = enums::CNDMPEnumMtioOp;
  const unsigned int op = body->TapeOp.getInt32();
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_ && op != Op::NDMP_MTIO_OFF) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
    resid = count;
  } else {
    switch (op) {
      case Op::NDMP_MTIO_FSF:
      case Op::NDMP_MTIO_BSF:
        error = TapeError(tape_->SpaceFilemarks(op == Op::NDMP_MTIO_FSF, count, &resid));
        break;
      case Op::NDMP_MTIO_FSR:
      case Op::NDMP_MTIO_BSR:
        error = TapeError(tape_->SpaceRecords(op == Op::NDMP_MTIO_FSR, count, &resid));
        break;
      case Op::NDMP_MTIO_REW:
        tape_->Rewind();
        break;
      case Op::NDMP_MTIO_EOF:
        if (!tapeWritable_) {
          error = CNDMPError::NDMP_PERMISSION_ERR;
          resid = count;
        } else {
          std::uint32_t written = 0;
          error = TapeError(tape_->WriteFilemarks(count, &written));
          resid = count - written;
        }
        break;
      case Op::NDMP_MTIO_OFF:
        tape_->Rewind();
        tapeUnloaded_ = true;
        break;
      case Op::NDMP_MTIO_TUR:
        break;
      default:
        error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
        resid = count;
        break;
    }
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  reply.ResidCount = resid;
  request.Reply(reply);
}

void CSimTapeAgent::TapeWrite(CSimRequest& request) {
  if (!Available(request)) return;
  auto* body = request.Body<CNDMPTapeWriteRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeWriteReply reply;
  const std::uint64_t length = body->DataOut.GetSize();
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else if (!tapeWritable_) {
    error = CNDMPError::NDMP_PERMISSION_ERR;
  } else if (length == 0 || length > context_.server.Config().maxRecordSize) {
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    error =
        TapeError(tape_->WriteRecord(body->DataOut.GetData(), static_cast<std::uint32_t>(length)));
    if (error == CNDMPError::NDMP_NO_ERR) reply.Count = static_cast<unsigned int>(length);
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  request.Reply(reply);
}

void CSimTapeAgent::TapeRead(CSimRequest& request) {
  if (!Available(request)) return;
  auto* body = request.Body<CNDMPTapeReadRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeReadReply reply;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  const std::uint32_t count = body->Count.getInt32();
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else if (count == 0) {
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    std::vector<unsigned char> data;
    error = TapeError(tape_->ReadRecord(count, &data));
    if (!data.empty()) reply.Data.SetData(data.data(), data.size());
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  request.Reply(reply);
}

}  // namespace com::vx::korvane::ndmpc::tools
