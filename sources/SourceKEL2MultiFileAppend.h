#pragma once

#include <KEL/FilterParams.h>
#include <KEL/Profile.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "plugin/FilterClassBoilerplate.h"
#include "sources/SourceKEL2FileBase.h"

namespace Kel2File {

// Plays the container files of one directory one after another as a single
// sequence with continuous frame numbers: frame 0 of the second file (in
// byte-wise order of the paths) follows the last frame of the first. Every
// file must hold the same streams with the same profile. Pushed atoms carry
// the global frame number and have their stream-level data restored from the
// first file that has frames.
//
// Parameter (read at initialisation): "KEL files dir". Only the directory's
// own entries are read, not its subdirectories.
//
// All hooks run on the graph thread, one at a time; the filter takes no
// locks. Directory iteration and canonicalisation errors escape onInitialize
// as boost::filesystem::filesystem_error for the host to report.
//
// The output stream ids (GetStreamIds) are ascending; the stream information
// is the first file's with the total frame count of all files.
class SourceKEL2MultiFileAppend : public SourceKEL2FileBase {
    KEL2FILE_FILTER_CLASS_MEMBERS()

    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override;
    // Opens and checks every file of the directory. Codes: 1 when the
    // directory does not exist, a reader's own code for a file that does not
    // open, 4 for any other failure.
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override;
    KEL::KelErrorCode onDeInitialize() override;
    // 0 when the frame was pushed, 1 when nothing was pushed (also beyond
    // the last frame).
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

    // Opens every ".kel" regular file of `directory`, in sorted path order,
    // appending the readers to `readers`. Stops at the first file that does
    // not open and returns its reader's code; 4 when there is no candidate.
    KEL::KelErrorCode CollectReadersForFilesInDirectory(const std::string& directory,
                                                        std::vector<std::shared_ptr<KEL::ReadKEL2File>>& readers) const;

private:
    // Global frame number -> the file holding it and its frame number there.
    using FrameTable = std::unordered_map<std::uint32_t, std::pair<std::shared_ptr<KEL::ReadKEL2File>, std::uint32_t>>;

    std::vector<std::uint16_t> ExtractReaderStreamIDs(const std::shared_ptr<KEL::ReadKEL2File>& reader) const;
    std::shared_ptr<KEL::Profile> DetermineReaderProfile(const std::shared_ptr<KEL::ReadKEL2File>& reader) const;
    bool CheckProfilesAndStreamsAreTheSame(const Readers& readers) const;
    std::uint32_t PopulateReadersCollection(const Readers& readers);
    bool SetupOptimizedDataLooseners();
    void CloseReaders();

    std::shared_ptr<KEL::FilterParamDirPath> directoryParam_;
    FrameTable frameTable_;
};

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileAppendFilterCreator();
