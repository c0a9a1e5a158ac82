#pragma once

#include <KEL/Compression.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KelTool {

// Parameter values in the order they are to be set, as text for
// FilterParam::SetValueFromString.
using ParamValues = std::vector<std::pair<std::string, std::string>>;

struct FilterEntry {
    std::string className;  // registered class name (or type GUID text)
    std::string name;       // instance name, unique in the graph
    ParamValues params;
};

struct ConnectionEntry {
    std::string from;
    std::string to;
};

// Parameter changes applied on the graph thread just before frame `frame`
// is asked of the source: values are set first (in order), then buttons are
// pressed (in order), then a stop is requested. `pass` limits the event to
// one pass (0-based) of a looping run; without it the event fires in every
// pass.
struct TimelineEvent {
    std::uint32_t frame = 0;
    std::optional<std::uint32_t> pass;
    std::string filter;  // empty for an event that only stops
    ParamValues set;
    std::vector<std::string> press;
    bool stop = false;
};

// A graph to build and play: filters, connections, a timeline of parameter
// events and the run options.
struct GraphDescription {
    std::vector<FilterEntry> filters;
    // Empty: the first filter is connected to every other one.
    std::vector<ConnectionEntry> connections;
    std::vector<TimelineEvent> timeline;

    std::uint32_t startFrame = 0;
    std::optional<std::uint32_t> frameCount;
    std::uint32_t loops = 1;  // 0 loops until stopped
    std::uint32_t maxConsecutiveSkips = 1;
    std::chrono::milliseconds doneTimeout{0};
    // "compression": how every target of the graph stores blobs. Unset: the
    // process's setting (KEL_COMPRESSION, or none).
    std::optional<KEL::CompressionSetting> compression;

    FilterEntry* FindFilter(const std::string& name);
};

// Parses the JSON graph format (see docs/graph-format.md). Returns nothing
// and sets `error` (naming the offending element) when the text is not valid
// JSON or does not describe a graph; never throws.
std::optional<GraphDescription> ParseGraphDescription(const std::string& text, std::string* error);
std::optional<GraphDescription> LoadGraphDescription(const std::string& path, std::string* error);

// Applies a command-line override "INSTANCE.PARAMETER=VALUE" (the instance
// name ends at the first '.', the parameter name at the first '=' after it).
// An existing value of that parameter is replaced in place, a new one is
// appended. Returns false with `error` for a malformed override or an
// unknown instance.
bool ApplyParamOverride(GraphDescription& description, const std::string& assignment, std::string* error);

}  // namespace KelTool
