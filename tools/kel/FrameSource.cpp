#include "FrameSource.h"

#include <KEL/FilterClassInfo.h>
#include <KelCommon/Guid.h>

namespace KelTool {

FrameSource::FrameSource(std::unique_ptr<KelFrames::FrameReader> reader, std::uint32_t begin, std::uint32_t end)
    : reader_(std::move(reader)),
      begin_(begin),
      info_(std::make_shared<KEL::DataTypeStreamInfo>(end > begin ? end - begin : 0)) {}

KelCommon::Guid FrameSource::TypeGuid() const {
    return KelCommon::Guid::FromHexString("5E1D3A4B-7C2F-4E8A-9B6D-0F1E2D3C4B5A");
}

KEL::FilterClassInfo FrameSource::GetFilterClassInfo() const {
    return KEL::FilterClassInfo("kel frame reader", KEL::FILTER_CATEGORY_SOURCE);
}

std::uint32_t FrameSource::GetOutputNumStreams() { return static_cast<std::uint32_t>(reader_->StreamIds().size()); }

std::vector<std::uint32_t> FrameSource::GetStreamIds() {
    return {reader_->StreamIds().begin(), reader_->StreamIds().end()};
}

std::shared_ptr<KEL::DataTypeStreamInfo> FrameSource::GetStreamInfo() { return info_; }

KEL::KelErrorCode FrameSource::pushDataToOutput(std::uint32_t frameNr) {
    const auto atoms = reader_->Frame(begin_ + frameNr);
    if (atoms.empty()) {
        return 1;
    }
    for (const auto& atom : atoms) {
        pushToOutputQueue(atom);
    }
    return KEL::KEL_OK;
}

}  // namespace KelTool
