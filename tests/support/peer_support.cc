#include "tests/support/peer_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "ndmpc/ndmp/messages/connect_config_messages.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

std::uint32_t Word(const unsigned char* at) {
  return (static_cast<std::uint32_t>(at[0]) << 24) | (static_cast<std::uint32_t>(at[1]) << 16) |
         (static_cast<std::uint32_t>(at[2]) << 8) | at[3];
}

void Append(std::vector<unsigned char>& to, const std::vector<unsigned char>& bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

bool SendAll(int fd, const unsigned char* data, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    ssize_t n = ::send(fd, data + done, length - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::vector<unsigned char> XdrU32(std::uint32_t value) {
  return {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
          static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}

std::vector<unsigned char> XdrString(const std::string& text) {
  std::vector<unsigned char> bytes = XdrU32(static_cast<std::uint32_t>(text.size()));
  bytes.insert(bytes.end(), text.begin(), text.end());
  while (bytes.size() % 4 != 0) bytes.push_back(0);
  return bytes;
}

std::vector<unsigned char> HeaderBytes(const CRawHeader& h) {
  return Concat({XdrU32(h.sequence), XdrU32(h.timeStamp), XdrU32(h.type), XdrU32(h.code),
                 XdrU32(h.replySequence), XdrU32(h.error)});
}

std::vector<unsigned char> ReplyRecord(const CRawHeader& request,
                                       const std::vector<unsigned char>& body,
                                       std::uint32_t error, const std::uint32_t* replySequence) {
  CRawHeader reply;
  reply.sequence = request.sequence + 1000;
  reply.timeStamp = 0x5F000000u;
  reply.type = 1;
  reply.code = request.code;
  reply.replySequence = replySequence != nullptr ? *replySequence : request.sequence;
  reply.error = error;
  return MakeRecord(Concat({HeaderBytes(reply), body}));
}

std::vector<unsigned char> PostRecord(std::uint32_t code, const std::vector<unsigned char>& body,
                                      std::uint32_t sequence) {
  CRawHeader post;
  post.sequence = sequence;
  post.timeStamp = 0x5F000000u;
  post.code = code;
  return MakeRecord(Concat({HeaderBytes(post), body}));
}

std::string HandleTag(const void* object) {
  char text[16];
  std::snprintf(text, sizeof(text), "[0x%08X]",
                static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(object)));
  return text;
}

std::uint32_t AnswerOpen(CScriptPeer& peer, std::uint32_t error) {
  CRawRecord open = peer.ReadRecord();
  if (!open.complete || open.header.code != 0x900 || open.body.size() != 4) return 0;
  peer.Write(ReplyRecord(open.header, XdrU32(error)));
  return Word(open.body.data());
}

unsigned int CPacketRecorder::HandleMessagePacket(CNDMPMessagePacket& packet) {
  auto copy = std::make_shared<CNDMPMessagePacket>(packet);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    packets_.push_back(copy);
    versions_.push_back(packet.GetProtocolVersion().getInt32());
  }
  added_.notify_all();
  return 0;
}

std::size_t CPacketRecorder::WaitFor(std::size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  added_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                  [&] { return packets_.size() >= count; });
  return packets_.size();
}

std::size_t CPacketRecorder::Count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return packets_.size();
}

std::shared_ptr<CNDMPMessagePacket> CPacketRecorder::Packet(std::size_t i) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return packets_.at(i);
}

std::uint32_t CPacketRecorder::Version(std::size_t i) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return versions_.at(i);
}

// ---------------------------------------------------------------------------

std::vector<unsigned char> HostInfoBody(const std::string& host) {
  return Concat({XdrU32(0), XdrString(host), XdrString("KorOS"), XdrString("7.1"),
                 XdrString("0042")});
}

bool IsHostInfoRequest(const CRawRecord& r) {
  return r.complete && r.header.code == enums::CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO &&
         r.header.type == 0;
}

void ServeHostInfo(CScriptPeer& peer, bool alternate) {
  if (alternate) {
    peer.ReadBytes(8);
    peer.Write(Bytes({0, 0, 0x53, 0, 0, 0, 0, 0}));
  } else {
    AnswerOpen(peer);
  }
  for (CRawRecord r = peer.ReadRecord(); r.complete; r = peer.ReadRecord()) {
    peer.Write(ReplyRecord(r.header, HostInfoBody()));
  }
}

std::string AskHost(CNDMPConnection& c, unsigned int timeout) {
  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<enums::CNDMPError> result = c.SendMessage(request, &reply, timeout);
  if (result != enums::CNDMPError::NDMP_NO_ERR) return result.ToString();
  auto* host = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
  std::string name = host != nullptr ? host->hostname.GetString() : "(no body)";
  c.FreeMessage(reply);
  return name;
}

CScriptPeer::CScriptPeer() {
  if (listener_.listen("127.0.0.1", 0) == 0) port_ = listener_.port();
}

CScriptPeer::~CScriptPeer() {
  stopping_.store(true);
  listener_.close();
  int fd = fd_.load();
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  fd = fd_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

void CScriptPeer::Run(Script script) {
  thread_ = std::thread([this, script = std::move(script)] {
    VxTcpSocket accepted;
    if (listener_.accept(accepted, kWaitMs) == 0) {
      fd_.store(accepted.release());
      if (!stopping_.load()) script(*this);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    changed_.notify_all();
  });
}

bool CScriptPeer::Join(int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return finished_; });
}

std::vector<unsigned char> CScriptPeer::ReadBytes(std::size_t count, int timeoutMs) {
  std::vector<unsigned char> out(count);
  std::size_t done = 0;
  const int fd = fd_.load();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (fd >= 0 && done < count) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    ssize_t n = ::recv(fd, out.data() + done, count - done, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  out.resize(done);
  return out;
}

CRawRecord CScriptPeer::ReadRecord(int timeoutMs) {
  CRawRecord record;
  std::vector<unsigned char> payload;
  for (;;) {
    std::vector<unsigned char> mark = ReadBytes(4, timeoutMs);
    if (mark.size() != 4) return record;
    std::uint32_t word = Word(mark.data());
    std::size_t length = word & 0x7FFFFFFFu;
    std::vector<unsigned char> data = ReadBytes(length, timeoutMs);
    Append(payload, data);
    if (data.size() != length) return record;
    if ((word & 0x80000000u) != 0) break;
  }
  record.complete = true;
  if (payload.size() >= 24) {
    const unsigned char* h = payload.data();
    record.header = CRawHeader{Word(h), Word(h + 4), Word(h + 8), Word(h + 12), Word(h + 16),
                               Word(h + 20)};
    record.body.assign(payload.begin() + 24, payload.end());
  } else {
    record.body = payload;
  }
  return record;
}

std::vector<unsigned char> CScriptPeer::ReadUntilClosed(int timeoutMs) {
  std::vector<unsigned char> all;
  for (;;) {
    std::vector<unsigned char> piece = ReadBytes(1, timeoutMs);
    if (piece.empty()) return all;
    Append(all, piece);
  }
}

bool CScriptPeer::Write(const std::vector<unsigned char>& bytes) {
  const int fd = fd_.load();
  return fd >= 0 && SendAll(fd, bytes.data(), bytes.size());
}

void CScriptPeer::Close() {
  const int fd = fd_.load();
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

void CScriptPeer::Reset() {
  const int fd = fd_.exchange(-1);
  if (fd < 0) return;
  linger abort{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
  ::close(fd);
}

}  // namespace com::vx::korvane::ndmpc::testing
