#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace KelTool {

// A one-line progress display on a terminal: "[#####.....]  50%  frame 50/100".
//
// It draws only when its stream is a terminal, at most ten times a second,
// and not before the work has gone on for a moment (short runs stay quiet).
// Finish() clears the line. Use from one thread.
class ProgressBar {
public:
    // `enabled` false makes every call a no-op.
    ProgressBar(std::FILE* stream, bool enabled);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // True when the stream is a terminal (and the bar will draw).
    static bool IsTerminal(std::FILE* stream);

    // `done` of `total` units (total 0: unknown); `label` follows the figures.
    void Update(std::uint64_t done, std::uint64_t total, const std::string& label = {});
    void Finish();

    // The text of one bar, without the leading carriage return (for tests).
    static std::string Render(std::uint64_t done, std::uint64_t total, const std::string& label, int width);

private:
    std::FILE* stream_;
    bool enabled_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace KelTool
