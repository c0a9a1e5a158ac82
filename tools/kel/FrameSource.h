#pragma once

#include <KEL/Source.h>

#include <cstdint>
#include <memory>

#include "frames/FrameReader.h"

namespace KelTool {

// The source of the conversions: plays the positions [begin, end) of a
// FrameReader into a graph, every stream restored from its own first atom,
// so that copies keep each stream's name, rate and frame count (the plugin's
// file sources give every stream the first one's). A frame with a damaged
// atom is not pushed, as the plugin's sources do; the readers record it.
class FrameSource final : public KEL::Source {
public:
    FrameSource(std::unique_ptr<KelFrames::FrameReader> reader, std::uint32_t begin, std::uint32_t end);

    KelCommon::Guid TypeGuid() const override;
    KEL::FilterClassInfo GetFilterClassInfo() const override;
    std::uint32_t GetOutputNumStreams() override;
    std::vector<std::uint32_t> GetStreamIds() override;
    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override;
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

private:
    std::unique_ptr<KelFrames::FrameReader> reader_;
    std::uint32_t begin_;
    std::shared_ptr<KEL::DataTypeStreamInfo> info_;
};

}  // namespace KelTool
