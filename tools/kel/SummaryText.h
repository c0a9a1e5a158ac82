#pragma once

#include <KEL/ContainerSummary.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace KelTool {

// Human-readable report of one file: header facts, then a table of streams
// and the layer kinds of each stream's first atom.
void PrintContainerSummary(std::ostream& out, const KEL::ContainerSummary& summary);
// One line per file and a total.
void PrintDirectorySummary(std::ostream& out, const std::string& directory,
                           const std::vector<KEL::ContainerSummary>& summaries);

// The ".kel" files directly inside `directory`, sorted by name.
std::vector<std::string> ListContainerFiles(const std::string& directory);

// "12.3 MiB" style.
std::string FormatBytes(std::uint64_t bytes);
// "1.500 s" for a span of microseconds.
std::string FormatDuration(std::int64_t microseconds);

}  // namespace KelTool
