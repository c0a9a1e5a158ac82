#include "sources/SourceKEL2MultiFileAppend.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <new>

#include "utils/Utils.h"

namespace Kel2File {

SourceKEL2MultiFileAppend::SourceKEL2MultiFileAppend() { looseners_.max_load_factor(1.0F); }

SourceKEL2MultiFileAppend::~SourceKEL2MultiFileAppend() = default;

KelCommon::Guid SourceKEL2MultiFileAppend::TheTypeGuid() { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2MultiFileAppend::TheFilterClassInfo() { return sFilterClassInfo; }

KelCommon::Guid SourceKEL2MultiFileAppend::TypeGuid() const { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2MultiFileAppend::GetFilterClassInfo() const { return sFilterClassInfo; }

std::shared_ptr<KEL::Profile> SourceKEL2MultiFileAppend::GetOutputProfile() {
    if (!profile_) {
        return nullptr;
    }
    return std::make_shared<KEL::Profile>(*profile_);
}

std::shared_ptr<KEL::Profile> SourceKEL2MultiFileAppend::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t SourceKEL2MultiFileAppend::GetOutputNumStreams() { return static_cast<std::uint32_t>(streamIds_.size()); }

std::vector<std::uint32_t> SourceKEL2MultiFileAppend::GetStreamIds() { return {streamIds_.begin(), streamIds_.end()}; }

KEL::KelErrorCode SourceKEL2MultiFileAppend::onInitializeParams(KEL::Filter* filter) {
    if (!directoryParam_) {
        const std::string defaultDir = KelCommon::VarManager::getInstance().getRootValue().str() + "/kel_files";
        directoryParam_ = std::make_shared<KEL::FilterParamDirPath>("KEL files dir", 1, defaultDir.c_str());
    }
    addParam(directoryParam_, true);
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2MultiFileAppend::onInitialize(KEL::Filter* filter) {
    if (!directoryParam_) {
        onInitializeParams(filter);
    }
    // A repeated initialisation starts from nothing, as after onDeInitialize.
    CloseReaders();
    auto closeAndFail = [this](KEL::KelErrorCode code, const std::string& message) {
        CloseReaders();
        return ReportError(code, message.c_str());
    };

    const std::string directory = directoryParam_->GetAbsoluteDirPath();
    boost::system::error_code statusError;
    if (!boost::filesystem::is_directory(boost::filesystem::status(directory, statusError))) {
        return ReportError(KEL::KEL_ERR_NOT_FOUND, ("Directory '" + directory + "' does not exist").c_str());
    }

    // The only long-lived holder of the readers is the frame table: a file
    // that contributes no frames is closed when this list goes.
    Readers readers;
    if (const KEL::KelErrorCode code = CollectReadersForFilesInDirectory(directory, readers); code != KEL::KEL_OK) {
        return ReportError(code, ("Failed to collect kel files from '" + directory + "' directory").c_str());
    }
    if (readers.empty()) {
        return ReportError(KEL::KEL_ERR_INVALID,
                           ("Directory '" + directory + "' does not contain any valid kel files").c_str());
    }

    streamIds_ = ExtractReaderStreamIDs(readers.front());
    if (streamIds_.empty()) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to extract stream IDs from the first file");
    }

    profile_ = DetermineReaderProfile(readers.front());
    if (!profile_) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to determine profile from the first file");
    }

    if (!CheckProfilesAndStreamsAreTheSame(readers)) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to process kel files in the '" + directory + "' directory");
    }

    const std::uint32_t numFrames = PopulateReadersCollection(readers);
    if (frameTable_.empty()) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to process kel files in the '" + directory + "' directory");
    }
    if (numFrames == 0) {
        return closeAndFail(KEL::KEL_ERR_INVALID,
                            "There are no atoms in kel files in the '" + directory + "' directory");
    }

    // The stream information comes from the first file in path order, even
    // when that file has no frames, and announces the whole directory's count.
    const std::uint16_t smallestStreamId = streamIds_.front();
    streamInfo_ = Utils::ExtractStreamInfo(readers.front()->GetFirstFrameAtom(smallestStreamId), numFrames);
    if (!streamInfo_) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to extract stream info from the file holding '" +
                                                      std::to_string(smallestStreamId) + "' stream");
    }

    if (!SetupOptimizedDataLooseners()) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to setup data looseners");
    }
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2MultiFileAppend::onDeInitialize() {
    CloseReaders();
    return KEL::KEL_OK;
}

std::shared_ptr<KEL::DataTypeStreamInfo> SourceKEL2MultiFileAppend::GetStreamInfo() { return streamInfo_; }

KEL::KelErrorCode SourceKEL2MultiFileAppend::pushDataToOutput(std::uint32_t frameNr) {
    if (GetOutputNumStreams() == 0) {
        return 1;
    }
    const auto entry = frameTable_.find(frameNr);
    if (entry == frameTable_.end()) {
        return 1;
    }
    const auto& [reader, localFrameNr] = entry->second;

    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    atoms.reserve(streamIds_.size());
    for (const std::uint16_t streamId : streamIds_) {
        auto atom = reader->GetFrameAtom(streamId, localFrameNr);
        if (!atom) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(6, "KEL2File", "Stream '%d' lacks an atom with frame number '%d'", streamId,
                                static_cast<int>(localFrameNr));
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
        atom->SetFrameNr(frameNr);
        atoms.push_back(std::move(atom));
    }
    for (auto& atom : atoms) {
        Utils::LoosenOptimizedData(atom, looseners_);
        pushToOutputQueue(std::move(atom));
    }
    return 0;
}

KEL::KelErrorCode SourceKEL2MultiFileAppend::CollectReadersForFilesInDirectory(const std::string& directory,
                                                                               Readers& readers) const {
    std::vector<std::string> paths = Utils::CollectPotentialKELFilesInDirectory(directory, false);
    if (paths.empty()) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(2, "KEL2File", "Directory '%s' does not contain a sequence of files", directory.c_str());
        }
        return KEL::KEL_ERR_INVALID;
    }
    // Byte-wise order of the whole canonical path: take10.kel before take2.kel.
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) {
        auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
        if (const KEL::KelErrorCode code = reader->Initialize(); code != KEL::KEL_OK) {
            return code;
        }
        readers.push_back(std::move(reader));
    }
    return KEL::KEL_OK;
}

void* SourceKEL2MultiFileAppend::operator new(std::size_t size) { return ::operator new(size); }

void* SourceKEL2MultiFileAppend::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void SourceKEL2MultiFileAppend::operator delete(void* pointer) noexcept { ::operator delete(pointer); }

void SourceKEL2MultiFileAppend::operator delete(void* /*pointer*/, void* /*where*/) noexcept {}

std::vector<std::uint16_t> SourceKEL2MultiFileAppend::ExtractReaderStreamIDs(
    const std::shared_ptr<KEL::ReadKEL2File>& reader) const {
    std::vector<std::uint16_t> streamIds;
    const int numStreams = reader->GetNumStreams();
    for (int i = 0; i < numStreams; ++i) {
        streamIds.push_back(reader->GetStreamId(i));
    }
    std::sort(streamIds.begin(), streamIds.end());
    return streamIds;
}

std::shared_ptr<KEL::Profile> SourceKEL2MultiFileAppend::DetermineReaderProfile(
    const std::shared_ptr<KEL::ReadKEL2File>& reader) const {
    const std::uint16_t streamId = reader->GetFirstStreamId();
    const auto atom = reader->GetFirstFrameAtom(streamId);
    if (!atom) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(2, "KEL2File", "There is no 'first' atom in the '%d' stream of a file", streamId);
        }
        return nullptr;
    }
    auto profile = Utils::DetermineProfile(atom);
    if (!profile) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(2, "KEL2File", "Failed to determine profile for a file");
        }
        return nullptr;
    }
    return profile;
}

bool SourceKEL2MultiFileAppend::CheckProfilesAndStreamsAreTheSame(const Readers& readers) const {
    for (const auto& reader : readers) {
        if (ExtractReaderStreamIDs(reader) != streamIds_) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "All files in the directory must hold the same collection of streams");
            }
            return false;
        }
        const auto fileProfile = DetermineReaderProfile(reader);
        if (!profile_->Describes(fileProfile) || !fileProfile->Describes(profile_)) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "All files in the directory must have the same profile");
            }
            return false;
        }
    }
    return true;
}

std::uint32_t SourceKEL2MultiFileAppend::PopulateReadersCollection(const Readers& readers) {
    std::uint32_t globalFrameNr = 0;
    for (const auto& reader : readers) {
        const std::uint32_t numFrames = Utils::DetermineFileNumFrames(reader);
        for (std::uint32_t localFrameNr = 0; localFrameNr < numFrames; ++localFrameNr) {
            frameTable_[globalFrameNr] = {reader, localFrameNr};
            ++globalFrameNr;
        }
    }
    return globalFrameNr;
}

bool SourceKEL2MultiFileAppend::SetupOptimizedDataLooseners() {
    // Every file is restored from the first file that has frames.
    const auto& reader = frameTable_.at(0).first;
    for (const std::uint16_t streamId : streamIds_) {
        auto firstAtom = reader->GetFirstFrameAtom(streamId);
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

void SourceKEL2MultiFileAppend::CloseReaders() {
    frameTable_.clear();
    streamInfo_.reset();
    profile_.reset();
    streamIds_.clear();
    looseners_.clear();
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileAppendFilterCreator() {
    return new Kel2File::SourceKEL2MultiFileAppend();
}
