#pragma once

#include <KEL/Atom.h>
#include <KEL/Filter.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace KEL {

// A filter that receives atoms from one upstream source.
class KEL_API FilterWithInput : public Filter {
public:
    FilterWithInput();
    ~FilterWithInput() override;

    // True once the upstream source has delivered its last frame of the run.
    bool IsDone() override;

    virtual std::shared_ptr<Profile> GetInputProfile();
    // Host side, before onInitialize: the upstream filter and its output
    // profile. The input stream ids are taken from `source`'s GetStreamIds(),
    // their number from the same list or, for a source that does not list
    // its ids, from its GetOutputNumStreams().
    virtual void SetInputProfile(Filter* source, std::shared_ptr<Profile> profile);
    // The number of atoms each frame brings (one per input stream).
    virtual std::int32_t GetInputNumStreams();
    virtual std::vector<std::uint32_t> GetInputStreamIds();
    // One atom of the current frame; atoms of a frame come one per input
    // stream, in stream order, followed by onPostUpdate.
    virtual KelErrorCode onProcessFrame(std::shared_ptr<Atom> atom);
    // After all atoms of a frame.
    virtual KelErrorCode onPostUpdate();

    // Host side.
    void SetInputFinished(bool finished) noexcept { inputFinished_.store(finished); }
    Filter* GetInputSource() const noexcept { return inputSource_; }

private:
    std::atomic<bool> inputFinished_{false};
    Filter* inputSource_ = nullptr;
    mutable std::mutex inputMutex_;
    std::shared_ptr<Profile> inputProfile_;
    std::vector<std::uint32_t> inputStreamIds_;
    std::int32_t inputNumStreams_ = 0;
};

}  // namespace KEL
