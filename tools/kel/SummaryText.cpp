#include "SummaryText.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <sstream>

namespace KelTool {

namespace fs = std::filesystem;

std::string FormatBytes(std::uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    } else {
        std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    }
    return text;
}

std::string FormatDuration(std::int64_t microseconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(microseconds) / 1e6);
    return text;
}

void PrintContainerSummary(std::ostream& out, const KEL::ContainerSummary& summary) {
    out << summary.path << "\n";
    if (!summary.Ok()) {
        out << "  cannot open: " << summary.error << "\n";
        return;
    }
    out << "  size:      " << FormatBytes(summary.fileSize) << " (" << summary.fileSize << " bytes)\n";
    out << "  format:    " << summary.formatVersion << "\n";
    out << "  atoms:     " << summary.atoms << " in " << summary.streams.size() << " stream(s), " << summary.frames
        << " playable frame(s)\n";
    out << "  thumbnail: " << (summary.HasThumbnail() ? "yes" : "no") << "\n";
    if (summary.storedBlobBytes != summary.blobBytes) {
        char ratio[32];
        std::snprintf(ratio, sizeof ratio, "%.2f",
                      static_cast<double>(summary.blobBytes) /
                          static_cast<double>(std::max<std::uint64_t>(1, summary.storedBlobBytes)));
        out << "  blobs:     " << FormatBytes(summary.blobBytes) << " stored in "
            << FormatBytes(summary.storedBlobBytes) << " (compressed, ratio " << ratio << ")\n";
    }
    out << "  closed:    "
        << (summary.closed ? "yes" : "no (its writer is still writing, or died: listed from the record headers)")
        << "\n";
    const auto& d = summary.damage;
    if (d.Damaged()) {
        out << "  damage:    " << (d.headerDamaged ? "file header damaged (the records name their file); " : "")
            << d.skippedRecords << " record(s) and " << d.skippedBytes << " byte(s) skipped";
        if (d.foreignRecords > 0) {
            out << " (" << d.foreignRecords << " record(s) of another file among them)";
        }
        out << ", " << d.truncatedTailBytes << " byte(s) of an incomplete tail (run `kel verify`)\n";
    }
    if (summary.createdUs != 0) {
        const std::time_t created = static_cast<std::time_t>(summary.createdUs / 1'000'000);
        std::tm utc{};
        gmtime_r(&created, &utc);
        out << "  created:   " << std::put_time(&utc, "%Y-%m-%d %H:%M:%S UTC") << "\n";
    }
    std::int64_t origin = summary.streams.empty() ? 0 : summary.streams.front().firstTimeStamp;
    for (const auto& s : summary.streams) {
        origin = std::min(origin, s.firstTimeStamp);
    }
    out << "\n  " << std::left << std::setw(7) << "stream" << std::setw(8) << "frames" << std::setw(14) << "numbers"
        << std::setw(12) << "duration" << std::setw(9) << "missing" << std::setw(12) << "stored"
        << "name\n";
    for (const auto& s : summary.streams) {
        out << "  " << std::setw(7) << s.id << std::setw(8) << s.frames << std::setw(14)
            << (std::to_string(s.firstFrameNr) + ".." + std::to_string(s.lastFrameNr)) << std::setw(12)
            << FormatDuration(s.lastTimeStamp - s.firstTimeStamp) << std::setw(9) << s.missingFrames << std::setw(12)
            << FormatBytes(s.storedBytes) << s.name << "\n";
    }
    for (const auto& s : summary.streams) {
        out << "\n  stream " << s.id << ", first atom layers:\n";
        for (const auto& l : s.firstAtomLayers) {
            out << "    " << std::setw(16) << l.type << std::setw(26) << l.purpose << "v" << std::setw(4) << l.version
                << std::setw(12) << FormatBytes(l.payloadBytes) << l.detail << "\n";
        }
        for (const auto& st : s.storage) {
            if (st.blobBytes == 0) {
                continue;
            }
            char ratio[32];
            std::snprintf(ratio, sizeof ratio, "%.2f", st.Ratio());
            out << "    stored: " << std::setw(16) << st.type << std::setw(12) << FormatBytes(st.blobBytes) << "-> "
                << std::setw(12) << FormatBytes(st.storedBlobBytes) << "ratio " << ratio << "\n";
        }
        out << "    time: " << std::fixed << std::setprecision(3)
            << static_cast<double>(s.firstTimeStamp - origin) / 1e6 << " s .. "
            << static_cast<double>(s.lastTimeStamp - origin) / 1e6 << " s after the file's first atom\n"
            << std::defaultfloat;
    }
    out << std::right;
}

void PrintDirectorySummary(std::ostream& out, const std::string& directory,
                           const std::vector<KEL::ContainerSummary>& summaries) {
    out << directory << ": " << summaries.size() << " container file(s)\n\n";
    out << "  " << std::left << std::setw(32) << "file" << std::setw(9) << "streams" << std::setw(8) << "frames"
        << std::setw(12) << "size" << std::setw(12) << "duration"
        << "thumbnail\n";
    std::uint64_t totalBytes = 0;
    std::uint64_t totalAtoms = 0;
    for (const auto& s : summaries) {
        const std::string name = fs::path(s.path).filename().string();
        if (!s.Ok()) {
            out << "  " << std::setw(32) << name << "cannot open: " << s.error << "\n";
            continue;
        }
        std::int64_t duration = 0;
        for (const auto& st : s.streams) {
            duration = std::max(duration, st.lastTimeStamp - st.firstTimeStamp);
        }
        out << "  " << std::setw(32) << name << std::setw(9) << s.streams.size() << std::setw(8) << s.frames
            << std::setw(12) << FormatBytes(s.fileSize) << std::setw(12) << FormatDuration(duration)
            << (s.HasThumbnail() ? "yes" : "no") << "\n";
        totalBytes += s.fileSize;
        totalAtoms += s.atoms;
    }
    out << "\n  total: " << FormatBytes(totalBytes) << ", " << totalAtoms << " atoms\n" << std::right;
}

std::vector<std::string> ListContainerFiles(const std::string& directory) {
    std::vector<std::string> files;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeEc;
        if (it->path().extension() == ".kel" && it->is_regular_file(typeEc)) {
            files.push_back(it->path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace KelTool
