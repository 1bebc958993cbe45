// CSimConfigAgent: the NDMP_CONFIG_* queries of one session of the simulated
// server (all but the authentication attributes, which belong to the
// session's authentication). With a data root configured, the file systems
// are the directories at the top of it, with their real figures.
#pragma once

#include "tools/simulator/sim_request.h"

namespace com::vx::korvane::ndmpc::tools {

class CSimConfigAgent {
 public:
  explicit CSimConfigAgent(CSimAgentContext& context) : context_(context) {}

  void ConfigGetServerInfo(CSimRequest& request);
  void ConfigGetHostInfo(CSimRequest& request);
  void ConfigGetConnectionType(CSimRequest& request);
  void ConfigGetButypeInfo(CSimRequest& request);
  void ConfigGetFsInfo(CSimRequest& request);
  void ConfigGetTapeInfo(CSimRequest& request);
  void ConfigGetScsiInfo(CSimRequest& request);
  void ConfigGetExtList(CSimRequest& request);
  void ConfigSetExtList(CSimRequest& request);

 private:
  CSimAgentContext& context_;
};

}  // namespace com::vx::korvane::ndmpc::tools
