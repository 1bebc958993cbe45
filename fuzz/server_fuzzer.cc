// Fuzz target: a simulated-server session serving an arbitrary client.
// Byte 0 picks the server's configuration: bits 0-1 the versions offered
// (3 and 4, 3 only, 4 only, 3 and 4), bit 2 MD5 and text authentication
// instead of none. The rest is what the client sends, record marks
// included. The client writes it all and closes its sending side while it
// drains the replies; the session serves the other end until it sees the
// end of the input, so every run ends on its own.
#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "fuzz/fuzz_support.h"
#include "ndmpc/foundation/vx_socket.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/sim_session.h"

namespace ndmpc = com::vx::korvane::ndmpc;

namespace {

// One tape directory for the process, emptied after every run so that no
// run sees the tapes of another.
const std::string& TapeDir() {
  static const std::string dir = [] {
    char name[] = "/tmp/ndmpc_fuzz_server_XXXXXX";
    if (::mkdtemp(name) == nullptr) __builtin_trap();
    return std::string(name);
  }();
  return dir;
}

void EmptyTapeDir() {
  DIR* dir = ::opendir(TapeDir().c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") ::unlink((TapeDir() + "/" + name).c_str());
  }
  ::closedir(dir);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  ndmpc::tools::CSimServerConfig config;
  config.port = 0;
  config.tapeDir = TapeDir();
  config.user = "ndmp";
  config.password = "secret";
  config.tapeCapacity = 1 << 20;
  if ((data[0] & 3) == 1) config.versions = {3};
  if ((data[0] & 3) == 2) config.versions = {4};
  if ((data[0] & 4) != 0) {
    config.authNone = false;
    config.authText = true;
    config.authMD5 = true;
  }

  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) __builtin_trap();
  const int client = fds[0];
  std::thread writer([client, input = data + 1, left = size - 1]() mutable {
    while (left > 0) {
      ssize_t n = ::send(client, input, left, MSG_NOSIGNAL);
      if (n <= 0) break;  // the session is gone
      input += n;
      left -= static_cast<std::size_t>(n);
    }
    ::shutdown(client, SHUT_WR);
  });
  std::thread drain([client] {
    std::uint8_t sink[65536];
    while (::read(client, sink, sizeof(sink)) > 0) {
    }
  });
  {
    ndmpc::tools::CNDMPSimServer server(config, ndmpc::fuzz::QuietLog());
    auto socket = std::make_unique<ndmpc::VxTcpSocket>();
    socket->adopt(fds[1]);
    ndmpc::tools::CSimSession session(server, std::move(socket), 1);
    session.Run();
  }
  writer.join();
  drain.join();
  ::close(client);
  EmptyTapeDir();
  return 0;
}
