#include "sources/SourceKEL2MultiFileAppend.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>

#include <algorithm>

#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

KEL::KelErrorCode SourceKEL2MultiFileAppend::onInitializeParams(KEL::Filter* /*filter*/) {
    return AddDirectoryParam(directoryParam_);
}

KEL::KelErrorCode SourceKEL2MultiFileAppend::onInitialize(KEL::Filter* /*filter*/) {
    // A repeated initialisation starts from nothing, as after onDeInitialize.
    CloseReaders();
    auto closeAndFail = [this](KEL::KelErrorCode code, const std::string& message) {
        CloseReaders();
        return ReportError(code, message.c_str());
    };

    // The only long-lived holder of the readers is the frame table: a file
    // that contributes no frames is closed when this list goes.
    std::string directory;
    Readers readers;
    const auto collect = [this](const std::string& dir, Readers& found) {
        return CollectReadersForFilesInDirectory(dir, found);
    };
    if (const KEL::KelErrorCode code = OpenDirectoryReaders(directoryParam_, directory, readers, collect);
        code != KEL::KEL_OK) {
        return code;
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

KEL::KelErrorCode SourceKEL2MultiFileAppend::pushDataToOutput(std::uint32_t frameNr) {
    const auto entry = frameTable_.find(frameNr);
    if (entry == frameTable_.end()) {
        return 1;
    }
    const auto& [reader, localFrameNr] = entry->second;
    return PushFrame(
        localFrameNr,
        [&reader = reader, localFrameNr = localFrameNr](std::uint16_t streamId) {
            return reader->GetFrameAtom(streamId, localFrameNr);
        },
        frameNr);
}

KEL::KelErrorCode SourceKEL2MultiFileAppend::CollectReadersForFilesInDirectory(const std::string& directory,
                                                                               Readers& readers) const {
    // Byte-wise order of the whole canonical path: take10.kel before take2.kel.
    return OpenKelFilesInDirectory(directory, PathOrder::Sorted, readers);
}

std::vector<std::uint16_t> SourceKEL2MultiFileAppend::ExtractReaderStreamIDs(
    const std::shared_ptr<KEL::ReadKEL2File>& reader) const {
    std::vector<std::uint16_t> streamIds;
    const int numStreams = reader->GetNumStreams();
    streamIds.reserve(static_cast<std::size_t>(std::max(numStreams, 0)));
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
        Log(kLogFailure, "There is no 'first' atom in the '%d' stream of a file", streamId);
        return nullptr;
    }
    auto profile = Utils::DetermineProfile(atom);
    if (!profile) {
        Log(kLogFailure, "Failed to determine profile for a file");
        return nullptr;
    }
    return profile;
}

bool SourceKEL2MultiFileAppend::CheckProfilesAndStreamsAreTheSame(const Readers& readers) const {
    for (const auto& reader : readers) {
        if (ExtractReaderStreamIDs(reader) != streamIds_) {
            Log(kLogFailure, "All files in the directory must hold the same collection of streams");
            return false;
        }
        const auto fileProfile = DetermineReaderProfile(reader);
        if (!profile_->Describes(fileProfile) || !fileProfile->Describes(profile_)) {
            Log(kLogFailure, "All files in the directory must have the same profile");
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
        if (!SetupOptimizedDataLoosener(reader, streamId)) {
            return false;
        }
    }
    return true;
}

void SourceKEL2MultiFileAppend::CloseReaders() {
    frameTable_.clear();
    ClearOutput();
}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileAppendFilterCreator() {
    return new Kel2File::SourceKEL2MultiFileAppend();
}
