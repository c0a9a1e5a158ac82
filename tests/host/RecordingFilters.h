#pragma once

// Small source and target filters for driving the graph in tests. Every hook
// appends a line to a shared EventLog ("src.onPlay@4", "tgt.frame 1:2"; the
// number after "@" is the filter's state inside the hook), so a test can
// assert the exact order in which the graph called them, and can wait on the
// log for an event that happens on another thread.

#include <KEL/Graph.h>
#include <KEL/Target.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace kel_test {

class EventLog {
public:
    void Add(const std::string& event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }
    std::vector<std::string> Events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    // Blocks until `event` has been logged `times` times.
    void WaitFor(const std::string& event, std::size_t times = 1) const {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return CountLocked(event) >= times; });
    }
    std::size_t Count(const std::string& event) const {
        std::lock_guard lock(mutex_);
        return CountLocked(event);
    }

private:
    std::size_t CountLocked(const std::string& event) const {
        return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
    }
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> events_;
};

// Makes a test filter fail in one hook: return `code` through ReportError,
// or throw. Per-frame hooks fail at `frame` only.
struct HookFault {
    std::string hook;
    std::uint32_t frame = 0;
    bool throws = false;
    KEL::KelErrorCode code = KEL::KEL_ERR_INVALID;
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

    std::optional<HookFault> fault;

protected:
    void Record(const std::string& what) { log_->Add(tag_ + "." + what); }
    KEL::KelErrorCode Hook(const std::string& hook) {
        Record(hook + "@" + std::to_string(this->GetFilterState()));
        return MaybeFail(hook);
    }
    KEL::KelErrorCode MaybeFail(const std::string& hook, std::optional<std::uint32_t> frame = std::nullopt) {
        if (!fault || fault->hook != hook || (frame && *frame != fault->frame)) {
            return KEL::KEL_OK;
        }
        if (fault->throws) {
            throw std::runtime_error(fault->message);
        }
        return this->ReportError(fault->code, fault->message.c_str());
    }

private:
    std::string tag_;
    std::shared_ptr<EventLog> log_;
};

// Pushes one MakeFrameAtom per stream for each frame it does not refuse.
// Without a frame count it has no stream information.
class TestSource : public RecordingFilter<KEL::Source> {
public:
    TestSource(std::string tag, std::shared_ptr<EventLog> log, std::uint32_t numStreams,
               std::optional<std::uint32_t> numFrames)
        : RecordingFilter(std::move(tag), std::move(log)), numStreams_(numStreams), numFrames_(numFrames) {}

    std::function<bool(std::uint32_t frameNr)> refuses = [](std::uint32_t) { return false; };

    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override {
        return numFrames_ ? std::make_shared<KEL::DataTypeStreamInfo>(*numFrames_, 30.0, "test") : nullptr;
    }
    std::uint32_t GetOutputNumStreams() override { return numStreams_; }
    std::vector<std::uint32_t> GetStreamIds() override {
        std::vector<std::uint32_t> ids(numStreams_);
        std::iota(ids.begin(), ids.end(), 0U);
        return ids;
    }
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override {
        Record("push " + std::to_string(frameNr));
        for (std::uint32_t s = 0; s < numStreams_; ++s) {
            pushToOutputQueue(MakeFrameAtom(static_cast<std::uint16_t>(s), frameNr));
        }
        // A reader that fails to read an atom may queue nothing for it: the
        // queue must drop it rather than hand a null atom to the targets.
        pushToOutputQueue(nullptr);
        const auto code = MaybeFail("pushDataToOutput", frameNr);
        return code != KEL::KEL_OK || !refuses(frameNr) ? code : 1;
    }

private:
    std::uint32_t numStreams_;
    std::optional<std::uint32_t> numFrames_;
};

// Logs every atom ("tag.frame <stream>:<frame>"), every update ("tag.post")
// and every frame-order reset ("tag.reset").
class TestTarget : public RecordingFilter<KEL::Target>, public KEL::IFrameOrderResetListener {
public:
    TestTarget(std::string tag, std::shared_ptr<EventLog> log, bool acceptsAllStreams = true)
        : RecordingFilter(std::move(tag), std::move(log), acceptsAllStreams) {}

    std::function<void(TestTarget&, std::uint32_t frameNr)> onFrame;
    std::function<bool()> done;

    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        Record("frame " + std::to_string(atom->GetStreamId()) + ":" + std::to_string(atom->GetFrameNr()));
        if (onFrame) {
            onFrame(*this, atom->GetFrameNr());
        }
        return MaybeFail("onProcessFrame", atom->GetFrameNr());
    }
    KEL::KelErrorCode onPostUpdate() override {
        Record("post");
        return MaybeFail("onPostUpdate");
    }
    void OnFrameOrderReset() override { Record("reset"); }

    // Done when its input is finished and `done` (if set) says so.
    bool IsDone() override { return KEL::Target::IsDone() && (!done || done()); }
};

}  // namespace kel_test
