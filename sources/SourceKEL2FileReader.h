#pragma once

#include <KEL/FilterParams.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "plugin/FilterClassBoilerplate.h"
#include "sources/SourceKEL2FileBase.h"

namespace Kel2File {

// Plays one container file: on each frame request it pushes that frame's
// atom of every included stream, with the stream-level data that writers
// optimize away restored. A frame is pushed whole or not at all.
//
// Parameters (read at initialisation): "KEL File Path", the file to play, and
// "Included streams", a comma-separated list of stream ids (empty: all).
//
// All hooks run on the graph thread, one at a time; the filter takes no
// locks. The file stays open from a successful onInitialize to
// onDeInitialize, after which the filter may be initialised again.
//
// The output stream ids (GetStreamIds) are the included ones in file order.
class SourceKEL2FileReader : public SourceKEL2FileBase {
    KEL2FILE_FILTER_CLASS_MEMBERS()

    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override;
    // Opens the file and prepares the included streams. On failure the
    // filter is left closed and the code is the reader's own for a file that
    // does not open, 4 for any other failure.
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override;
    KEL::KelErrorCode onDeInitialize() override;
    // 0 when the frame was pushed, 1 when nothing was pushed.
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

private:
    void CloseReader();
    // Stream ids from the "Included streams" text; pieces that are not
    // numbers are logged and skipped.
    std::unordered_set<std::uint16_t> ParseIncludedStreamIDs(const std::string& text) const;
    // The file's stream ids that are in `streamIds` (all when it is empty),
    // in file order.
    std::vector<std::uint16_t> DetermineStreamIDsCollection(const std::unordered_set<std::uint16_t>& streamIds) const;
    bool SetupOptimizedDataLooseners();

    std::shared_ptr<KEL::FilterParamReadFilePath> filePathParam_;
    std::shared_ptr<KEL::FilterParamString> includedStreamsParam_;
    std::shared_ptr<KEL::ReadKEL2File> reader_;
};

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2FileReaderFilterCreator();
