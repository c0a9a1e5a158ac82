#include "StreamSelection.h"

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/ReadKEL2File.h>

#include <algorithm>
#include <charconv>
#include <sstream>

#include "Command.h"

namespace KelTool {

namespace {

struct FileStream {
    std::uint16_t id = 0;
    std::string name;
};

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string Describe(const std::vector<FileStream>& streams) {
    std::string text;
    for (const FileStream& s : streams) {
        text += (text.empty() ? "" : ", ") + std::to_string(s.id) + (s.name.empty() ? "" : " (" + s.name + ")");
    }
    return text.empty() ? "none" : text;
}

}  // namespace

SelectionResult SelectStreams(const std::string& input, const std::string& list, std::vector<std::uint16_t>* ids,
                              std::string* error) {
    KEL::ReadKEL2File reader(input.c_str(), {.verifyChecksums = false, .logDamage = false});
    if (const KEL::KelErrorCode code = reader.Initialize(); code != KEL::KEL_OK) {
        *error = CannotOpen(input, reader, code);
        return SelectionResult::kUnreadable;
    }
    std::vector<FileStream> streams;
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        FileStream s{reader.GetStreamId(i), {}};
        if (const auto first = reader.GetFirstFrameAtom(s.id)) {
            if (const auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(
                    first->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false))) {
                s.name = info->GetName();
            }
        }
        streams.push_back(std::move(s));
    }
    ids->clear();
    if (Trim(list).empty()) {
        for (const FileStream& s : streams) {
            ids->push_back(s.id);
        }
        return SelectionResult::kOk;
    }
    std::stringstream in(list);
    for (std::string piece; std::getline(in, piece, ',');) {
        const std::string wanted = Trim(piece);
        unsigned id = 0;
        const auto [end, ec] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), id);
        const bool isNumber = ec == std::errc() && end == wanted.data() + wanted.size();
        const auto found = std::find_if(streams.begin(), streams.end(),
                                        [&](const FileStream& s) { return isNumber ? s.id == id : s.name == wanted; });
        if (found == streams.end()) {
            *error = "'" + input + "' has no stream " + (isNumber ? wanted : "named '" + wanted + "'") +
                     "; its streams are: " + Describe(streams);
            return SelectionResult::kUnknownStream;
        }
        if (std::find(ids->begin(), ids->end(), found->id) == ids->end()) {
            ids->push_back(found->id);
        }
    }
    return SelectionResult::kOk;
}

bool SelectStreamsOrFail(const std::string& input, const std::string& list, std::vector<std::uint16_t>* ids,
                         int* exitCode) {
    std::string error;
    switch (SelectStreams(input, list, ids, &error)) {
        case SelectionResult::kOk:
            return true;
        case SelectionResult::kUnknownStream:
            Fail(error);
            *exitCode = kExitUsage;
            return false;
        case SelectionResult::kUnreadable:
            *exitCode = Fail(error);
            return false;
    }
    return false;
}

}  // namespace KelTool
