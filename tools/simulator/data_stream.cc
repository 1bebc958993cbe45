#include "tools/simulator/data_stream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ndmpc/ndmp/messages/data_mover_messages.h"

namespace com::vx::korvane::ndmpc::tools {

namespace {

constexpr int kPollMs = 100;
constexpr int kConnectTimeoutMs = 5000;

void CloseFd(std::atomic<int>& fd) {
  int old = fd.exchange(-1);
  if (old >= 0) ::close(old);
}

std::string Why(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

bool CSimDataStream::ListenTcp(const std::string& address, std::uint32_t* ip, std::uint16_t* port,
                               std::string* error) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Why("socket");
    return false;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (::inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) addr.sin_addr.s_addr = INADDR_ANY;
  socklen_t size = sizeof(addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd, 1) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size) != 0) {
    *error = Why("listen");
    ::close(fd);
    return false;
  }
  *ip = ntohl(addr.sin_addr.s_addr);
  *port = ntohs(addr.sin_port);
  listenFd_ = fd;
  return true;
}

bool CSimDataStream::ListenLocal(std::string* error) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    *error = Why("socketpair");
    return false;
  }
  fd_ = pair[0];
  peerFd_ = pair[1];
  return true;
}

int CSimDataStream::TakeLocalPeer() { return peerFd_.exchange(-1); }

void CSimDataStream::Adopt(int fd) { fd_ = fd; }

bool CSimDataStream::ConnectTcp(std::uint32_t ip, std::uint16_t port, std::string* error) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    *error = Why("socket");
    return false;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(ip);
  addr.sin_port = htons(port);
  int result = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  if (result != 0 && errno == EINPROGRESS) {
    pollfd p{fd, POLLOUT, 0};
    int soError = ETIMEDOUT;
    socklen_t length = sizeof(soError);
    if (::poll(&p, 1, kConnectTimeoutMs) == 1) {
      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &length);
    }
    errno = soError;
    result = soError == 0 ? 0 : -1;
  }
  if (result != 0) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &addr.sin_addr, text, sizeof(text));
    *error = Why(("connect to " + std::string(text) + ":" + std::to_string(port)).c_str());
    ::close(fd);
    return false;
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  fd_ = fd;
  return true;
}

bool CSimDataStream::WaitConnected(const std::atomic<bool>& abort) {
  while (fd_.load() < 0) {
    const int listenFd = listenFd_.load();
    if (listenFd < 0 || abort || shut_) return false;
    pollfd p{listenFd, POLLIN, 0};
    if (::poll(&p, 1, kPollMs) <= 0) continue;
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    fd_ = fd;
    CloseFd(listenFd_);
    if (shut_) ::shutdown(fd, SHUT_RDWR);
  }
  return !abort && !shut_;
}

long CSimDataStream::Read(void* buffer, std::size_t length) {
  const int fd = fd_.load();
  if (fd < 0) return -1;
  for (;;) {
    long n = ::recv(fd, buffer, length, 0);
    if (n >= 0 || errno != EINTR) return shut_ ? -1 : n;
  }
}

bool CSimDataStream::WriteAll(const void* data, std::size_t length) {
  const int fd = fd_.load();
  const char* bytes = static_cast<const char*>(data);
  while (length > 0 && fd >= 0 && !shut_) {
    long n = ::send(fd, bytes, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    length -= static_cast<std::size_t>(n);
  }
  return length == 0 && !shut_;
}

bool CSimDataStream::PeerClosed(int waitMs) {
  const int fd = fd_.load();
  if (fd < 0 || shut_) return true;
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, waitMs) <= 0) return false;
  char scratch[4096];
  long n = ::recv(fd, scratch, sizeof(scratch), MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
}

void CSimDataStream::Shutdown() {
  std::lock_guard<std::mutex> lock(mutex_);
  shut_ = true;
  const int fd = fd_.load();
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

void CSimDataStream::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  CloseFd(fd_);
  CloseFd(listenFd_);
  CloseFd(peerFd_);
}

void FillAddress(CNDMPAddr& address, bool tcp, std::uint32_t ip, std::uint16_t port) {
  address.AddressType =
      tcp ? enums::CNDMPEnumAddrType::NDMP_ADDR_TCP : enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL;
  if (!tcp) return;
  address.TcpAddress.IPAddress = ip;
  address.TcpAddress.Port = port;
  CNDMPTcpAddr& entry = address.TcpAddressList.AppendNew();
  entry.IPAddress = ip;
  entry.Port = port;
}

unsigned int ListenEndpoint(unsigned int addressType, const std::string& host,
                            CSimEndpoint* endpoint, CNDMPAddr* where, std::string* why) {
  using enums::CNDMPError;
  const bool tcp = addressType == enums::CNDMPEnumAddrType::NDMP_ADDR_TCP;
  if (!tcp && addressType != enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL) {
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  endpoint->stream = std::make_unique<CSimDataStream>();
  endpoint->tcp = tcp;
  if (tcp ? !endpoint->stream->ListenTcp(host, &endpoint->ip, &endpoint->port, why)
          : !endpoint->stream->ListenLocal(why)) {
    return CNDMPError::NDMP_IO_ERR;
  }
  FillAddress(*where, tcp, endpoint->ip, endpoint->port);
  return CNDMPError::NDMP_NO_ERR;
}

unsigned int ConnectEndpoint(const CNDMPAddr& address, const std::function<int()>& takeLocal,
                             CSimEndpoint* endpoint, std::string* why) {
  using enums::CNDMPError;
  endpoint->stream = std::make_unique<CSimDataStream>();
  if (address.AddressType == enums::CNDMPEnumAddrType::NDMP_ADDR_TCP) {
    const CNDMPTcpAddr& tcp =
        address.TcpAddressList.size() != 0 ? address.TcpAddressList[0] : address.TcpAddress;
    endpoint->tcp = true;
    endpoint->ip = tcp.IPAddress.getInt32();
    endpoint->port = static_cast<std::uint16_t>(tcp.Port.getInt32());
    return endpoint->stream->ConnectTcp(endpoint->ip, endpoint->port, why)
               ? CNDMPError::NDMP_NO_ERR
               : CNDMPError::NDMP_CONNECT_ERR;
  }
  if (address.AddressType != enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL) {
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  const int fd = takeLocal();
  if (fd < 0) {
    *why = "the peer agent does not listen locally";
    return CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  }
  endpoint->stream->Adopt(fd);
  return CNDMPError::NDMP_NO_ERR;
}

}  // namespace com::vx::korvane::ndmpc::tools
