#include "tools/cli/progress.h"

#include <unistd.h>

namespace com::vx::korvane::ndmpc::tools {

std::string HumanBytes(std::uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < sizeof(kUnits) / sizeof(kUnits[0])) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string HumanRate(std::uint64_t bytes, double seconds) {
  char text[32];
  if (seconds <= 0.0) seconds = 1e-6;
  std::snprintf(text, sizeof(text), "%.1f MB/s", static_cast<double>(bytes) / seconds / 1e6);
  return text;
}

CProgress::CProgress(std::FILE* stream, std::uint64_t total)
    : stream_(stream),
      total_(total),
      enabled_(stream != nullptr && ::isatty(::fileno(stream)) == 1),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {}

double CProgress::Seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void CProgress::Update(std::uint64_t done, const std::string& extra) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  drawn_ = true;
  std::string rate = HumanRate(done, Seconds());
  if (!extra.empty()) rate += "  " + extra;
  if (total_ != 0) {
    const int width = 30;
    const double fraction = done >= total_ ? 1.0 : static_cast<double>(done) / total_;
    const int filled = static_cast<int>(fraction * width);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(width - filled), '.');
    std::fprintf(stream_, "\r[%s] %3d%%  %s / %s  %s   ", bar.c_str(),
                 static_cast<int>(fraction * 100), HumanBytes(done).c_str(),
                 HumanBytes(total_).c_str(), rate.c_str());
  } else {
    std::fprintf(stream_, "\r%s  %s   ", HumanBytes(done).c_str(), rate.c_str());
  }
  std::fflush(stream_);
}

void CProgress::Finish() {
  if (!enabled_ || !drawn_) return;
  std::fprintf(stream_, "\r%*s\r", 78, "");
  std::fflush(stream_);
  drawn_ = false;
}

}  // namespace com::vx::korvane::ndmpc::tools
