// VxLog: the application's logger, used by every part of the library.
//
// Lines go through the virtual WriteLine, which by default writes
// "2026-11-22 10:15:02.123 WARN  [tid 1234] text" to stderr or to a file.
// Applications route lines into their own logging by subclassing and
// overriding WriteLine, or by giving a sink:
//
//   VxLog log;                     // stderr
//   log.setLevel(7);               // everything, with full packet dumps
//   log.setSink([](VxLog::Severity s, const char* line) { MyLogger(s, line); });
//
// The level value decides what is written: 0 nothing, 1 errors, 2 also
// warnings (the default), 3 also info, 4 and above also debug; above 6 the
// connection logs whole packet dumps instead of one-line summaries.
// All operations may be called from any thread; a line is written whole.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>

#include "ndmpc/foundation/vx_string.h"

namespace com::vx::korvane::ndmpc {

#if defined(__GNUC__) || defined(__clang__)
#define NDMPC_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define NDMPC_PRINTF_FORMAT(fmt, args)
#endif

class VxLog {
 public:
  enum Severity { kError = 1, kWarning = 2, kInfo = 3, kDebug = 4 };
  using Sink = std::function<void(Severity, const char* text)>;

  // Logs to standard error.
  VxLog();
  // Logs to the file at `path` (appending); falls back to standard error
  // when the file cannot be opened.
  explicit VxLog(const char* path);
  VxLog(const VxLog&) = delete;
  VxLog& operator=(const VxLog&) = delete;
  virtual ~VxLog();

  void debug(const char* format, ...) NDMPC_PRINTF_FORMAT(2, 3);
  void info(const char* format, ...) NDMPC_PRINTF_FORMAT(2, 3);
  void warning(const char* format, ...) NDMPC_PRINTF_FORMAT(2, 3);
  void error(const char* format, ...) NDMPC_PRINTF_FORMAT(2, 3);

  int getLevel() const { return level_; }
  void setLevel(int level) { level_ = level; }
  bool isEnabled(Severity severity) const { return level_ >= severity; }

  // Replaces the default output; an empty sink restores it.
  void setSink(Sink sink);

  // End of an entry: pushes buffered output to its destination.
  virtual void flush();

  static const char* SeverityName(Severity severity);

 protected:
  // Receives every enabled line, without a trailing newline. The default
  // passes it to the sink, or formats it with time, severity and thread.
  virtual void WriteLine(Severity severity, const char* text);

 private:
  void Write(Severity severity, const char* format, va_list args)
      NDMPC_PRINTF_FORMAT(3, 0);

  std::atomic<int> level_{kWarning};
  std::mutex mutex_;  // guards sink_ and file_ output
  Sink sink_;
  FILE* file_ = nullptr;
  bool ownsFile_ = false;
};

}  // namespace com::vx::korvane::ndmpc
