#pragma once

#include <KEL/Graph.h>

#include <cstdint>
#include <string>
#include <vector>

#include "GraphDescription.h"

namespace KelTool {

// The file a writer of the plugin creates for `value` of its "KEL File Path":
// variables expanded, absolute, ".kel" as the extension.
std::string WriterOutputPath(const std::string& value);
// The file of stream `id` that a per-stream writer creates for `value`, named
// by the writers' own rule (Kel2File::PerStreamFilePath).
std::string PerStreamOutputPath(const std::string& value, std::uint16_t id);

// A file a target filter of the plugin will create.
struct PlannedOutput {
    std::string target;  // the filter's instance name
    std::string path;
};

// The container files that the plugin's target filters of `graph` will
// create: each target's "KEL File Path" and every path a timeline event of
// `description` gives it, with the extension the writers put (".kel"), and
// for the per-stream writers one file per input stream. `graph` must be
// initialised (its targets know their input streams).
std::vector<PlannedOutput> PlannedOutputs(KEL::Graph& graph, const GraphDescription& description);

// Which file a path names (device and inode), to tell afterwards whether a
// writer created it anew; {0, 0} when nothing is there.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool operator==(const FileIdentity&) const = default;
};
FileIdentity IdentifyPath(const std::string& path);

// Those of the planned files, and of their XML companions ("<path>.xml"),
// that exist.
std::vector<std::string> ExistingFiles(const std::vector<PlannedOutput>& planned);

// "'a' exists" or "'a', 'b' and 2 more exist", and how to replace them.
std::string DescribeExisting(const std::vector<std::string>& existing);

}  // namespace KelTool
