#include "ndmpc/foundation/vx_log.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <vector>

namespace com::vx::korvane::ndmpc {

VxLog::VxLog() : file_(stderr) {}

VxLog::VxLog(const char* path) : file_(stderr) {
  if (path != nullptr) {
    if (FILE* f = std::fopen(path, "a")) {
      file_ = f;
      ownsFile_ = true;
    }
  }
}

VxLog::~VxLog() {
  if (ownsFile_) std::fclose(file_);
}

const char* VxLog::SeverityName(Severity severity) {
  switch (severity) {
    case kError: return "ERROR";
    case kWarning: return "WARN ";
    case kInfo: return "INFO ";
    case kDebug: return "DEBUG";
  }
  return "?    ";
}

#define NDMPC_LOG_AT_(sev)              \
  if (!isEnabled(sev)) return;          \
  va_list args;                         \
  va_start(args, format);               \
  Write(sev, format, args);             \
  va_end(args)

void VxLog::debug(const char* format, ...) { NDMPC_LOG_AT_(kDebug); }
void VxLog::info(const char* format, ...) { NDMPC_LOG_AT_(kInfo); }
void VxLog::warning(const char* format, ...) { NDMPC_LOG_AT_(kWarning); }
void VxLog::error(const char* format, ...) { NDMPC_LOG_AT_(kError); }

#undef NDMPC_LOG_AT_

void VxLog::Write(Severity severity, const char* format, va_list args) {
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(small, sizeof(small), format, copy);
  va_end(copy);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof(small)) {
    WriteLine(severity, small);
    return;
  }
  std::vector<char> big(static_cast<size_t>(n) + 1);
  std::vsnprintf(big.data(), big.size(), format, args);
  WriteLine(severity, big.data());
}

void VxLog::setSink(Sink sink) {
  std::lock_guard<std::mutex> lock(mutex_);
  sink_ = std::move(sink);
}

void VxLog::WriteLine(Severity severity, const char* text) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (sink_) {
    sink_(severity, text);
    return;
  }
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm local{};
  localtime_r(&tv.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
  std::fprintf(file_, "%s.%03d %s [tid %ld] %s\n", stamp,
               static_cast<int>(tv.tv_usec / 1000), SeverityName(severity),
               static_cast<long>(syscall(SYS_gettid)), text);
}

void VxLog::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::fflush(file_);
}

}  // namespace com::vx::korvane::ndmpc
