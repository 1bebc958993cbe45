#include "ndmpc/foundation/vx_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace com::vx::korvane::ndmpc {
namespace {

constexpr unsigned int kReadAheadSize = 64 * 1024;

unsigned int StatusFromErrno(int err) {
  switch (err) {
    case ECONNRESET:
      return VX_SOCKET_RESET;
    case ECONNABORTED:
    case EPIPE:
    case ESHUTDOWN:
    case ENOTCONN:
    case EBADF:
      return VX_SOCKET_ABORTED;
    default:
      return VX_SOCKET_ERROR_BASE + static_cast<unsigned int>(err);
  }
}

void SetNoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
}

VxString AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {0};
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
              sizeof(text));
  } else if (address->sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
              sizeof(text));
  }
  return text;
}

unsigned int PortOf(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
  }
  if (address->sa_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(address)->sin6_port);
  }
  return 0;
}

// Connects `fd` to `address`, giving up after `timeoutMs`. 0 on success.
unsigned int ConnectWithin(int fd, const sockaddr* address, socklen_t length,
                           int timeoutMs) {
  int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  unsigned int status = 0;
  if (::connect(fd, address, length) != 0) {
    if (errno != EINPROGRESS) {
      status = StatusFromErrno(errno);
    } else {
      pollfd p{fd, POLLOUT, 0};
      int r;
      do {
        r = poll(&p, 1, timeoutMs);
      } while (r < 0 && errno == EINTR);
      if (r == 0) {
        status = VX_SOCKET_TIMEOUT;
      } else if (r < 0) {
        status = StatusFromErrno(errno);
      } else {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) status = StatusFromErrno(err);
      }
    }
  }
  fcntl(fd, F_SETFL, flags);
  return status;
}

}  // namespace

VxSocketAddress::VxSocketAddress(const VxString& host, unsigned int port, int /*type*/)
    : host_(host), port_(port) {}

void VxSocketAddress::setResolved(const sockaddr* address, socklen_t length) {
  if (length > sizeof(resolved_)) return;
  std::memcpy(&resolved_, address, length);
  resolvedLength_ = length;
  host_ = AddressText(address);
  port_ = PortOf(address);
}

VxString VxSocketAddress::toIPAddress() const {
  if (resolvedLength_ != 0) return AddressText(reinterpret_cast<const sockaddr*>(&resolved_));
  return host_;
}

VxTcpSocket::VxTcpSocket(int /*type*/) {}

VxTcpSocket::~VxTcpSocket() {
  if (fd_ >= 0) ::close(fd_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
  if (readAhead_ != nullptr) ::munmap(readAhead_, kReadAheadSize);
}

void VxTcpSocket::interruptWait() {
  if (wakeFd_ >= 0) {
    std::uint64_t one = 1;
    ssize_t ignored = ::write(wakeFd_, &one, sizeof(one));
    (void)ignored;
  }
}

unsigned int VxTcpSocket::connect(const VxSocketAddress& address, unsigned int timeoutMs) {
  if (fd_ >= 0) return StatusFromErrno(EISCONN);
  if (address.host().empty()) return StatusFromErrno(EDESTADDRREQ);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  VxString port = std::to_string(address.port());
  if (getaddrinfo(address.host().c_str(), port.c_str(), &hints, &list) != 0 || list == nullptr) {
    return StatusFromErrno(EHOSTUNREACH);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  unsigned int status = StatusFromErrno(ECONNREFUSED);
  for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) {
      status = VX_SOCKET_TIMEOUT;
      break;
    }
    int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      status = StatusFromErrno(errno);
      continue;
    }
    status = ConnectWithin(fd, a->ai_addr, a->ai_addrlen, static_cast<int>(left));
    if (status == 0) {
      adopt(fd);
      break;
    }
    ::close(fd);
  }
  freeaddrinfo(list);
  return status;
}

void VxTcpSocket::adopt(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  if (wakeFd_ < 0) wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  SetNoDelay(fd);
  readStart_ = readEnd_ = 0;
  ended_.store(false);
  open_.store(fd >= 0);
}

int VxTcpSocket::release() {
  int fd = fd_;
  fd_ = -1;
  open_.store(false);
  ended_.store(false);
  readStart_ = readEnd_ = 0;
  return fd;
}

void VxTcpSocket::setReadTimeout(unsigned int milliseconds) {
  if (fd_ < 0) return;
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(milliseconds / 1000);
  tv.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

unsigned int VxTcpSocket::FillReadAhead() {
  if (readAhead_ == nullptr) {
    void* mapped = ::mmap(nullptr, kReadAheadSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return StatusFromErrno(errno);
    readAhead_ = static_cast<unsigned char*>(mapped);
  }
  for (;;) {
    ssize_t n = ::recv(fd_, readAhead_, kReadAheadSize, 0);
    if (n > 0) {
      readStart_ = 0;
      readEnd_ = static_cast<unsigned int>(n);
      return 0;
    }
    if (n == 0) {
      ended_.store(true);
      return VX_SOCKET_END_OF_DATA;
    }
    if (errno == EINTR) continue;
    if (!open_.load()) return VX_SOCKET_ABORTED;
    return StatusFromErrno(errno);
  }
}

unsigned int VxTcpSocket::read(void* buffer, unsigned int length, unsigned int* transferred) {
  unsigned int done = 0;
  unsigned int status = 0;
  auto* out = static_cast<unsigned char*>(buffer);
  if (fd_ < 0) status = VX_SOCKET_ABORTED;
  while (status == 0 && done < length) {
    if (readStart_ < readEnd_) {
      unsigned int n = std::min(length - done, readEnd_ - readStart_);
      std::memcpy(out + done, readAhead_ + readStart_, n);
      readStart_ += n;
      done += n;
      continue;
    }
    if (length - done >= kReadAheadSize) {
      // Large reads go straight into the caller's buffer.
      ssize_t n = ::recv(fd_, out + done, length - done, 0);
      if (n > 0) {
        done += static_cast<unsigned int>(n);
      } else if (n == 0) {
        ended_.store(true);
        status = VX_SOCKET_END_OF_DATA;
      } else if (errno != EINTR) {
        status = open_.load() ? StatusFromErrno(errno) : VX_SOCKET_ABORTED;
      }
      continue;
    }
    status = FillReadAhead();
  }
  if (transferred != nullptr) *transferred = done;
  return status;
}

unsigned int VxTcpSocket::write(const void* buffer, unsigned int length,
                                unsigned int* transferred, bool more) {
  unsigned int done = 0;
  unsigned int status = 0;
  const auto* in = static_cast<const unsigned char*>(buffer);
  if (fd_ < 0 || !open_.load()) status = VX_SOCKET_ABORTED;
  int flags = MSG_NOSIGNAL | (more ? MSG_MORE : 0);
  while (status == 0 && done < length) {
    ssize_t n = ::send(fd_, in + done, length - done, flags);
    if (n > 0) {
      done += static_cast<unsigned int>(n);
    } else if (n < 0 && errno != EINTR) {
      status = StatusFromErrno(errno);
    }
  }
  if (transferred != nullptr) *transferred = done;
  return status;
}

unsigned int VxTcpSocket::waitForInput(unsigned int milliseconds) {
  if (readStart_ < readEnd_) return 0;
  if (fd_ < 0 || !open_.load()) return VX_SOCKET_ABORTED;
  if (ended_.load()) return 0;  // the end of data is ready to be read
  pollfd p[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
  int timeout = milliseconds == 0xFFFFFFFFu ? -1 : static_cast<int>(std::min(milliseconds, 0x7FFFFFFFu));
  for (;;) {
    int r = poll(p, wakeFd_ >= 0 ? 2 : 1, timeout);
    if (r > 0 && (p[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      return open_.load() ? 0 : VX_SOCKET_ABORTED;
    }
    if (r > 0) return VX_SOCKET_TIMEOUT;  // interrupted; the event stays set
    if (r == 0) return VX_SOCKET_TIMEOUT;
    if (errno != EINTR) return StatusFromErrno(errno);
  }
}

bool VxTcpSocket::isConnected() const { return open_.load() && !ended_.load(); }

void VxTcpSocket::close() {
  if (open_.exchange(false) && fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

VxSocketAddress VxTcpSocket::getRemoteAddress() const {
  VxSocketAddress result;
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (fd_ >= 0 && getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    result.setResolved(reinterpret_cast<sockaddr*>(&address), length);
  }
  return result;
}

VxSocketAddress VxTcpSocket::getLocalAddress() const {
  VxSocketAddress result;
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (fd_ >= 0 && getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    result.setResolved(reinterpret_cast<sockaddr*>(&address), length);
  }
  return result;
}

VxTcpListener::~VxTcpListener() {
  close();
}

unsigned int VxTcpListener::listen(const VxString& host, unsigned int port, int backlog) {
  if (fd_.load() >= 0) return StatusFromErrno(EISCONN);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  VxString portText = std::to_string(port);
  if (getaddrinfo(host.empty() ? nullptr : host.c_str(), portText.c_str(), &hints, &list) != 0 ||
      list == nullptr) {
    return StatusFromErrno(EADDRNOTAVAIL);
  }
  unsigned int status = StatusFromErrno(EADDRNOTAVAIL);
  for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
    int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, backlog) == 0) {
      sockaddr_storage bound{};
      socklen_t length = sizeof(bound);
      getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
      port_ = PortOf(reinterpret_cast<sockaddr*>(&bound));
      fd_.store(fd);
      status = 0;
      break;
    }
    status = StatusFromErrno(errno);
    ::close(fd);
  }
  freeaddrinfo(list);
  return status;
}

unsigned int VxTcpListener::accept(VxTcpSocket& socket, unsigned int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int fd = fd_.load();
    if (fd < 0) return VX_SOCKET_ABORTED;
    // Short steps, so that close() from another thread ends the wait.
    int step = 100;
    bool lastLook = false;
    if (timeoutMs != 0xFFFFFFFFu) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now())
                      .count();
      // Once the time is up, one look without waiting still takes a
      // connection that is already pending (so a zero timeout polls).
      lastLook = left <= 0;
      step = lastLook ? 0 : static_cast<int>(std::min<long long>(left, step));
    }
    pollfd p{fd, POLLIN, 0};
    int r = poll(&p, 1, step);
    if (r < 0 && errno != EINTR) return StatusFromErrno(errno);
    if (r <= 0) {
      if (lastLook) return VX_SOCKET_TIMEOUT;
      continue;
    }
    int client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) {
      socket.adopt(client);
      return 0;
    }
    if (errno == EMFILE || errno == ENFILE) {
      poll(nullptr, 0, 50);  // out of descriptors: let some close before trying again
    } else if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
      return StatusFromErrno(errno);
    }
  }
}

void VxTcpListener::close() {
  int fd = fd_.exchange(-1);
  if (fd >= 0) {
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
  }
}

}  // namespace com::vx::korvane::ndmpc
