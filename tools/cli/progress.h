// CProgress: a progress line for long transfers on a terminal, and the
// human-readable sizes and rates the summary lines use.
//
//   CProgress progress(stderr, total);   // total 0: unknown
//   progress.Update(bytesSoFar);         // redrawn at most ten times a second
//   progress.Finish();                   // clears the line
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace com::vx::korvane::ndmpc::tools {

class CProgress {
 public:
  // Draws only when `stream` is a terminal.
  CProgress(std::FILE* stream, std::uint64_t total);
  // `extra` ("1234 files") follows the rate.
  void Update(std::uint64_t done, const std::string& extra = std::string());
  void Finish();
  double Seconds() const;

 private:
  std::FILE* stream_;
  std::uint64_t total_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

// "300.0 KiB", "1.5 GiB", "512 B".
std::string HumanBytes(std::uint64_t bytes);
// "12.3 MB/s" (decimal megabytes).
std::string HumanRate(std::uint64_t bytes, double seconds);

}  // namespace com::vx::korvane::ndmpc::tools
