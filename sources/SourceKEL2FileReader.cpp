#include "sources/SourceKEL2FileReader.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <stdexcept>

#include "utils/ParameterNames.h"
#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

KEL::KelErrorCode SourceKEL2FileReader::onInitializeParams(KEL::Filter* filter) {
    if (!filePathParam_) {
        filePathParam_ = std::make_shared<KEL::FilterParamReadFilePath>(kParamKelFilePath, KEL::PARAM_FLAG_INIT_ONLY,
                                                                        nullptr, "kel");
    }
    if (!includedStreamsParam_) {
        includedStreamsParam_ =
            std::make_shared<KEL::FilterParamString>(kParamIncludedStreams, KEL::PARAM_FLAG_INIT_ONLY, "");
    }
    addParam(filePathParam_, true);
    addParam(includedStreamsParam_, true);
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2FileReader::onInitialize(KEL::Filter* filter) {
    if (!filePathParam_ || !includedStreamsParam_) {
        onInitializeParams(filter);
    }
    // A repeated initialisation starts from nothing, as after onDeInitialize.
    CloseReader();
    auto fail = [this](KEL::KelErrorCode code, const std::string& message) {
        CloseReader();
        return ReportError(code, message.c_str());
    };

    const std::string path = filePathParam_->GetAbsoluteFilePath();
    reader_ = std::make_shared<KEL::ReadKEL2File>(path.c_str());
    if (const KEL::KelErrorCode code = reader_->Initialize(); code != KEL::KEL_OK) {
        return fail(code, "Failed to open file '" + path + "'");
    }

    streamIds_ = DetermineStreamIDsCollection(ParseIncludedStreamIDs(includedStreamsParam_->GetValue()));
    if (streamIds_.empty()) {
        return fail(KEL::KEL_ERR_INVALID, "There are no included file streams");
    }

    // The output is described by the first atom of the file's first stream,
    // whether that stream is included or not.
    const auto firstAtom = reader_->GetFirstFrameAtom(reader_->GetFirstStreamId());
    if (!firstAtom) {
        return fail(KEL::KEL_ERR_INVALID, "There is no 'first' atom in the '" + path + "' file");
    }

    const std::uint32_t numFrames = Utils::DetermineFileNumFrames(reader_);
    if (numFrames == 0) {
        return fail(KEL::KEL_ERR_INVALID, "There are no atoms in the '" + path + "' file");
    }

    streamInfo_ = Utils::ExtractStreamInfo(firstAtom, numFrames);
    if (!streamInfo_) {
        return fail(KEL::KEL_ERR_INVALID, "Failed to extract stream info for the '" + path + "' file");
    }

    profile_ = Utils::DetermineProfile(firstAtom);
    if (!profile_) {
        return fail(KEL::KEL_ERR_INVALID, "Failed to determine profile for the '" + path + "' file");
    }

    if (!SetupOptimizedDataLooseners()) {
        return fail(KEL::KEL_ERR_INVALID, "Failed to setup data looseners");
    }
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2FileReader::onDeInitialize() {
    CloseReader();
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2FileReader::pushDataToOutput(std::uint32_t frameNr) {
    return PushFrame(frameNr,
                     [this, frameNr](std::uint16_t streamId) { return reader_->GetFrameAtom(streamId, frameNr); });
}

void SourceKEL2FileReader::CloseReader() {
    reader_.reset();
    ClearOutput();
}

std::unordered_set<std::uint16_t> SourceKEL2FileReader::ParseIncludedStreamIDs(const std::string& text) const {
    std::string expanded = KelCommon::VarManager::getInstance().translateFromVars(text.c_str());
    boost::algorithm::trim(expanded);

    // Adjacent separators are not merged: "1,,2" has an empty middle piece,
    // which is reported like any other piece that is not a number.
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, expanded, boost::algorithm::is_any_of(","), boost::algorithm::token_compress_off);

    std::unordered_set<std::uint16_t> streamIds;
    for (const std::string& piece : pieces) {
        try {
            // Stream ids are 16 bits wide; larger numbers wrap (65537 is 1).
            streamIds.insert(static_cast<std::uint16_t>(std::stoi(piece)));
        } catch (const std::logic_error&) {
            Log(kLogFailure, "Failed to parse 'included stream Id' from string '%s', skipping", piece.c_str());
        }
    }
    return streamIds;
}

std::vector<std::uint16_t> SourceKEL2FileReader::DetermineStreamIDsCollection(
    const std::unordered_set<std::uint16_t>& streamIds) const {
    if (streamIds.empty()) {
        Log(kLogDetail, "All file streams will be included");
    }
    std::vector<std::uint16_t> included;
    const int numStreams = reader_->GetNumStreams();
    for (int i = 0; i < numStreams; ++i) {
        const std::uint16_t streamId = reader_->GetStreamId(i);
        if (streamIds.empty() || streamIds.contains(streamId)) {
            included.push_back(streamId);
        }
    }
    return included;
}

bool SourceKEL2FileReader::SetupOptimizedDataLooseners() {
    const int numStreams = reader_->GetNumStreams();
    for (int i = 0; i < numStreams; ++i) {
        const std::uint16_t streamId = reader_->GetStreamId(i);
        if (std::find(streamIds_.begin(), streamIds_.end(), streamId) == streamIds_.end()) {
            continue;
        }
        if (!SetupOptimizedDataLoosener(reader_, streamId)) {
            return false;
        }
    }
    return true;
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2FileReaderFilterCreator() { return new Kel2File::SourceKEL2FileReader(); }
