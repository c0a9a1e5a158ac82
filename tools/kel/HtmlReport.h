#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KelTool {

struct ReportOptions {
    // Frames shown per stream in the contact sheet, spread evenly over the
    // stream from its first to its last frame.
    std::uint32_t samplesPerStream = 8;
};

// What went into a report.
struct ReportContents {
    std::size_t files = 0;
    std::size_t unopenable = 0;         // files that could not be opened (shown with their error)
    std::size_t images = 0;             // embedded images: one per sampled frame that could be read
    std::size_t timelines = 0;          // one per stream
    std::size_t unreadableSamples = 0;  // sampled frames whose atom was damaged
};

// Writes one self-contained HTML page about the containers at `paths`
// (files, or directories whose .kel files are taken in the order the
// sequential source plays them): per file the facts `kel info` prints and the
// damage found while opening, a contact sheet of each stream (frames
// sampled evenly, as embedded PNG thumbnails), a time line per stream drawn
// as inline SVG from the time stamps in the index, with gaps of more than 1.5
// frame intervals marked and counted as dropped frames, and the layer kinds
// of each stream's first atom. All time lines share one time axis. Only the
// sampled atoms are read. The page fetches nothing: no scripts, no external
// styles or images.
//
// The page is written to a temporary file beside `output` and renamed into
// place. Returns false with `error` set when a path does not exist or the
// page cannot be written; files that cannot be opened as containers are
// reported in the page and counted in `contents.unopenable`.
bool WriteHtmlReport(const std::vector<std::string>& paths, const std::string& output, const ReportOptions& options,
                     ReportContents* contents, std::string* error);

}  // namespace KelTool
