#include <KEL/FilterWithInput.h>

#include <utility>

namespace KEL {

FilterWithInput::FilterWithInput() = default;

FilterWithInput::~FilterWithInput() = default;

bool FilterWithInput::IsDone() { return inputFinished_.load(); }

std::shared_ptr<Profile> FilterWithInput::GetInputProfile() {
    std::lock_guard lock(inputMutex_);
    return inputProfile_;
}

void FilterWithInput::SetInputProfile(Filter* source, std::shared_ptr<Profile> profile) {
    std::vector<std::uint32_t> ids;
    std::uint32_t count = 0;
    if (source != nullptr) {
        ids = source->GetStreamIds();
        count = ids.empty() ? source->GetOutputNumStreams() : static_cast<std::uint32_t>(ids.size());
    }
    std::lock_guard lock(inputMutex_);
    inputSource_ = source;
    inputProfile_ = std::move(profile);
    inputStreamIds_ = std::move(ids);
    inputNumStreams_ = static_cast<std::int32_t>(count);
}

std::int32_t FilterWithInput::GetInputNumStreams() {
    std::lock_guard lock(inputMutex_);
    return inputNumStreams_;
}

std::vector<std::uint32_t> FilterWithInput::GetInputStreamIds() {
    std::lock_guard lock(inputMutex_);
    return inputStreamIds_;
}

KelErrorCode FilterWithInput::onProcessFrame(std::shared_ptr<Atom> /*atom*/) { return KEL_OK; }

KelErrorCode FilterWithInput::onPostUpdate() { return KEL_OK; }

}  // namespace KEL
