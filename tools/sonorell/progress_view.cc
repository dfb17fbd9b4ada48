// Drawing the progress bars with ANSI cursor movement: the previous frame is erased line by line
// before the next one is written, so event lines printed in between stay above the bars.
#include "progress_view.h"

#include "cli_context.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace sonorell::cli {

std::string formatBytes(uint64_t bytes) {
  char text[32];
  if (bytes >= 1'000'000'000) {
    std::snprintf(text, sizeof text, "%.2f GB", static_cast<double>(bytes) / 1e9);
  } else if (bytes >= 1'000'000) {
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.0f KB", static_cast<double>(bytes) / 1e3);
  }
  return text;
}

std::string formatDuration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "--:--";
  const auto total = static_cast<long long>(seconds + 0.5);
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                  total % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld:%02lld", total / 60, total % 60);
  }
  return text;
}

std::string bar(double fraction, int width) {
  fraction = std::clamp(fraction, 0.0, 1.0);
  const int full = static_cast<int>(fraction * width);
  std::string out = "[";
  for (int i = 0; i < width; ++i) out += i < full ? "#" : (i == full ? ">" : " ");
  if (full == width) out.back() = '#';
  return out + "]";
}

double ProgressView::update(Rate& rate, uint64_t bytes, std::chrono::steady_clock::time_point now) {
  if (rate.at.time_since_epoch().count() != 0 && bytes >= rate.bytes) {
    const double seconds = std::chrono::duration<double>(now - rate.at).count();
    if (seconds > 0.05) {
      const double instant = static_cast<double>(bytes - rate.bytes) / seconds;
      // Smoothed over about a second of 100 ms frames, so the figure does not jitter.
      rate.perSecond = rate.perSecond == 0 ? instant : 0.7 * rate.perSecond + 0.3 * instant;
      rate.bytes = bytes;
      rate.at = now;
    }
  } else {
    rate.bytes = bytes;
    rate.at = now;
  }
  return rate.perSecond;
}

void ProgressView::draw(const QSOAudiobookDownloadReport& report) {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard lock(mutex_);
  std::vector<std::string> lines;
  char text[256];
  const double bookRate = update(book_, report.downloadedSize, now);
  const uint64_t left =
      report.totalSize > report.downloadedSize ? report.totalSize - report.downloadedSize : 0;
  std::snprintf(text, sizeof text, "%-14s %s %5.1f%%  %s / %s  %s/s  ETA %s",
                ("book " + report.audiobookID).c_str(), bar(report.percentage / 100.0, 30).c_str(),
                report.percentage, formatBytes(report.downloadedSize).c_str(),
                formatBytes(report.totalSize).c_str(), formatBytes(uint64_t(bookRate)).c_str(),
                formatDuration(bookRate > 0 ? static_cast<double>(left) / bookRate : -1).c_str());
  lines.emplace_back(text);
  for (const auto& chapter : report.chapters) {
    if (chapter.status != DownloadStatusDownloading && chapter.status != DownloadStatusStaged) {
      continue;
    }
    Rate& rate = chapters_[{chapter.partNumber, chapter.chapterNumber}];
    const double perSecond = update(rate, chapter.downloadedSize, now);
    const uint64_t chapterLeft =
        chapter.totalSize > chapter.downloadedSize ? chapter.totalSize - chapter.downloadedSize : 0;
    std::snprintf(
        text, sizeof text, "  part %llu ch %-3llu %s %5.1f%%  %s / %s  %s/s  ETA %s",
        static_cast<unsigned long long>(chapter.partNumber),
        static_cast<unsigned long long>(chapter.chapterNumber),
        bar(chapter.percentage / 100.0, 30).c_str(), chapter.percentage,
        formatBytes(chapter.downloadedSize).c_str(), formatBytes(chapter.totalSize).c_str(),
        formatBytes(uint64_t(perSecond)).c_str(),
        formatDuration(perSecond > 0 ? static_cast<double>(chapterLeft) / perSecond : -1).c_str());
    lines.emplace_back(text);
  }
  std::string frame;
  for (const auto& l : lines) frame += l + "\n";
  if (frame == lastFrame_) return;
  eraseLocked();
  std::fputs(frame.c_str(), out());
  std::fflush(out());
  lastFrame_ = std::move(frame);
  drawnLines_ = static_cast<int>(lines.size());
}

void ProgressView::eraseLocked() {
  for (int i = 0; i < drawnLines_; ++i) std::fputs("\x1b[1A\x1b[2K", out());
  drawnLines_ = 0;
}

void ProgressView::note(const std::string& text) {
  std::lock_guard lock(mutex_);
  eraseLocked();
  std::fputs(text.c_str(), out());
  std::fputc('\n', out());
  std::fputs(lastFrame_.c_str(), out());
  std::fflush(out());
  for (char c : lastFrame_) drawnLines_ += c == '\n';
}

void ProgressView::close() {
  std::lock_guard lock(mutex_);
  drawnLines_ = 0;
  lastFrame_.clear();
}

}  // namespace sonorell::cli
