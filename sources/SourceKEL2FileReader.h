#pragma once

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/FilterClassInfo.h>
#include <KEL/FilterParams.h>
#include <KEL/Profile.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/Source.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "optimization/OptimizedDataLoosener.h"

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
class SourceKEL2FileReader : public KEL::Source {
public:
    SourceKEL2FileReader();
    ~SourceKEL2FileReader() override;

    static KelCommon::Guid TheTypeGuid();
    static KEL::FilterClassInfo TheFilterClassInfo();

    KelCommon::Guid TypeGuid() const override;
    KEL::FilterClassInfo GetFilterClassInfo() const override;
    // A new copy of the output profile, or empty before initialisation.
    std::shared_ptr<KEL::Profile> GetOutputProfile() override;
    std::shared_ptr<KEL::Profile> GetAggregatedOutputProfile() override;
    std::uint32_t GetOutputNumStreams() override;
    // The included stream ids in file order.
    std::vector<std::uint32_t> GetStreamIds() override;
    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override;
    // Opens the file and prepares the included streams. On failure the
    // filter is left closed and the code is the reader's own for a file that
    // does not open, 4 for any other failure.
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override;
    KEL::KelErrorCode onDeInitialize() override;
    // The file's stream information with its frame count, or empty.
    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override;
    // 0 when the frame was pushed, 1 when nothing was pushed.
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, void* where) noexcept;
    static void operator delete(void* pointer) noexcept;
    static void operator delete(void* pointer, void* where) noexcept;

    static KelCommon::Guid sTypeGuid;
    static KEL::FilterClassInfo sFilterClassInfo;
    static int sRegistrationId;

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
    std::shared_ptr<KEL::Profile> profile_;
    std::vector<std::uint16_t> includedStreamIds_;
    std::shared_ptr<KEL::DataTypeStreamInfo> streamInfo_;
    OptimizedDataLooseners looseners_;
    std::shared_ptr<KEL::ReadKEL2File> reader_;
};

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* SourceKEL2FileReaderFilterCreator();
