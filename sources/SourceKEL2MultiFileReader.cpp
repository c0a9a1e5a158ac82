#include "sources/SourceKEL2MultiFileReader.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>

#include <algorithm>
#include <limits>
#include <unordered_set>

#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

KEL::KelErrorCode SourceKEL2MultiFileReader::onInitializeParams(KEL::Filter* /*filter*/) {
    return AddDirectoryParam(directoryParam_);
}

KEL::KelErrorCode SourceKEL2MultiFileReader::onInitialize(KEL::Filter* /*filter*/) {
    // A repeated initialisation starts from nothing, as after onDeInitialize.
    CloseReaders();
    auto closeAndFail = [this](KEL::KelErrorCode code, const std::string& message) {
        CloseReaders();
        return ReportError(code, message.c_str());
    };

    // The only long-lived holder of the readers is the stream-reader map: a
    // file that holds no streams is closed when this list goes.
    std::string directory;
    Readers readers;
    const auto collect = [this](const std::string& dir, Readers& found) {
        return CollectReadersForFilesInDirectory(dir, found);
    };
    if (const KEL::KelErrorCode code = OpenDirectoryReaders(directoryParam_, directory, readers, collect);
        code != KEL::KEL_OK) {
        return code;
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

KEL::KelErrorCode SourceKEL2MultiFileReader::pushDataToOutput(std::uint32_t frameNr) {
    return PushFrame(frameNr, [this, frameNr](std::uint16_t streamId) {
        return streamReaders_.at(streamId)->GetFrameAtom(streamId, frameNr);
    });
}

KEL::KelErrorCode SourceKEL2MultiFileReader::CollectReadersForFilesInDirectory(const std::string& directory,
                                                                               Readers& readers) const {
    // Files are combined by stream, so their order does not matter: they are
    // opened as the directory lists them.
    return OpenKelFilesInDirectory(directory, PathOrder::AsListed, readers);
}

bool SourceKEL2MultiFileReader::PopulateStreamIDsAndReadersCollections(const Readers& readers) {
    for (const auto& reader : readers) {
        const int numStreams = reader->GetNumStreams();
        for (int i = 0; i < numStreams; ++i) {
            const std::uint16_t streamId = reader->GetStreamId(i);
            if (streamReaders_.contains(streamId)) {
                Log(kLogFailure, "Multiple files of the directory hold the same stream");
                return false;
            }
            streamReaders_[streamId] = reader;
            streamIds_.push_back(streamId);
        }
    }
    if (streamReaders_.empty()) {
        Log(kLogFailure, "There are no streams held by any of the files of the directory");
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
            Log(kLogFailure, "There is no 'first' atom in the file holding '%d' stream", streamId);
            return false;
        }
        const auto streamProfile = Utils::DetermineProfile(firstAtom);
        if (!profile_->Describes(streamProfile) || !streamProfile->Describes(profile_)) {
            Log(kLogFailure, "Profile of stream '%d' differs from the profile of the filter", streamId);
            return false;
        }
    }
    return true;
}

bool SourceKEL2MultiFileReader::SetupOptimizedDataLooseners() {
    // Unlike the sequential source, each stream is restored from its own file.
    for (const std::uint16_t streamId : streamIds_) {
        if (!SetupOptimizedDataLoosener(streamReaders_.at(streamId), streamId)) {
            return false;
        }
    }
    return true;
}

void SourceKEL2MultiFileReader::CloseReaders() {
    streamReaders_.clear();
    ClearOutput();
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileReaderFilterCreator() {
    return new Kel2File::SourceKEL2MultiFileReader();
}
