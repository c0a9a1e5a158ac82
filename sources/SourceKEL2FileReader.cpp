#include "sources/SourceKEL2FileReader.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <new>
#include <stdexcept>

#include "utils/Utils.h"

namespace Kel2File {

SourceKEL2FileReader::SourceKEL2FileReader() { looseners_.max_load_factor(1.0F); }

SourceKEL2FileReader::~SourceKEL2FileReader() = default;

KelCommon::Guid SourceKEL2FileReader::TheTypeGuid() { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2FileReader::TheFilterClassInfo() { return sFilterClassInfo; }

KelCommon::Guid SourceKEL2FileReader::TypeGuid() const { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2FileReader::GetFilterClassInfo() const { return sFilterClassInfo; }

std::shared_ptr<KEL::Profile> SourceKEL2FileReader::GetOutputProfile() {
    if (!profile_) {
        return nullptr;
    }
    return std::make_shared<KEL::Profile>(*profile_);
}

std::shared_ptr<KEL::Profile> SourceKEL2FileReader::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t SourceKEL2FileReader::GetOutputNumStreams() {
    return static_cast<std::uint32_t>(includedStreamIds_.size());
}

std::vector<std::uint32_t> SourceKEL2FileReader::GetStreamIds() {
    return {includedStreamIds_.begin(), includedStreamIds_.end()};
}

KEL::KelErrorCode SourceKEL2FileReader::onInitializeParams(KEL::Filter* filter) {
    if (!filePathParam_) {
        filePathParam_ = std::make_shared<KEL::FilterParamReadFilePath>("KEL File Path", 1, nullptr, "kel");
    }
    if (!includedStreamsParam_) {
        includedStreamsParam_ = std::make_shared<KEL::FilterParamString>("Included streams", 1, "");
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

    includedStreamIds_ = DetermineStreamIDsCollection(ParseIncludedStreamIDs(includedStreamsParam_->GetValue()));
    if (includedStreamIds_.empty()) {
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

std::shared_ptr<KEL::DataTypeStreamInfo> SourceKEL2FileReader::GetStreamInfo() { return streamInfo_; }

KEL::KelErrorCode SourceKEL2FileReader::pushDataToOutput(std::uint32_t frameNr) {
    if (GetOutputNumStreams() == 0) {
        return 1;
    }
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    atoms.reserve(includedStreamIds_.size());
    for (const std::uint16_t streamId : includedStreamIds_) {
        auto atom = reader_->GetFrameAtom(streamId, frameNr);
        if (!atom) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(6, "KEL2File", "Stream '%d' lacks an atom with frame number '%d'", streamId,
                                static_cast<int>(frameNr));
            }
            return 1;
        }
        if (atom->GetStreamId() != streamId) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "Stream ID '%d' of atom returned for stream '%d' differs",
                                atom->GetStreamId(), streamId);
            }
            return 1;
        }
        atoms.push_back(std::move(atom));
    }
    for (auto& atom : atoms) {
        Utils::LoosenOptimizedData(atom, looseners_);
        pushToOutputQueue(std::move(atom));
    }
    return 0;
}

void* SourceKEL2FileReader::operator new(std::size_t size) { return ::operator new(size); }

void* SourceKEL2FileReader::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void SourceKEL2FileReader::operator delete(void* pointer) noexcept { ::operator delete(pointer); }

void SourceKEL2FileReader::operator delete(void* /*pointer*/, void* /*where*/) noexcept {}

void SourceKEL2FileReader::CloseReader() {
    reader_.reset();
    streamInfo_.reset();
    profile_.reset();
    includedStreamIds_.clear();
    looseners_.clear();
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
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "Failed to parse 'included stream Id' from string '%s', skipping",
                                piece.c_str());
            }
        }
    }
    return streamIds;
}

std::vector<std::uint16_t> SourceKEL2FileReader::DetermineStreamIDsCollection(
    const std::unordered_set<std::uint16_t>& streamIds) const {
    if (streamIds.empty()) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(6, "KEL2File", "All file streams will be included");
        }
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
        if (std::find(includedStreamIds_.begin(), includedStreamIds_.end(), streamId) == includedStreamIds_.end()) {
            continue;
        }
        auto firstAtom = reader_->GetFirstFrameAtom(streamId);
        if (!firstAtom) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File",
                                "There is no 'first' atom in the '%d' stream, can not setup optimized data loosener",
                                streamId);
            }
            return false;
        }
        looseners_[streamId] = std::make_shared<const OptimizedDataLoosener>(std::move(firstAtom), streamInfo_);
    }
    return true;
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2FileReaderFilterCreator() { return new Kel2File::SourceKEL2FileReader(); }
