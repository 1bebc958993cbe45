// The alternate login: a fixed 8-byte handshake instead of
// NDMP_CONNECT_OPEN, then one 688-byte login record whose credential fields
// are protected by a routine the application supplies.
#include <arpa/inet.h>

#include <cstring>

#include "ndmpc/ndmp/connection/connection.h"

namespace com::vx::korvane::ndmpc {

using enums::CNDMPError;

namespace {

constexpr unsigned int kHandshakeSize = 8;
constexpr unsigned int kAnswerWaitMs = 30000;
constexpr unsigned int kAnswerBodyLimit = 224;
constexpr unsigned int kLoginSize = 688;
constexpr unsigned int kFirstField = 184, kFirstWidth = 48;
constexpr unsigned int kSecondField = 232, kSecondWidth = 24;
constexpr unsigned int kThirdField = 264, kThirdWidth = 52;

void PutNet16(unsigned char* at, std::uint16_t value) {
  std::uint16_t net = htons(value);
  std::memcpy(at, &net, sizeof(net));
}

void PutNet32(unsigned char* at, std::uint32_t value) {
  std::uint32_t net = htonl(value);
  std::memcpy(at, &net, sizeof(net));
}

// Host byte order, not converted: these two fields deliberately travel so.
void PutHost16(unsigned char* at, std::uint16_t value) { std::memcpy(at, &value, sizeof(value)); }

void CopyField(unsigned char* at, unsigned int width, const char* text) {
  if (text == nullptr) return;
  std::size_t n = std::strlen(text);
  std::memcpy(at, text, n < width ? n : width);  // not terminated when it fills the field
}

}  // namespace

unsigned int CNDMPConnection::PAGInitializeConnection(VxTcpSocket* socket) {
  unsigned int r = OpenSocket(socket);
  if (r != 0) return r;
  unsigned char handshake[kHandshakeSize] = {0, 0, 0x53, 0, 0, 0, 0, 0};
  unsigned int moved = 0;
  // Results of the handshake are not checked: a refused login shows itself
  // later, when requests get no reply.
  socket_->write(handshake, kHandshakeSize, &moved);
  // The answers are read with a time limit, so that a peer stalling halfway
  // through one cannot hold the caller for ever.
  socket_->setReadTimeout(kAnswerWaitMs);
  unsigned char answer[kHandshakeSize] = {0};
  if (socket_->waitForInput(kAnswerWaitMs) == 0 &&
      socket_->read(answer, kHandshakeSize, &moved) == 0 && moved == kHandshakeSize) {
    // The whole announced body is read and dropped, through the buffer,
    // so that the login answer and the records after it start in place.
    unsigned int length = (static_cast<unsigned int>(answer[6]) << 8) | answer[7];
    unsigned char body[kAnswerBodyLimit];
    while (length != 0 && socket_->waitForInput(kAnswerWaitMs) == 0) {
      moved = 0;
      unsigned int status =
          socket_->read(body, length < kAnswerBodyLimit ? length : kAnswerBodyLimit, &moved);
      length -= moved;
      if (status != 0 || moved == 0) break;
    }
  }
  socket_->setReadTimeout(0);
  return 0;
}

CXDREnumBase<CNDMPError> CNDMPConnection::PAGConnect() {
  Disconnect();
  // Sends of other threads wait until the handshake is done.
  VxGuard sending(sendMutex_);
  if (PAGInitializeConnection(nullptr) != 0) {
    log_.error("[0x%08X] Failed to establish connection", Handle());
    return CNDMPError::NDMP_CONNECT_ERR;
  }
  connected_ = true;
  authenticated_ = false;
  alternateMode_ = true;
  return CNDMPError::NDMP_NO_ERR;
}

CXDREnumBase<CNDMPError> CNDMPConnection::PAGAuthenticate(const char* first, const char* second,
                                                          const char* third) {
  if (!alternateMode_) return CNDMPError::NDMP_NO_ERR;
  CNDMPCredentialProtector protect = CurrentProtector();
  if (!protect) {
    // Credentials are never sent unprotected.
    log_.error("[0x%08X] No credential protection routine is set; alternate login not sent",
               Handle());
    return CNDMPError::NDMP_NOT_AUTHORIZED_ERR;
  }
  unsigned char login[kLoginSize];
  std::memset(login, 0, sizeof(login));
  PutNet16(login + 4, 800);
  PutHost16(login + 6, 680);
  CopyField(login + kFirstField, kFirstWidth, first);
  CopyField(login + kSecondField, kSecondWidth, second);
  if (!protect(login + kFirstField, kFirstWidth) || !protect(login + kSecondField, kSecondWidth)) {
    log_.error("[0x%08X] Credential protection failed; alternate login not sent", Handle());
    return CNDMPError::NDMP_NOT_AUTHORIZED_ERR;
  }
  PutHost16(login + 256, 260);
  login[259] = 14;
  PutNet32(login + 260, 1);
  if (third != nullptr && std::strlen(third) < kThirdWidth) {
    std::memcpy(login + kThirdField, third, std::strlen(third) + 1);
  }
  PutNet32(login + 428, 1);
  login[686] = 23;

  unsigned int moved = 0;
  if (socket_ != nullptr) {
    socket_->write(login, kLoginSize, &moved);
    unsigned char answer[kHandshakeSize];
    socket_->setReadTimeout(kAnswerWaitMs);
    if (socket_->waitForInput(kAnswerWaitMs) == 0) socket_->read(answer, kHandshakeSize, &moved);
    socket_->setReadTimeout(0);
    StartThreads();
  }
  VxThread::sleep(600);
  alternateMode_ = false;
  return CNDMPError::NDMP_NO_ERR;
}

}  // namespace com::vx::korvane::ndmpc
