// CSimDataStream: one end of the data connection between a data agent and a
// mover of the simulated server. It listens (TCP, or LOCAL: a socket pair
// whose other end waits for the agent of the same session), connects out
// over TCP, and moves bytes. Reads and writes block; Shutdown from another
// thread wakes them, which is how an abort stops a worker thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace com::vx::korvane::ndmpc {
class CNDMPAddr;
}

namespace com::vx::korvane::ndmpc::tools {

class CSimDataStream {
 public:
  CSimDataStream() = default;
  CSimDataStream(const CSimDataStream&) = delete;
  CSimDataStream& operator=(const CSimDataStream&) = delete;
  ~CSimDataStream() { Close(); }

  // Listens on `address` and a free port; `*ip` (host order) and `*port` say where.
  bool ListenTcp(const std::string& address, std::uint32_t* ip, std::uint16_t* port,
                 std::string* error);
  // Creates a socket pair: this end is kept, the other waits for TakeLocalPeer.
  bool ListenLocal(std::string* error);
  // Hands the waiting end of a local listen to the connecting agent; -1 when
  // there is none (not listening locally, or already taken).
  int TakeLocalPeer();
  // Makes `fd` (an end taken from a local listen) this stream's connection.
  void Adopt(int fd);
  bool ConnectTcp(std::uint32_t ip, std::uint16_t port, std::string* error);
  // Until the peer is connected: accepts a TCP peer; a local or connected
  // stream is ready at once. False when aborted or the accept failed.
  bool WaitConnected(const std::atomic<bool>& abort);
  bool Listening() const { return listenFd_.load() >= 0 || peerFd_.load() >= 0; }
  bool LocalListen() const { return peerFd_.load() >= 0; }

  // >0 bytes read, 0 the peer closed, <0 an error or a shutdown.
  long Read(void* buffer, std::size_t length);
  bool WriteAll(const void* data, std::size_t length);
  // True when the peer closed its end (or the connection broke); bytes
  // the peer sent meanwhile are discarded. Waits at most `waitMs`.
  bool PeerClosed(int waitMs);
  // Any thread: wakes blocked reads, writes and accepts for good.
  void Shutdown();
  void Close();

 private:
  std::mutex mutex_;  // guards closing against Shutdown
  std::atomic<int> fd_{-1};
  std::atomic<int> listenFd_{-1};
  std::atomic<int> peerFd_{-1};
  std::atomic<bool> shut_{false};
};

// An agent's data connection and the TCP address it listens on or went to.
struct CSimEndpoint {
  std::unique_ptr<CSimDataStream> stream;
  bool tcp = false;
  std::uint32_t ip = 0;
  std::uint16_t port = 0;
};

// A data connection address in both layouts (version 3: one TCP address,
// version 4: a list); LOCAL when not `tcp`.
void FillAddress(CNDMPAddr& address, bool tcp, std::uint32_t ip, std::uint16_t port);
// Listens on a new stream, TCP on `host` or LOCAL, and fills `*where`. The
// NDMP error; `*why` says more on failure.
unsigned int ListenEndpoint(unsigned int addressType, const std::string& host,
                            CSimEndpoint* endpoint, CNDMPAddr* where, std::string* why);
// Connects a new stream to `address`: out over TCP, or LOCAL to the end that
// `takeLocal` hands over (-1: nobody listens locally). The NDMP error.
unsigned int ConnectEndpoint(const CNDMPAddr& address, const std::function<int()>& takeLocal,
                             CSimEndpoint* endpoint, std::string* why);

}  // namespace com::vx::korvane::ndmpc::tools
