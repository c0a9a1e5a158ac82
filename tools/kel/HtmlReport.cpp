#include "HtmlReport.h"

#include <KEL/PurposeGuids.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/ThumbnailHelper.h>
#include <KEL/Timeline.h>
#include <unistd.h>

#include <algorithm>
#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>

#include "Command.h"
#include "FrameImage.h"
#include "PngWriter.h"
#include "SummaryText.h"

namespace KelTool {

namespace {

namespace fs = std::filesystem;

// Geometry of a time line drawing, in SVG user units.
constexpr double kTimelineWidth = 960;
constexpr double kTimelineLeft = 8;
constexpr double kTimelineRight = kTimelineWidth - 8;
constexpr double kTimelineHeight = 50;

std::string Escape(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string Base64(const std::vector<std::uint8_t>& bytes) {
    using namespace boost::archive::iterators;
    using Encoder = base64_from_binary<transform_width<const std::uint8_t*, 6, 8>>;
    std::string out(Encoder(bytes.data()), Encoder(bytes.data() + bytes.size()));
    out.append((3 - bytes.size() % 3) % 3, '=');
    return out;
}

std::string Fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// Seconds from the report's time origin.
std::string Seconds(std::int64_t stamp, std::int64_t origin) {
    return Fixed(static_cast<double>(stamp - origin) / 1e6, 3) + " s";
}

struct SampledFrame {
    std::uint32_t frameNr = 0;
    std::int64_t timeStamp = 0;
    std::string pngBase64;  // empty when the atom could not be read
    std::uint32_t width = 0;
    std::uint32_t height = 0;
};

struct StreamReport {
    KEL::StreamSummary summary;
    KEL::TimelineAnalysis timeline;
    bool hasImages = false;
    std::vector<SampledFrame> samples;
};

struct FileReport {
    KEL::ContainerSummary summary;
    std::vector<StreamReport> streams;
    // What the reader lost to damage while opening the file and reading
    // the sampled frames.
    std::vector<KEL::ReaderDamage> lost;
};

// A group of files shown together: one directory, or the files named alone.
struct FileGroup {
    std::string directory;  // empty for files named on their own
    std::vector<FileReport> files;
};

// Frame numbers at evenly spaced positions of `numbers`, first and last
// included, without repeats.
std::vector<std::uint32_t> Sample(const std::vector<std::uint32_t>& numbers, std::uint32_t count) {
    std::vector<std::uint32_t> picked;
    if (numbers.empty() || count == 0) {
        return picked;
    }
    const std::size_t n = numbers.size();
    const std::size_t k = std::min<std::size_t>(count, n);
    for (std::size_t i = 0; i < k; ++i) {
        const std::size_t at = k == 1 ? 0 : (i * (n - 1) + (k - 1) / 2) / (k - 1);
        if (picked.empty() || picked.back() != numbers[at]) {
            picked.push_back(numbers[at]);
        }
    }
    return picked;
}

// The thumbnail of the frame's picture as base64 PNG ("" when none).
std::string ThumbnailPng(const KEL::Atom& atom, std::uint32_t* width, std::uint32_t* height) {
    auto image = FindFrameImage(atom);
    if (!image) {
        return {};
    }
    if (image->GetPurposeGuid() != KEL::PurposeGuid_THUMBNAIL) {
        auto copy = std::make_shared<KEL::Atom>(atom.GetStreamId(), atom.GetFrameNr(), atom.GetTimeStamp());
        copy->AddDataLayer(image, false);
        image = KEL::ThumbnailHelper::getThumbnail({copy}, false, false);
    }
    if (!image) {
        return {};
    }
    std::string error;
    const auto png = EncodePngRgba(image->GetWidth(), image->GetHeight(), image->GetPixels().data(),
                                   image->GetPixels().size(), &error);
    if (png.empty()) {
        return {};
    }
    *width = image->GetWidth();
    *height = image->GetHeight();
    return Base64(png);
}

FileReport Examine(const std::string& path, const ReportOptions& options, ReportContents* contents) {
    FileReport file;
    (void)KEL::TakeReaderDamage();
    KEL::ReadKEL2File reader(path.c_str());
    const KEL::KelErrorCode code = reader.Initialize();
    if (code != KEL::KEL_OK) {
        file.summary.path = path;
        file.summary.openResult = code;
        file.summary.error = KEL::OpenFailureReason(reader, code);
        ++contents->unopenable;
        return file;
    }
    file.summary = KEL::SummarizeOpenContainer(reader);
    for (const KEL::StreamSummary& s : file.summary.streams) {
        StreamReport stream;
        stream.summary = s;
        stream.timeline = KEL::AnalyzeTimeline(reader.GetTimeStamps(s.id));
        stream.hasImages = std::any_of(s.firstAtomLayers.begin(), s.firstAtomLayers.end(),
                                       [](const KEL::LayerSummary& l) { return l.type == "TextureRGBA"; });
        if (stream.hasImages) {
            for (const std::uint32_t nr : Sample(reader.GetFrameNumbers(s.id), options.samplesPerStream)) {
                SampledFrame frame;
                frame.frameNr = nr;
                if (const auto atom = reader.GetFrameAtom(s.id, nr)) {
                    frame.timeStamp = atom->GetTimeStamp();
                    frame.pngBase64 = ThumbnailPng(*atom, &frame.width, &frame.height);
                }
                if (frame.pngBase64.empty()) {
                    ++contents->unreadableSamples;
                } else {
                    ++contents->images;
                }
                stream.samples.push_back(std::move(frame));
            }
        }
        ++contents->timelines;
        file.streams.push_back(std::move(stream));
    }
    // Damage met while reading the sampled atoms counts too.
    file.summary.damage = reader.GetDamageReport();
    file.lost = KEL::TakeReaderDamage();
    return file;
}

double TimelineX(std::int64_t stamp, std::int64_t origin, std::int64_t end) {
    if (end <= origin) {
        return kTimelineLeft;
    }
    return kTimelineLeft +
           static_cast<double>(stamp - origin) / static_cast<double>(end - origin) * (kTimelineRight - kTimelineLeft);
}

void RenderTimeline(std::ostream& out, const StreamReport& stream, std::int64_t origin, std::int64_t end) {
    const KEL::TimelineAnalysis& t = stream.timeline;
    const std::string label = "stream " + std::to_string(stream.summary.id) + ": " + std::to_string(t.stamps.size()) +
                              " frame(s), " + std::to_string(t.dropped) + " missing";
    out << "<svg class=\"timeline\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kTimelineWidth << "\" height=\""
        << kTimelineHeight << "\" viewBox=\"0 0 " << kTimelineWidth << " " << kTimelineHeight
        << "\" role=\"img\" aria-label=\"" << Escape(label) << "\">\n<title>" << Escape(label) << "</title>\n";
    out << "<rect x=\"" << kTimelineLeft << "\" y=\"16\" width=\"" << kTimelineRight - kTimelineLeft
        << "\" height=\"18\" fill=\"#eef0f3\"/>\n";
    if (!t.stamps.empty()) {
        const double x0 = TimelineX(t.First(), origin, end);
        const double x1 = TimelineX(t.Last(), origin, end);
        out << "<rect x=\"" << Fixed(x0, 2) << "\" y=\"16\" width=\"" << Fixed(std::max(x1 - x0, 1.0), 2)
            << "\" height=\"18\" fill=\"#cfe0fb\"/>\n";
        // One tick per pixel column that holds a frame: long recordings stay small.
        out << "<path stroke=\"#1f4fb8\" stroke-width=\"1\" d=\"";
        double lastColumn = -1;
        for (const std::int64_t stamp : t.stamps) {
            const double column = std::floor(TimelineX(stamp, origin, end)) + 0.5;
            if (column != lastColumn) {
                out << "M" << Fixed(column, 1) << " 18v14";
                lastColumn = column;
            }
        }
        out << "\"/>\n";
        for (const KEL::TimelineGap& gap : t.gaps) {
            const double gx0 = TimelineX(gap.from, origin, end);
            const double gx1 = TimelineX(gap.to, origin, end);
            out << "<rect class=\"gap\" x=\"" << Fixed(gx0, 2) << "\" y=\"12\" width=\""
                << Fixed(std::max(gx1 - gx0, 2.0), 2)
                << "\" height=\"26\" fill=\"#d92d20\" fill-opacity=\"0.45\"><title>" << gap.missing
                << " frame(s) missing between " << Seconds(gap.from, origin) << " and " << Seconds(gap.to, origin)
                << "</title></rect>\n";
        }
    }
    out << "<text x=\"" << kTimelineLeft << "\" y=\"11\" font-size=\"11\" fill=\"#333\">" << Escape(label)
        << "</text>\n";
    out << "<text x=\"" << kTimelineLeft << "\" y=\"47\" font-size=\"10\" fill=\"#666\">" << Seconds(origin, origin)
        << "</text>\n";
    out << "<text x=\"" << kTimelineRight << "\" y=\"47\" font-size=\"10\" fill=\"#666\" text-anchor=\"end\">"
        << Seconds(end, origin) << "</text>\n</svg>\n";
}

std::string LayerKinds(const KEL::StreamSummary& s) {
    std::string kinds;
    for (const KEL::LayerSummary& l : s.firstAtomLayers) {
        if (!kinds.empty()) {
            kinds += ", ";
        }
        kinds += l.type + " (" + l.purpose + (l.detail.empty() ? "" : ", " + l.detail) + ")";
    }
    return kinds.empty() ? "none readable" : kinds;
}

std::string DamageText(const KEL::ContainerSummary& s) {
    const KEL::ContainerDamageReport& d = s.damage;
    std::vector<std::string> parts;
    if (d.headerDamaged) {
        parts.emplace_back("file header damaged (the records name their file)");
    }
    if (d.skippedRecords > 0) {
        parts.push_back(std::to_string(d.skippedRecords) + " damaged record(s), " + std::to_string(d.skippedBytes) +
                        " byte(s) skipped");
    }
    if (d.foreignRecords > 0) {
        parts.push_back(std::to_string(d.foreignRecords) + " record(s) of another file refused");
    }
    if (d.truncatedTailBytes > 0) {
        parts.push_back(std::to_string(d.truncatedTailBytes) + " byte(s) of an incomplete last record");
    }
    if (parts.empty()) {
        return "none found";
    }
    std::string text;
    for (const auto& p : parts) {
        text += (text.empty() ? "" : "; ") + p;
    }
    return text;
}

void RenderFile(std::ostream& out, const FileReport& file, std::int64_t origin, std::int64_t end) {
    const KEL::ContainerSummary& s = file.summary;
    const std::string name = fs::path(s.path).filename().string();
    out << "<section class=\"file\">\n<h2>" << Escape(name) << "</h2>\n<p class=\"path\">" << Escape(s.path)
        << "</p>\n";
    if (!s.Ok()) {
        out << "<p class=\"bad\">Cannot open: " << Escape(s.error) << "</p>\n</section>\n";
        return;
    }
    const bool damaged = s.damage.Damaged();
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    for (const StreamReport& stream : file.streams) {
        if (!stream.timeline.stamps.empty()) {
            first = std::min(first, stream.timeline.First());
            last = std::max(last, stream.timeline.Last());
        }
    }
    out << "<table class=\"facts\">\n";
    out << "<tr><th>size</th><td>" << FormatBytes(s.fileSize) << " (" << s.fileSize << " bytes)</td></tr>\n";
    out << "<tr><th>streams</th><td>" << s.streams.size() << "</td></tr>\n";
    out << "<tr><th>atoms</th><td>" << s.atoms << ", " << s.frames << " playable frame(s)</td></tr>\n";
    if (s.storedBlobBytes != s.blobBytes) {
        char ratio[32];
        std::snprintf(
            ratio, sizeof ratio, "%.2f",
            static_cast<double>(s.blobBytes) / static_cast<double>(std::max<std::uint64_t>(1, s.storedBlobBytes)));
        out << "<tr><th>compression</th><td>" << FormatBytes(s.blobBytes) << " of blobs stored in "
            << FormatBytes(s.storedBlobBytes) << ", ratio " << ratio << "</td></tr>\n";
    }
    out << "<tr><th>time</th><td>"
        << (first <= last
                ? Seconds(first, origin) + " to " + Seconds(last, origin) + " (" + FormatDuration(last - first) + ")"
                : std::string("no time stamps"))
        << "</td></tr>\n";
    out << "<tr><th>closed</th><td" << (s.closed ? "" : " class=\"warn\"") << ">"
        << (s.closed ? "yes" : "no: its writer is still writing or died (listed from the record headers)")
        << "</td></tr>\n";
    out << "<tr><th>damage</th><td" << (damaged ? " class=\"bad\"" : "") << ">" << Escape(DamageText(s))
        << "</td></tr>\n";
    if (!file.lost.empty()) {
        out << "<tr><th>lost to damage</th><td class=\"bad\"><ul class=\"lost\">";
        for (const KEL::ReaderDamage& d : file.lost) {
            out << "<li>"
                << Escape(d.atomKnown ? "stream " + std::to_string(d.streamId) + " frame " + std::to_string(d.frameNr) +
                                            " at offset " + std::to_string(d.offset)
                                      : std::to_string(d.length) + " byte(s) at offset " + std::to_string(d.offset))
                << ": " << Escape(d.reason) << "</li>";
        }
        out << "</ul>(among the frames this report read; kel verify reads every byte)</td></tr>\n";
    }
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(s.fileId));
    out << "<tr><th>format</th><td>version " << s.formatVersion << ", file identity " << id << "</td></tr>\n";
    out << "</table>\n";

    out << "<table class=\"streams\">\n<tr><th>stream</th><th>name</th><th>frames</th><th>numbers</th>"
           "<th>duration</th><th>interval</th><th title=\"frames missing from the time line: dropped, or not "
           "recorded (between snapshots)\">missing</th><th>stored</th><th>first atom's layers</th></tr>\n";
    for (const StreamReport& stream : file.streams) {
        const KEL::StreamSummary& ss = stream.summary;
        const KEL::TimelineAnalysis& t = stream.timeline;
        out << "<tr><td>" << ss.id << "</td><td>" << Escape(ss.name) << "</td><td>" << ss.frames << "</td><td>"
            << ss.firstFrameNr << ".." << ss.lastFrameNr << "</td><td>" << FormatDuration(t.Last() - t.First())
            << "</td><td>" << (t.interval > 0 ? Fixed(static_cast<double>(t.interval) / 1e3, 3) + " ms" : "-")
            << "</td><td" << (t.dropped > 0 ? " class=\"bad\"" : "") << ">" << t.dropped << " missing</td><td>"
            << FormatBytes(ss.storedBytes) << "</td><td class=\"layers\">" << Escape(LayerKinds(ss)) << "</td></tr>\n";
    }
    out << "</table>\n";

    out << "<h3>Contact sheet</h3>\n";
    for (const StreamReport& stream : file.streams) {
        out << "<div class=\"sheet\">\n<p class=\"label\">stream " << stream.summary.id
            << (stream.summary.name.empty() ? "" : " (" + Escape(stream.summary.name) + ")") << "</p>\n";
        if (!stream.hasImages) {
            out << "<p class=\"noimage\">This stream holds no images.</p>\n";
        }
        for (const SampledFrame& frame : stream.samples) {
            if (frame.pngBase64.empty()) {
                out << "<figure class=\"unreadable\"><div>unreadable</div><figcaption>frame " << frame.frameNr
                    << ": damaged</figcaption></figure>\n";
                continue;
            }
            out << "<figure><img src=\"data:image/png;base64," << frame.pngBase64 << "\" width=\"" << frame.width
                << "\" height=\"" << frame.height << "\" alt=\"stream " << stream.summary.id << " frame "
                << frame.frameNr << "\"><figcaption>frame " << frame.frameNr << " &middot; "
                << Seconds(frame.timeStamp, origin) << "</figcaption></figure>\n";
        }
        out << "</div>\n";
    }

    out << "<h3>Time line</h3>\n";
    for (const StreamReport& stream : file.streams) {
        RenderTimeline(out, stream, origin, end);
    }
    out << "</section>\n";
}

constexpr const char* kStyle = R"(
body { font-family: system-ui, sans-serif; margin: 24px; color: #1b1f24; background: #fff; }
h1 { font-size: 22px; margin-bottom: 4px; }
h2 { font-size: 18px; margin: 0 0 2px 0; }
h3 { font-size: 14px; margin: 16px 0 6px 0; color: #444; }
section.file { border: 1px solid #d0d7de; border-radius: 6px; padding: 14px 18px; margin: 18px 0; }
section.directory > h2 { font-size: 16px; color: #444; }
p.path, p.generated { color: #666; font-size: 12px; margin: 0 0 10px 0; }
table { border-collapse: collapse; font-size: 13px; margin: 6px 0; }
th, td { text-align: left; padding: 3px 10px 3px 0; vertical-align: top; }
table.streams th { border-bottom: 1px solid #d0d7de; }
td.layers { font-size: 12px; color: #444; max-width: 520px; }
.bad { color: #b42318; font-weight: 600; }
.warn { color: #9a6700; }
div.sheet { display: flex; flex-wrap: wrap; align-items: flex-end; gap: 8px; margin: 6px 0 12px 0; }
div.sheet p.label { width: 100%; margin: 0; font-size: 13px; font-weight: 600; }
figure { margin: 0; }
figure img { display: block; height: 96px; width: auto; border: 1px solid #d0d7de; image-rendering: auto; }
figure.unreadable div { height: 96px; width: 128px; display: flex; align-items: center; justify-content: center;
                        background: #fde8e7; color: #b42318; border: 1px solid #f1aeb5; font-size: 12px; }
figcaption { font-size: 11px; color: #555; margin-top: 2px; }
p.noimage { color: #666; font-style: italic; margin: 0; }
svg.timeline { display: block; margin: 2px 0; max-width: 100%; height: auto; }
)";

}  // namespace

bool WriteHtmlReport(const std::vector<std::string>& paths, const std::string& output, const ReportOptions& options,
                     ReportContents* contents, std::string* error) {
    *contents = {};
    std::vector<FileGroup> groups;
    for (const std::string& path : paths) {
        std::error_code ec;
        const fs::file_status status = fs::status(path, ec);
        if (ec || !fs::exists(status)) {
            *error = "'" + path + "' does not exist";
            return false;
        }
        if (fs::is_directory(status)) {
            FileGroup group;
            group.directory = path;
            for (const std::string& file : ListContainerFiles(path)) {
                group.files.push_back(Examine(file, options, contents));
            }
            groups.push_back(std::move(group));
        } else {
            if (groups.empty() || !groups.back().directory.empty()) {
                groups.emplace_back();
            }
            groups.back().files.push_back(Examine(path, options, contents));
        }
    }

    // One time axis for everything in the report.
    std::int64_t origin = std::numeric_limits<std::int64_t>::max();
    std::int64_t end = std::numeric_limits<std::int64_t>::min();
    for (const FileGroup& group : groups) {
        for (const FileReport& file : group.files) {
            ++contents->files;
            for (const StreamReport& stream : file.streams) {
                if (!stream.timeline.stamps.empty()) {
                    origin = std::min(origin, stream.timeline.First());
                    end = std::max(end, stream.timeline.Last());
                }
            }
        }
    }
    if (origin > end) {
        origin = end = 0;
    }

    std::ostringstream html;
    const std::time_t now = std::time(nullptr);
    char when[64];
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
    html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         << "<title>KEL recording report</title>\n<style>" << kStyle << "</style>\n</head>\n<body>\n"
         << "<h1>KEL recording report</h1>\n<p class=\"generated\">" << contents->files << " file(s), generated "
         << when << "; times in seconds from " << Fixed(static_cast<double>(origin) / 1e6, 6)
         << " s, on one axis for every time line</p>\n";
    for (const FileGroup& group : groups) {
        if (!group.directory.empty()) {
            html << "<section class=\"directory\">\n<h2>Directory " << Escape(group.directory) << "</h2>\n"
                 << "<p class=\"path\">" << group.files.size()
                 << " container file(s), in the order the sequential source plays them</p>\n";
        }
        for (const FileReport& file : group.files) {
            RenderFile(html, file, origin, end);
        }
        if (!group.directory.empty()) {
            html << "</section>\n";
        }
    }
    html << "</body>\n</html>\n";

    const fs::path target = fs::absolute(output);
    const fs::path temporary =
        target.parent_path() / ("." + target.filename().string() + "." + std::to_string(::getpid()) + ".tmp");
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file << html.str();
        file.close();
        if (!file) {
            std::error_code ignored;
            fs::remove(temporary, ignored);
            *error = "cannot write '" + output + "'";
            return false;
        }
    }
    std::error_code ec;
    fs::rename(temporary, target, ec);
    if (ec) {
        fs::remove(temporary, ec);
        *error = "cannot write '" + output + "': " + ec.message();
        return false;
    }
    return true;
}

}  // namespace KelTool
