#pragma once

// Small source and target filters for driving the graph in tests. Every hook
// appends a line to a shared EventLog ("src.onPlay@4", "tgt.frame 1:2"), so a
// test can assert the exact order in which the graph called them, and can
// wait on the log for an event that happens on another thread.

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Graph.h>
#include <KEL/IFrameOrderResetListener.h>
#include <KEL/Source.h>
#include <KEL/Target.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace kel_test {

class EventLog {
public:
    void Add(const std::string& event) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back(event);
        }
        changed_.notify_all();
    }
    std::vector<std::string> Events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    // Blocks until `event` has been logged.
    void WaitFor(const std::string& event) const {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); });
    }
    std::size_t Count(const std::string& event) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
    }
    // Index of the first occurrence, or -1.
    long IndexOf(const std::string& event) const {
        std::lock_guard lock(mutex_);
        const auto it = std::find(events_.begin(), events_.end(), event);
        return it == events_.end() ? -1 : static_cast<long>(it - events_.begin());
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> events_;
};

// What a test filter does in one hook: succeed, report an error, or throw.
struct HookFault {
    std::string hook;            // e.g. "onPlay", "onProcessFrame"
    std::uint32_t frame = 0;     // for per-frame hooks: the frame it hits
    bool throws = false;         // throw std::runtime_error instead of returning
    KEL::KelErrorCode code = 4;  // returned through ReportError
    std::string message = "injected failure";
};

template <typename Base>
class RecordingFilter : public Base {
public:
    template <typename... Args>
    RecordingFilter(std::string tag, std::shared_ptr<EventLog> log, Args&&... args)
        : Base(std::forward<Args>(args)...), tag_(std::move(tag)), log_(std::move(log)) {}
    ~RecordingFilter() override { Record("destroyed"); }

    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return {"RecordingFilter", KEL::FILTER_CATEGORY_UNKNOWN};
    }

    KEL::KelErrorCode onInitializeParams(KEL::Filter*) override { return Hook("onInitializeParams"); }
    KEL::KelErrorCode onInitialize(KEL::Filter*) override { return Hook("onInitialize"); }
    KEL::KelErrorCode onDeInitialize() override { return Hook("onDeInitialize"); }
    KEL::KelErrorCode onPlay() override { return Hook("onPlay"); }
    KEL::KelErrorCode onPause() override { return Hook("onPause"); }
    KEL::KelErrorCode onStop() override { return Hook("onStop"); }

    void SetFault(HookFault fault) { fault_ = std::move(fault); }

protected:
    void Record(const std::string& what) { log_->Add(tag_ + "." + what); }

    // Logs "tag.hook@state" and applies the fault when it names this hook.
    KEL::KelErrorCode Hook(const std::string& hook, std::optional<std::uint32_t> frame = std::nullopt) {
        Record(hook + "@" + std::to_string(this->GetFilterState()));
        return MaybeFail(hook, frame);
    }
    KEL::KelErrorCode MaybeFail(const std::string& hook, std::optional<std::uint32_t> frame) {
        if (!fault_ || fault_->hook != hook || (frame && *frame != fault_->frame)) {
            return KEL::KEL_OK;
        }
        if (fault_->throws) {
            throw std::runtime_error(fault_->message);
        }
        return this->ReportError(fault_->code, fault_->message.c_str());
    }

    std::string tag_;
    std::shared_ptr<EventLog> log_;
    std::optional<HookFault> fault_;
};

// Pushes one MakeFrameAtom per stream for each frame; refuses the frames in
// `refused` and every frame from `refuseFrom` on.
class TestSource : public RecordingFilter<KEL::Source> {
public:
    TestSource(std::string tag, std::shared_ptr<EventLog> log, std::uint32_t numStreams,
               std::optional<std::uint32_t> numFrames)
        : RecordingFilter(std::move(tag), std::move(log)), numStreams_(numStreams), numFrames_(numFrames) {}

    std::set<std::uint32_t> refused;
    std::uint32_t refuseFrom = UINT32_MAX;

    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override {
        if (!numFrames_) {
            return nullptr;
        }
        return std::make_shared<KEL::DataTypeStreamInfo>(*numFrames_, 30.0, "test");
    }
    std::uint32_t GetOutputNumStreams() override { return numStreams_; }
    std::vector<std::uint32_t> GetStreamIds() override {
        std::vector<std::uint32_t> ids;
        for (std::uint32_t s = 0; s < numStreams_; ++s) {
            ids.push_back(s);
        }
        return ids;
    }
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override {
        Record("push " + std::to_string(frameNr));
        for (std::uint32_t s = 0; s < numStreams_; ++s) {
            pushToOutputQueue(MakeFrameAtom(static_cast<std::uint16_t>(s), frameNr));
        }
        if (const auto code = MaybeFail("pushDataToOutput", frameNr); code != KEL::KEL_OK) {
            return code;
        }
        return refused.count(frameNr) != 0 || frameNr >= refuseFrom ? 1 : 0;
    }

private:
    std::uint32_t numStreams_;
    std::optional<std::uint32_t> numFrames_;
};

// Logs every atom as "tag.frame <stream>:<frame>" and every update as
// "tag.post". Optionally a frame-order-reset listener that registers with its
// graph at play and unregisters at stop, and a filter whose IsDone is driven
// by the test.
class TestTarget : public RecordingFilter<KEL::Target>, public KEL::IFrameOrderResetListener {
public:
    TestTarget(std::string tag, std::shared_ptr<EventLog> log, bool acceptsAllStreams = true)
        : RecordingFilter(std::move(tag), std::move(log), acceptsAllStreams) {}

    bool listenWhilePlaying = false;
    // When set, IsDone is false until the test calls MarkDone.
    bool holdDone = false;
    std::function<void(TestTarget&, std::uint32_t frameNr)> onFrame;

    KEL::KelErrorCode onInitialize(KEL::Filter* parent) override {
        Record("inputs " + std::to_string(GetInputNumStreams()));
        return RecordingFilter::onInitialize(parent);
    }
    KEL::KelErrorCode onPlay() override {
        if (listenWhilePlaying && GetFilterState() == KEL::FILTER_STATE_INITIALIZED) {
            GetGraph()->RegisterFrameOrderResetListener(this);
        }
        return RecordingFilter::onPlay();
    }
    KEL::KelErrorCode onStop() override {
        if (listenWhilePlaying) {
            GetGraph()->UnregisterFrameOrderResetListener(this);
        }
        return RecordingFilter::onStop();
    }
    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        Record("frame " + std::to_string(atom->GetStreamId()) + ":" + std::to_string(atom->GetFrameNr()));
        if (onFrame) {
            onFrame(*this, atom->GetFrameNr());
        }
        return MaybeFail("onProcessFrame", atom->GetFrameNr());
    }
    KEL::KelErrorCode onPostUpdate() override {
        Record("post");
        return MaybeFail("onPostUpdate", std::nullopt);
    }
    void OnFrameOrderReset() override { Record("reset"); }

    bool IsDone() override {
        const bool inputDone = KEL::Target::IsDone();
        if (!holdDone) {
            return inputDone;
        }
        std::lock_guard lock(doneMutex_);
        if (inputDone && !askedWhileInputDone_) {
            askedWhileInputDone_ = true;
            Record("asked IsDone");
        }
        return inputDone && done_;
    }
    void MarkDone() {
        std::lock_guard lock(doneMutex_);
        done_ = true;
        Record("marked done");
    }

private:
    std::mutex doneMutex_;
    bool done_ = false;
    bool askedWhileInputDone_ = false;
};

}  // namespace kel_test
