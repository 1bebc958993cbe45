// TCP sockets of the foundation layer.
//
//   VxTcpSocket s;
//   if (s.connect(VxSocketAddress("filer1", 10000), 10000) == 0) {
//     unsigned got = 0;
//     s.write("abcd", 4, &got);
//   }
//
// read and write move the whole length or report why not: they return 0 on
// success, VX_SOCKET_END_OF_DATA when the peer closed the connection,
// VX_SOCKET_RESET (10054) when it reset it, VX_SOCKET_ABORTED (10053) when the
// connection was aborted or closed here, and another non-zero code (0xC1002000
// plus errno) for other failures; `transferred` tells how much was moved.
//
// One thread may read while another writes. Reads are served from a
// read-ahead buffer so that the many small reads of a record stream cost few
// system calls. Every socket has TCP_NODELAY set, so a short write is sent at
// once instead of waiting for the peer's delayed acknowledgement.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "ndmpc/foundation/vx_string.h"

namespace com::vx::korvane::ndmpc {

constexpr unsigned int VX_SOCKET_END_OF_DATA = 0xC100100Du;
constexpr unsigned int VX_SOCKET_ABORTED = 10053u;
constexpr unsigned int VX_SOCKET_RESET = 10054u;
constexpr unsigned int VX_SOCKET_TIMEOUT = 0xC1001000u;
constexpr unsigned int VX_SOCKET_ERROR_BASE = 0xC1002000u;

// A host (name or numeric IPv4/IPv6 text) and a port; or, once taken from a
// connected socket, a resolved address.
class VxSocketAddress {
 public:
  VxSocketAddress() = default;
  // `type` 1 is TCP over IPv4 or IPv6, the only kind there is.
  VxSocketAddress(const VxString& host, unsigned int port, int type = 1);

  const VxString& host() const { return host_; }
  unsigned int port() const { return port_; }
  // The numeric address text ("192.0.2.7", "::1"); the host text when the
  // address has not been resolved.
  VxString toIPAddress() const;

  void setResolved(const sockaddr* address, socklen_t length);

 private:
  VxString host_;
  unsigned int port_ = 0;
  sockaddr_storage resolved_{};
  socklen_t resolvedLength_ = 0;
};

class VxTcpSocket {
 public:
  explicit VxTcpSocket(int type = 1);
  VxTcpSocket(const VxTcpSocket&) = delete;
  VxTcpSocket& operator=(const VxTcpSocket&) = delete;
  ~VxTcpSocket();

  // Connects to the first address of `address` that accepts within
  // `timeoutMs` in all. 0 on success.
  unsigned int connect(const VxSocketAddress& address, unsigned int timeoutMs = 15000);
  // Takes over an already connected descriptor (from accept()).
  void adopt(int fd);
  // Gives the descriptor up (the caller owns it now); -1 when there is none.
  int release();
  // Makes a read that waits longer than `milliseconds` for more data fail
  // (0: wait without limit, the default).
  void setReadTimeout(unsigned int milliseconds);

  unsigned int read(void* buffer, unsigned int length, unsigned int* transferred);
  // `more` hints that further data follows at once (the kernel may hold
  // this write back until then, to send both in one segment).
  unsigned int write(const void* buffer, unsigned int length, unsigned int* transferred,
                     bool more = false);
  // 0 when data or the end of the stream can be read without waiting,
  // VX_SOCKET_TIMEOUT after `milliseconds`, another code on failure.
  unsigned int waitForInput(unsigned int milliseconds);

  // Ends a waitForInput in progress, and every later one, at once with
  // VX_SOCKET_TIMEOUT, so that a reading thread that is being stopped sees its
  // stop flag without waiting out its poll. Any thread may call it.
  void interruptWait();

  // True from connect/adopt until close() or the end of the connection.
  bool isConnected() const;
  // Shuts the connection down in both directions and wakes a blocked reader;
  // the descriptor itself is released by the destructor, so a thread still
  // inside read or write never touches a reused descriptor.
  void close();

  VxSocketAddress getRemoteAddress() const;
  VxSocketAddress getLocalAddress() const;
  int descriptor() const { return fd_; }

 private:
  unsigned int FillReadAhead();

  int fd_ = -1;
  int wakeFd_ = -1;  // eventfd that interruptWait signals
  std::atomic<bool> open_{false};
  std::atomic<bool> ended_{false};
  // Read-ahead buffer, touched only by the reading thread. A mapping of its
  // own, not a heap block: it lives as long as the socket but is made on the
  // (often short-lived) reading thread, and such blocks left in the heap
  // arenas of ended threads fragment them, so that resident memory kept
  // rising with every reconnect. A mapping goes back whole when the socket
  // is destroyed, and only the pages actually read into become resident.
  unsigned char* readAhead_ = nullptr;
  unsigned int readStart_ = 0;
  unsigned int readEnd_ = 0;
};

// A listening socket for the serving side and for tests.
class VxTcpListener {
 public:
  VxTcpListener() = default;
  VxTcpListener(const VxTcpListener&) = delete;
  VxTcpListener& operator=(const VxTcpListener&) = delete;
  ~VxTcpListener();

  // Listens on `host` ("127.0.0.1", "::", "0.0.0.0", ...) and `port`
  // (0 picks a free one). 0 on success.
  unsigned int listen(const VxString& host, unsigned int port, int backlog = 128);
  unsigned int port() const { return port_; }
  // Waits up to `timeoutMs` (VX_INFINITE: no limit) for a connection and
  // hands it to `socket`. 0 on success, VX_SOCKET_TIMEOUT when none came.
  unsigned int accept(VxTcpSocket& socket, unsigned int timeoutMs);
  void close();

 private:
  std::atomic<int> fd_{-1};
  unsigned int port_ = 0;
};

}  // namespace com::vx::korvane::ndmpc
