#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KelTool {

enum class SelectionResult {
    kOk,
    kUnknownStream,  // the list names a stream the file does not hold (a usage error)
    kUnreadable,     // the file cannot be opened
};

// The streams of the container `input` that `list` selects: comma-separated
// stream ids or stream names (the name in a stream's information), in the
// order given, each once; every stream of the file, in file order, when
// `list` is empty. Otherwise `error` names what the file lacks and lists the
// streams it holds ("0 (Camera 0), 1 (Camera 1)"), or why it cannot be read.
SelectionResult SelectStreams(const std::string& input, const std::string& list, std::vector<std::uint16_t>* ids,
                              std::string* error);

// SelectStreams for a command: false after printing the error, with
// `exitCode` set (2 for a stream the file lacks, 1 for a file that cannot be
// read).
bool SelectStreamsOrFail(const std::string& input, const std::string& list, std::vector<std::uint16_t>* ids,
                         int* exitCode);

}  // namespace KelTool
