// A log for the bench programs that drops every line, so that formatting
// diagnostics does not weigh on what is measured.
#pragma once

#include "ndmpc/foundation/vx_log.h"

namespace com::vx::korvane::ndmpc::bench {

inline VxLog& QuietLog() {
  static VxLog* log = [] {
    auto* l = new VxLog();
    l->setLevel(0);
    l->setSink([](VxLog::Severity, const char*) {});
    return l;
  }();
  return *log;
}

}  // namespace com::vx::korvane::ndmpc::bench
