#pragma once

#include <KEL/FilterParams.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "plugin/FilterClassBoilerplate.h"
#include "sources/SourceKEL2FileBase.h"

namespace Kel2File {

// Plays the container files of one directory side by side as one
// multi-stream source: each file holds different streams (as the per-stream
// writers make them), and frame n of the output is frame n of every file.
// Each stream must be held by exactly one file and every stream must carry
// the same profile. The output is as long as the shortest file; atoms keep
// the frame numbers stored in their files.
//
// Parameter (read at initialisation): "KEL files dir". Only the directory's
// own entries are read, in the order the file system lists them; the result
// does not depend on that order.
//
// All hooks run on the graph thread, one at a time; the filter takes no
// locks. Directory iteration and canonicalisation errors escape onInitialize
// as boost::filesystem::filesystem_error for the host to report.
//
// The output stream ids (GetStreamIds) are the union of the files' streams,
// ascending; the stream information is the smallest stream's with the common
// frame count.
class SourceKEL2MultiFileReader : public SourceKEL2FileBase {
    KEL2FILE_FILTER_CLASS_MEMBERS()

    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override;
    // Opens and checks every file of the directory. Codes: 1 when the
    // directory does not exist, a reader's own code for a file that does not
    // open, 4 for any other failure.
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override;
    KEL::KelErrorCode onDeInitialize() override;
    // 0 when the frame was pushed, 1 when nothing was pushed.
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

    // Opens every ".kel" regular file of `directory`, in directory order,
    // appending the readers to `readers`. Stops at the first file that does
    // not open and returns its reader's code; 4 when there is no candidate.
    KEL::KelErrorCode CollectReadersForFilesInDirectory(const std::string& directory,
                                                        std::vector<std::shared_ptr<KEL::ReadKEL2File>>& readers) const;

private:
    bool PopulateStreamIDsAndReadersCollections(const Readers& readers);
    std::uint32_t DetermineTrueNumFrames() const;
    bool CheckProfilesAreTheSame() const;
    bool SetupOptimizedDataLooseners();
    void CloseReaders();

    std::shared_ptr<KEL::FilterParamDirPath> directoryParam_;
    std::unordered_map<std::uint16_t, std::shared_ptr<KEL::ReadKEL2File>> streamReaders_;
};

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2MultiFileReaderFilterCreator();
