#include <KEL/ReadKEL2File.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <tuple>

#include "Command.h"
#include "FrameImage.h"
#include "PngWriter.h"
#include "ProgressBar.h"

namespace KelTool {

namespace {

namespace fs = std::filesystem;

struct ExportOptions {
    std::string path;
    std::uint32_t stream = 0;
    std::string output;
    std::uint32_t every = 1;
    std::string from;
    std::string to;
    bool overwrite = false;
};

// A bound of --from/--to: a frame number, or seconds after the stream's
// first time stamp ("2.5s").
struct Bound {
    bool seconds = false;
    double value = 0;
};

std::optional<Bound> ParseBound(const std::string& text) {
    Bound bound;
    bound.seconds = !text.empty() && text.back() == 's';
    const std::string number = bound.seconds ? text.substr(0, text.size() - 1) : text;
    std::size_t used = 0;
    try {
        bound.value = std::stod(number, &used);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (used != number.size() || bound.value < 0 || (!bound.seconds && bound.value != std::floor(bound.value))) {
        return std::nullopt;
    }
    return bound;
}

std::string FrameFileName(std::uint32_t frameNr) {
    char name[32];
    std::snprintf(name, sizeof name, "frame_%06u.png", frameNr);
    return name;
}

int RunExport(const ExportOptions& options) {
    KEL::ReadKEL2File reader(options.path.c_str());
    if (const auto code = reader.Initialize(); code != KEL::KEL_OK) {
        return Fail(CannotOpen(options.path, reader, code));
    }
    if (reader.GetNumFrames(static_cast<std::uint16_t>(options.stream)) == 0) {
        return Fail("'" + options.path + "' has no stream " + std::to_string(options.stream));
    }
    const auto id = static_cast<std::uint16_t>(options.stream);
    std::optional<Bound> from;
    std::optional<Bound> to;
    for (const auto& [text, bound, name] :
         {std::tuple{&options.from, &from, "--from"}, std::tuple{&options.to, &to, "--to"}}) {
        if (!text->empty() && !(*bound = ParseBound(*text))) {
            Fail(std::string(name) + " '" + *text + "' is neither a frame number (120) nor seconds (2.5s)");
            return kExitUsage;
        }
    }
    const auto numbers = reader.GetFrameNumbers(id);
    const auto stamps = reader.GetTimeStamps(id);
    const std::int64_t origin = stamps.empty() ? 0 : *std::min_element(stamps.begin(), stamps.end());
    // Whether frame `i` of the stream lies before the bound (`sign` -1) or
    // after it (+1).
    const auto outside = [&](const std::optional<Bound>& bound, std::size_t i, int sign) {
        if (!bound) {
            return false;
        }
        const double at = bound->seconds ? static_cast<double>(stamps[i] - origin) / 1e6 : numbers[i];
        return sign < 0 ? at < bound->value : at > bound->value;
    };
    std::vector<std::uint32_t> selected;
    std::size_t position = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const std::uint32_t nr = numbers[i];
        if (outside(from, i, -1) || outside(to, i, +1)) {
            continue;
        }
        if (position++ % options.every == 0) {
            selected.push_back(nr);
        }
    }
    if (selected.empty()) {
        return Fail("stream " + std::to_string(id) + " of '" + options.path + "' has no frame in the range asked for");
    }
    // A stream without pictures is refused before anything is written.
    if (const auto first = reader.GetFrameAtom(id, selected.front()); first && !FindFrameImage(*first)) {
        return Fail("stream " + std::to_string(id) + " of '" + options.path + "' holds no images");
    }
    if (!options.overwrite) {
        for (const std::uint32_t nr : selected) {
            std::error_code exists;
            if (fs::exists(fs::path(options.output) / FrameFileName(nr), exists)) {
                return Fail("'" + (fs::path(options.output) / FrameFileName(nr)).string() +
                            "' exists; nothing was written (pass --overwrite to replace)");
            }
        }
    }
    std::error_code ec;
    fs::create_directories(options.output, ec);
    if (ec) {
        return Fail("cannot create '" + options.output + "': " + ec.message());
    }

    ProgressBar progress(stderr, true);
    std::size_t written = 0;
    std::vector<std::uint32_t> damaged;
    std::vector<std::uint32_t> withoutImage;
    for (std::size_t i = 0; i < selected.size(); ++i) {
        const std::uint32_t nr = selected[i];
        progress.Update(i, selected.size(), "frame " + std::to_string(nr));
        const auto atom = reader.GetFrameAtom(id, nr);
        if (!atom) {
            damaged.push_back(nr);
            continue;
        }
        const auto image = FindFrameImage(*atom);
        if (!image) {
            withoutImage.push_back(nr);
            continue;
        }
        std::string error;
        const std::string file = (fs::path(options.output) / FrameFileName(nr)).string();
        if (!WritePngRgba(file, image->GetWidth(), image->GetHeight(), image->GetPixels().data(),
                          image->GetPixels().size(), &error)) {
            progress.Finish();
            return Fail(error);
        }
        ++written;
    }
    progress.Finish();
    std::cout << options.output << ": " << written << " PNG image(s) of stream " << id << "\n";
    if (!withoutImage.empty() && written == 0) {
        return Fail("stream " + std::to_string(id) + " of '" + options.path + "' holds no images");
    }
    if (!withoutImage.empty()) {
        std::cout << "  " << withoutImage.size() << " frame(s) without an image skipped\n";
    }
    if (!damaged.empty()) {
        std::string list;
        for (std::size_t i = 0; i < damaged.size() && i < 10; ++i) {
            list += (i == 0 ? "" : ", ") + std::to_string(damaged[i]);
        }
        return Fail(std::to_string(damaged.size()) + " damaged frame(s) could not be exported: " + list +
                    (damaged.size() > 10 ? ", ..." : ""));
    }
    return kExitOk;
}

}  // namespace

Command AddExportCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* app =
        root.add_subcommand("export", "Write the images of one stream as numbered PNG files (frame_000123.png)");
    app->add_option("FILE", options->path, "The .kel file")->required();
    app->add_option("--stream", options->stream, "Stream id")->required()->type_name("N")->check(CLI::Range(0, 65535));
    app->add_option("-o,--output", options->output, "The directory to write into")->required()->type_name("DIR");
    app->add_option("--every", options->every, "Export every K-th frame of the selection (default 1)")
        ->type_name("K")
        ->check(CLI::PositiveNumber);
    app->add_option("--from", options->from, "First frame to export: a frame number or seconds (2.5s)")
        ->type_name("F|Ss");
    app->add_option("--to", options->to, "Last frame to export: a frame number or seconds (4s)")->type_name("G|Ss");
    app->add_flag("--overwrite", options->overwrite, "Replace PNG files that exist (default: refuse to start)");
    return {app, [options] { return RunExport(*options); }};
}

}  // namespace KelTool
