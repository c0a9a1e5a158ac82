#include "sources/SourceKEL2MultiFileReader.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <limits>
#include <new>
#include <unordered_set>

#include "utils/Utils.h"

namespace Kel2File {

SourceKEL2MultiFileReader::SourceKEL2MultiFileReader() { looseners_.max_load_factor(1.0F); }

SourceKEL2MultiFileReader::~SourceKEL2MultiFileReader() = default;

KelCommon::Guid SourceKEL2MultiFileReader::TheTypeGuid() { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2MultiFileReader::TheFilterClassInfo() { return sFilterClassInfo; }

KelCommon::Guid SourceKEL2MultiFileReader::TypeGuid() const { return sTypeGuid; }

KEL::FilterClassInfo SourceKEL2MultiFileReader::GetFilterClassInfo() const { return sFilterClassInfo; }

std::shared_ptr<KEL::Profile> SourceKEL2MultiFileReader::GetOutputProfile() {
    if (!profile_) {
        return nullptr;
    }
    return std::make_shared<KEL::Profile>(*profile_);
}

std::shared_ptr<KEL::Profile> SourceKEL2MultiFileReader::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t SourceKEL2MultiFileReader::GetOutputNumStreams() { return static_cast<std::uint32_t>(streamIds_.size()); }

std::vector<std::uint32_t> SourceKEL2MultiFileReader::GetStreamIds() { return {streamIds_.begin(), streamIds_.end()}; }

KEL::KelErrorCode SourceKEL2MultiFileReader::onInitializeParams(KEL::Filter* filter) {
    if (!directoryParam_) {
        const std::string defaultDir = KelCommon::VarManager::getInstance().getRootValue().str() + "/kel_files";
        directoryParam_ = std::make_shared<KEL::FilterParamDirPath>("KEL files dir", 1, defaultDir.c_str());
    }
    addParam(directoryParam_, true);
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2MultiFileReader::onInitialize(KEL::Filter* filter) {
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

    // The only long-lived holder of the readers is the stream-reader map: a
    // file that holds no streams is closed when this list goes.
    Readers readers;
    if (const KEL::KelErrorCode code = CollectReadersForFilesInDirectory(directory, readers); code != KEL::KEL_OK) {
        return ReportError(code, ("Failed to collect kel files from '" + directory + "' directory").c_str());
    }
    if (readers.empty()) {
        return ReportError(KEL::KEL_ERR_INVALID,
                           ("Directory '" + directory + "' does not contain any valid kel files").c_str());
    }

    if (!PopulateStreamIDsAndReadersCollections(readers)) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to process kel files in the '" + directory + "' directory");
    }

    const std::uint32_t numFrames = DetermineTrueNumFrames();
    if (numFrames == 0) {
        return closeAndFail(KEL::KEL_ERR_INVALID,
                            "There are no atoms in kel files in the '" + directory + "' directory");
    }

    const std::uint16_t smallestStreamId = streamIds_.front();
    const std::string smallestStreamText = std::to_string(smallestStreamId);
    const auto firstAtom = streamReaders_.at(smallestStreamId)->GetFirstFrameAtom(smallestStreamId);
    if (!firstAtom) {
        return closeAndFail(KEL::KEL_ERR_INVALID,
                            "There is no 'first' atom in the file holding '" + smallestStreamText + "' stream");
    }

    streamInfo_ = Utils::ExtractStreamInfo(firstAtom, numFrames);
    if (!streamInfo_) {
        return closeAndFail(KEL::KEL_ERR_INVALID,
                            "Failed to extract stream info from the file holding '" + smallestStreamText + "' stream");
    }

    profile_ = Utils::DetermineProfile(firstAtom);

    if (!CheckProfilesAreTheSame()) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "All streams in all files must have the same profile");
    }

    if (!SetupOptimizedDataLooseners()) {
        return closeAndFail(KEL::KEL_ERR_INVALID, "Failed to setup data looseners");
    }
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2MultiFileReader::onDeInitialize() {
    CloseReaders();
    return KEL::KEL_OK;
}

std::shared_ptr<KEL::DataTypeStreamInfo> SourceKEL2MultiFileReader::GetStreamInfo() { return streamInfo_; }

KEL::KelErrorCode SourceKEL2MultiFileReader::pushDataToOutput(std::uint32_t frameNr) {
    if (GetOutputNumStreams() == 0) {
        return 1;
    }
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    atoms.reserve(streamIds_.size());
    for (const std::uint16_t streamId : streamIds_) {
        auto atom = streamReaders_.at(streamId)->GetFrameAtom(streamId, frameNr);
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

KEL::KelErrorCode SourceKEL2MultiFileReader::CollectReadersForFilesInDirectory(const std::string& directory,
                                                                               Readers& readers) const {
    const std::vector<std::string> paths = Utils::CollectPotentialKELFilesInDirectory(directory, false);
    if (paths.empty()) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(2, "KEL2File", "Directory '%s' does not contain a sequence of files", directory.c_str());
        }
        return KEL::KEL_ERR_INVALID;
    }
    // Files are combined by stream, so their order does not matter: they are
    // opened as the directory lists them.
    for (const std::string& path : paths) {
        auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
        if (const KEL::KelErrorCode code = reader->Initialize(); code != KEL::KEL_OK) {
            return code;
        }
        readers.push_back(std::move(reader));
    }
    return KEL::KEL_OK;
}

void* SourceKEL2MultiFileReader::operator new(std::size_t size) { return ::operator new(size); }

void* SourceKEL2MultiFileReader::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void SourceKEL2MultiFileReader::operator delete(void* pointer) noexcept { ::operator delete(pointer); }

void SourceKEL2MultiFileReader::operator delete(void* /*pointer*/, void* /*where*/) noexcept {}

bool SourceKEL2MultiFileReader::PopulateStreamIDsAndReadersCollections(const Readers& readers) {
    for (const auto& reader : readers) {
        const int numStreams = reader->GetNumStreams();
        for (int i = 0; i < numStreams; ++i) {
            const std::uint16_t streamId = reader->GetStreamId(i);
            if (streamReaders_.contains(streamId)) {
                if (auto log = KEL::GetKELLoggerInstance().lock()) {
                    log->LogMessage(2, "KEL2File", "Multiple files of the directory hold the same stream");
                }
                return false;
            }
            streamReaders_[streamId] = reader;
            streamIds_.push_back(streamId);
        }
    }
    if (streamReaders_.empty()) {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(2, "KEL2File", "There are no streams held by any of the files of the directory");
        }
        return false;
    }
    std::sort(streamIds_.begin(), streamIds_.end());
    return true;
}

std::uint32_t SourceKEL2MultiFileReader::DetermineTrueNumFrames() const {
    std::unordered_set<std::shared_ptr<KEL::ReadKEL2File>> readers;
    for (const auto& [streamId, reader] : streamReaders_) {
        readers.insert(reader);
    }
    std::uint32_t numFrames = std::numeric_limits<std::uint32_t>::max();
    for (const auto& reader : readers) {
        numFrames = std::min(numFrames, Utils::DetermineFileNumFrames(reader));
    }
    return numFrames;
}

bool SourceKEL2MultiFileReader::CheckProfilesAreTheSame() const {
    for (const std::uint16_t streamId : streamIds_) {
        const auto firstAtom = streamReaders_.at(streamId)->GetFirstFrameAtom(streamId);
        if (!firstAtom) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "There is no 'first' atom in the file holding '%d' stream", streamId);
            }
            return false;
        }
        const auto streamProfile = Utils::DetermineProfile(firstAtom);
        if (!profile_->Describes(streamProfile) || !streamProfile->Describes(profile_)) {
            if (auto log = KEL::GetKELLoggerInstance().lock()) {
                log->LogMessage(2, "KEL2File", "Profile of stream '%d' differs from the profile of the filter",
                                streamId);
            }
            return false;
        }
    }
    return true;
}

bool SourceKEL2MultiFileReader::SetupOptimizedDataLooseners() {
    // Unlike the sequential source, each stream is restored from its own file.
    for (const std::uint16_t streamId : streamIds_) {
        auto firstAtom = streamReaders_.at(streamId)->GetFirstFrameAtom(streamId);
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

void SourceKEL2MultiFileReader::CloseReaders() {
    streamReaders_.clear();
    streamInfo_.reset();
    profile_.reset();
    streamIds_.clear();
    looseners_.clear();
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileReaderFilterCreator() {
    return new Kel2File::SourceKEL2MultiFileReader();
}
