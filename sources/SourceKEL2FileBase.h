#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/FilterParams.h>
#include <KEL/KelErrorCode.h>
#include <KEL/Profile.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/Source.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "optimization/OptimizedDataLoosener.h"

namespace Kel2File {

// What the sources that play container files have in common: the output
// they describe to the graph (profile, stream ids, stream information), one
// loosener per output stream, and the way a frame is fetched, checked,
// loosened and pushed. Each source fills the output state in its own
// onInitialize and empties it with ClearOutput when it closes its files.
//
// Like the sources built on it, it takes no locks: every hook runs on the
// graph thread, one at a time.
class SourceKEL2FileBase : public KEL::Source {
public:
    ~SourceKEL2FileBase() override;

    // A new copy of the output profile, or empty before initialisation.
    std::shared_ptr<KEL::Profile> GetOutputProfile() override;
    std::shared_ptr<KEL::Profile> GetAggregatedOutputProfile() override;
    std::uint32_t GetOutputNumStreams() override;
    // The output stream ids in output order, widened to 32 bits.
    std::vector<std::uint32_t> GetStreamIds() override;
    // The stream information with the output's frame count, or empty.
    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override;

protected:
    using Readers = std::vector<std::shared_ptr<KEL::ReadKEL2File>>;
    // The atom that a file holds for a stream at the frame being pushed, or
    // empty when it holds none.
    using AtomFetcher = std::function<std::shared_ptr<KEL::Atom>(std::uint16_t streamId)>;
    // The order in which the files of a directory are opened.
    enum class PathOrder {
        Sorted,    // byte-wise order of the canonical paths
        AsListed,  // the order in which the directory lists them
    };

    SourceKEL2FileBase();

    // Fetches the atom of every output stream, in output order, for frame
    // `fileFrameNr` of the files. Only when every atom is there and carries
    // the stream id asked for does it give each atom `outputFrameNr` (when
    // set), loosen it and push it; returns 0 then. Otherwise, and when there
    // are no output streams, nothing is pushed and the result is 1. A missing
    // atom is logged at level 6, a mismatched stream id at level 2.
    KEL::KelErrorCode PushFrame(std::uint32_t fileFrameNr, const AtomFetcher& fetch,
                                std::optional<std::uint32_t> outputFrameNr = std::nullopt);

    // Makes the loosener of `streamId` from its first atom in `reader`, with
    // the current stream information. False (logged at level 2) when the
    // reader has no first atom for the stream.
    bool SetupOptimizedDataLoosener(const std::shared_ptr<KEL::ReadKEL2File>& reader, std::uint16_t streamId);

    // Empties the output state: stream information, profile, stream ids and
    // looseners, in that order.
    void ClearOutput();

    // For the directory sources: creates the "KEL files dir" parameter on the
    // first call (default: the host's root value followed by "/kel_files")
    // and adds it on every call.
    KEL::KelErrorCode AddDirectoryParam(std::shared_ptr<KEL::FilterParamDirPath>& param);

    // For the directory sources: opens every ".kel" regular file directly in
    // `directory` in the given order, appending the readers to `readers`.
    // Stops at the first file that does not open and returns its reader's
    // code; 4 (logged at level 2) when there is no candidate.
    static KEL::KelErrorCode OpenKelFilesInDirectory(const std::string& directory, PathOrder order, Readers& readers);

    // For the directory sources, at the start of onInitialize: creates the
    // directory parameter if onInitializeParams did not, sets `directory` to
    // its absolute path, checks that the directory exists and fills
    // `readers` through `collect`. On failure reports the error (1 for a
    // missing directory, the collector's code, or 4 when no file was opened)
    // and returns the reported code.
    KEL::KelErrorCode OpenDirectoryReaders(
        std::shared_ptr<KEL::FilterParamDirPath>& param, std::string& directory, Readers& readers,
        const std::function<KEL::KelErrorCode(const std::string&, Readers&)>& collect);

    std::shared_ptr<KEL::Profile> profile_;
    std::vector<std::uint16_t> streamIds_;
    std::shared_ptr<KEL::DataTypeStreamInfo> streamInfo_;
    OptimizedDataLooseners looseners_;
};

}  // namespace Kel2File
