#pragma once

#include <KEL/Graph.h>

#include <string>
#include <vector>

#include "GraphDescription.h"

namespace KelTool {

// The container files that the plugin's target filters of `graph` will
// create: each target's "KEL File Path" and every path a timeline event of
// `description` gives it, with the extension the writers put (".kel"), and
// for the per-stream writers one file per input stream. `graph` must be
// initialised (its targets know their input streams).
std::vector<std::string> PlannedOutputs(KEL::Graph& graph, const GraphDescription& description);

// Those of `paths`, and of their XML companions ("<path>.xml"), that exist.
std::vector<std::string> ExistingFiles(const std::vector<std::string>& paths);

// "'a' exists" or "'a', 'b' and 2 more exist", and how to replace them.
std::string DescribeExisting(const std::vector<std::string>& existing);

}  // namespace KelTool
