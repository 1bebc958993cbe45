// Uses the installed library through the umbrella header only.
#include <ndmpc/ndmpc.h>

#include <cstdio>

namespace nd = com::vx::korvane::ndmpc;

int main() {
  nd::VxLog log;
  nd::CNDMPConnection connection("localhost", "127.0.0.1", log, 1);
  nd::CNDMPConfigGetHostInfoRequest request;
  std::printf("%s %s\n", nd::enums::CNDMPError::ToString(nd::enums::CNDMPError::NDMP_NO_ERR).c_str(),
              request.DumpContents(0).empty() ? "empty" : "fields");
  return connection.IsConnected() ? 1 : 0;
}
