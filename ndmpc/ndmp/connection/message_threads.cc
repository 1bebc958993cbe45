#include "ndmpc/ndmp/connection/message_threads.h"

namespace com::vx::korvane::ndmpc {

CNDMPMessageReceiveThread::CNDMPMessageReceiveThread(CXDRStream& stream,
                                                     CNDMPMessagePacketQueue& queue, VxLog& log,
                                                     void* handle)
    : VxThread(0), stream_(stream), queue_(queue), log_(log), handle_(handle) {}

CNDMPMessageReceiveThread::~CNDMPMessageReceiveThread() {
  stop(false);
  waitUntilStopped(VX_INFINITE);
}

CXDREnumBase<enums::CNDMPProtocolVersion>& CNDMPMessageReceiveThread::SetProtocolVersion(
    CXDREnumBase<enums::CNDMPProtocolVersion>& version) {
  version_ = version;
  sharedVersion_.store(version.getInt32(), std::memory_order_release);
  return version_;
}

void CNDMPMessageReceiveThread::DropOversizedRecord(unsigned int handle,
                                                    CNDMPMessagePacket& packet) {
  // The stream stopped handing out the record's bytes at the chunk that
  // passed the limit, which holds the message header at the latest when the
  // limit is at least a header long; the rest goes through in buffer-sized
  // pieces, nothing of it kept. A pause of the peer inside the record does
  // not end the skipping (the rest would be read as new records); a stop or
  // the end of the connection does.
  bool whole = false;
  while (!(whole = stream_.DiscardRecord() != -1) && runnable() && stream_.IsConnected()) {
  }
  log_.error("[0x%08X] Message=%s of %s%llu bytes is over the maximum record size of %u bytes. "
             "Discarded.",
             handle, packet.GetHeader().MessageCode.ToString().c_str(), whole ? "" : "at least ",
             static_cast<unsigned long long>(stream_.GetRecordSize()),
             static_cast<unsigned int>(stream_.GetMaxRecordSize()));
}

int CNDMPMessageReceiveThread::run() {
  const unsigned int handle = detail::Handle32(handle_);
  log_.debug("[0x%08X] Message receive thread started", handle);
  while (runnable()) {
    if (stream_.IsAvailable()) {
      auto* packet = new CNDMPMessagePacket();
      packet->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(
          sharedVersion_.load(std::memory_order_acquire)));
      int ret = packet->DeSerialize(stream_);
      if (stream_.RecordOverLimit()) {
        DropOversizedRecord(handle, *packet);
        delete packet;
        continue;
      }
      if (stream_.GetBytesAvailable() != 0) {
        log_.warning("[0x%08X] After receiving Message=%s, %d bytes discarded.", handle,
                     packet->GetHeader().MessageCode.ToString().c_str(),
                     stream_.GetBytesAvailable());
        stream_.skipRecord();
      }
      // Whatever is left of the record (further fragments, unread chunks of
      // a long last fragment) goes too, so that the next read starts at a
      // record boundary.
      if (!stream_.AtRecordEnd()) stream_.DiscardRecord();
      if (ret == XDR_FAILURE) {
        log_.error("[0x%08X] Error receiving message packet. Ret=%d", handle, ret);
        delete packet;
        continue;
      }
      // Any other result, NDMP errors included, is delivered on purpose.
      if (router_ != nullptr) router_->RoutePacket(*packet);
      queue_.PutMessagePacket(*packet);
    } else if (!stream_.IsConnected()) {
      break;
    }
  }
  log_.debug("[0x%08X] Message receive thread closed", handle);
  queue_.Close();
  return 0;
}

CNDMPMessageDispatchThread::CNDMPMessageDispatchThread(CNDMPMessagePacketQueue& queue,
                                                       CNDMPCallbackRegistrationTable& table,
                                                       VxLog& log)
    : VxThread(0), queue_(queue), table_(table), tableAlive_(table.Alive()), log_(log) {}

CNDMPMessageDispatchThread::~CNDMPMessageDispatchThread() {
  stop(false);
  queue_.Wake();
  waitUntilStopped(VX_INFINITE);
}

bool CNDMPMessageDispatchThread::DispatchNext() {
  CNDMPMessagePacket* packet = nullptr;
  if (queue_.GetNextPacket(packet)) {
    if (tableAlive_->load()) table_.DispatchPacket(*packet);
    delete packet;
  }
  return tableAlive_->load();
}

int CNDMPMessageDispatchThread::run() {
  log_.debug("Dispatch Thread started");
  // Once a callback has destroyed the connection, nothing the connection
  // was given (its log included) may be touched again: the thread just ends.
  while (runnable()) {
    while (runnable() && queue_.GetFilledSize() == 0 && !queue_.IsClosed()) {
      queue_.WaitForPacket(1000);
    }
    // Closed first, then empty: everything the reader put has been taken.
    if (queue_.IsClosed() && queue_.GetFilledSize() == 0) break;
    if (runnable() && queue_.GetFilledSize() != 0 && !DispatchNext()) return 0;
  }
  if (!tableAlive_->load()) return 0;
  log_.debug("Dispatch Thread closing");
  // Packets queued before the stop are still delivered, deliberately.
  while (queue_.GetFilledSize() != 0) {
    if (!DispatchNext()) return 0;
  }
  log_.debug("Dispatch Thread closed");
  if (endHandler_) endHandler_();
  return 0;
}

}  // namespace com::vx::korvane::ndmpc
