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
    if (source != nullptr) {
        ids = source->GetStreamIds();
    }
    std::lock_guard lock(inputMutex_);
    inputSource_ = source;
    inputProfile_ = std::move(profile);
    inputStreamIds_ = std::move(ids);
}

std::int32_t FilterWithInput::GetInputNumStreams() {
    std::lock_guard lock(inputMutex_);
    return static_cast<std::int32_t>(inputStreamIds_.size());
}

std::vector<std::uint32_t> FilterWithInput::GetInputStreamIds() {
    std::lock_guard lock(inputMutex_);
    return inputStreamIds_;
}

KelErrorCode FilterWithInput::onProcessFrame(std::shared_ptr<Atom> /*atom*/) { return KEL_OK; }

KelErrorCode FilterWithInput::onPostUpdate() { return KEL_OK; }

}  // namespace KEL
