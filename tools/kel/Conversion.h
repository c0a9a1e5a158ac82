#pragma once

#include <KEL/Source.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Command.h"
#include "GraphDescription.h"
#include "PlannedOutputs.h"
#include "frames/FrameReader.h"

namespace KelTool {

// Options of the commands that read container files through a source filter
// and write them again through one of the plugin's target filters.
struct WriterOptions {
    bool async = false;                   // the asynchronous variant of the target
    std::optional<std::uint32_t> buffer;  // "Buffer size" (async only)
    bool drop = false;                    // "Drop frames when full" (async only)
    bool xml = false;                     // "Write XML"
    bool thumbnail = false;               // "Create thumbnail for first frame"
    bool quiet = false;
    bool skipDamaged = false;  // frames lost to damage do not fail the run
    bool overwrite = false;    // the outputs may replace existing files
    // --compress zstd[:LEVEL] / --decompress; unset: the process's setting
    // (KEL_COMPRESSION, else none).
    std::optional<KEL::CompressionSetting> compression;
};

void AddWriterOptions(CLI::App* app, WriterOptions& options);

// The target filter "out" of class `syncClass` (or `asyncClass` with
// --async) writing to `outputPath`, with recording enabled.
FilterEntry MakeWriterEntry(const std::string& syncClass, const std::string& asyncClass, const std::string& outputPath,
                            const WriterOptions& options);

// Fails when `output` names the same file as one of `inputs` (writing it
// would destroy the data being read).
bool CheckOutputIsNotInput(const std::string& output, const std::vector<std::string>& inputs, std::string* error);

// Which frames of a take a conversion plays: --from and --to, each a frame
// position ("120") or seconds after the take's first time stamp ("2.5s");
// the range includes `from` and ends before `to`.
struct RangeOptions {
    std::string from;
    std::string to;
};
void AddRangeOptions(CLI::App* app, RangeOptions& options);

// The source of a conversion: the positions of `files` (laid out as
// `layout`, keeping `streams`, all when empty) that `range` selects, every
// stream restored from its own first atom. Returns empty after printing the
// error, with `exitCode` set (2 for a malformed range).
std::unique_ptr<KEL::Source> OpenTake(const std::vector<std::string>& files, KelFrames::Layout layout,
                                      const std::vector<std::uint16_t>& streams, const RangeOptions& range,
                                      int* exitCode);

// Loads the plugins, plays `source` into the target `writer`, prints the run
// summary (unless quiet) and checks that every file of `expectedOutputs`
// exists afterwards. Returns the exit code.
int PlayConversion(const GlobalOptions& global, std::unique_ptr<KEL::Source> source, const FilterEntry& writer,
                   const WriterOptions& options, const std::vector<std::string>& expectedOutputs);

}  // namespace KelTool
