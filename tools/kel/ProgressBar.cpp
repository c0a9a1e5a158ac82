#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>

namespace KelTool {

namespace {

constexpr auto kQuietStart = std::chrono::milliseconds(300);
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

}  // namespace

ProgressBar::ProgressBar(std::FILE* stream, bool enabled)
    : stream_(stream), enabled_(enabled && IsTerminal(stream)), start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { Finish(); }

bool ProgressBar::IsTerminal(std::FILE* stream) { return stream != nullptr && isatty(fileno(stream)) == 1; }

std::string ProgressBar::Render(std::uint64_t done, std::uint64_t total, const std::string& label, int width) {
    std::string line = "[";
    if (total > 0) {
        const std::uint64_t clamped = std::min(done, total);
        const auto filled = static_cast<int>(clamped * static_cast<std::uint64_t>(width) / total);
        line.append(static_cast<std::size_t>(filled), '#');
        line.append(static_cast<std::size_t>(width - filled), '.');
        const auto percent = static_cast<int>(clamped * 100 / total);
        char figures[64];
        std::snprintf(figures, sizeof figures, "] %3d%%  %llu/%llu", percent, static_cast<unsigned long long>(done),
                      static_cast<unsigned long long>(total));
        line += figures;
    } else {
        // Unknown total: a marker that walks along the bar.
        const auto pos = static_cast<int>(done % static_cast<std::uint64_t>(width));
        line.append(static_cast<std::size_t>(pos), '.');
        line += '#';
        line.append(static_cast<std::size_t>(width - pos - 1), '.');
        line += "]  " + std::to_string(done);
    }
    if (!label.empty()) {
        line += "  " + label;
    }
    return line;
}

void ProgressBar::Update(std::uint64_t done, std::uint64_t total, const std::string& label) {
    if (!enabled_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - start_ < kQuietStart || (drawn_ && now - lastDraw_ < kRedrawInterval)) {
        return;
    }
    lastDraw_ = now;
    drawn_ = true;
    std::fprintf(stream_, "\r%s\033[K", Render(done, total, label, kBarWidth).c_str());
    std::fflush(stream_);
}

void ProgressBar::Finish() {
    if (enabled_ && drawn_) {
        std::fprintf(stream_, "\r\033[K");
        std::fflush(stream_);
        drawn_ = false;
    }
}

}  // namespace KelTool
