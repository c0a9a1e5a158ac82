#pragma once

#include <KEL/Filter.h>
#include <KEL/FilterWithInput.h>
#include <KEL/IFrameOrderResetListener.h>
#include <KEL/KelErrorCode.h>
#include <KEL/Source.h>
#include <KelCommon/Export.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace KEL {

class Graph;

struct RunOptions {
    // First frame number asked of the source.
    std::uint32_t startFrame = 0;
    // Frames per pass; empty: up to the source's frame count (its stream
    // information). A source without stream information plays until
    // pushDataToOutput fails `maxConsecutiveSkips` times in a row.
    std::optional<std::uint32_t> frameCount;
    std::uint32_t maxConsecutiveSkips = 1;
    // Number of passes over the frames; 0 loops until stopped. Every pass
    // after the first starts with a frame-order reset.
    std::uint32_t loops = 1;
    // Called on the graph thread before each frame is asked of the source
    // (parameter events of scripted runs go here) and after it was delivered.
    std::function<void(Graph&, std::uint32_t frameNr)> beforeFrame;
    std::function<void(Graph&, std::uint32_t frameNr, bool delivered)> afterFrame;
    // How long the natural end waits for targets whose IsDone() is false;
    // zero waits as long as it takes.
    std::chrono::milliseconds doneTimeout{0};
    // Called on the graph thread right before the started filters are
    // stopped, whatever ended the run (status values read here are those
    // the targets hold when they stop).
    std::function<void(Graph&)> beforeStop;
};

struct RunResult {
    KelErrorCode code = KEL_OK;  // 0, or the failing hook's code
    std::string message;         // what failed, naming the filter
    std::string failedFilter;    // instance name of the filter that failed
    std::uint64_t framesDelivered = 0;
    std::uint64_t framesSkipped = 0;
    bool stoppedEarly = false;   // RequestStop or ForceGraphStop ended the run
    bool finishedEarly = false;  // RequestFinish ended it before its last frame, as a natural end
    bool Ok() const noexcept { return code == KEL_OK; }
};

// A graph of filters: one source connected to one or more targets.
//
// The thread that calls Run is the graph thread: every filter hook runs on
// it. Pause, Resume, Seek and RequestStop may be called from any thread and
// take effect between frames. A hook that returns non-zero or throws ends the
// run cleanly (the started filters are stopped) and the result names the
// filter; nothing escapes as an exception.
//
// The graph owns its filters and destroys them (after stopping and
// de-initialising them) when it is destroyed.
class KEL_API Graph {
public:
    Graph();
    ~Graph();
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    // Takes ownership, names the filter and calls its onInitializeParams.
    // Returns nullptr (and `error`) when that fails or the name is taken.
    Filter* AddFilter(std::unique_ptr<Filter> filter, const std::string& instanceName, std::string* error = nullptr);
    // Creates a filter of a registered class (name or GUID text) and adds it.
    Filter* CreateFilter(const std::string& classNameOrGuid, const std::string& instanceName,
                         std::string* error = nullptr);
    Filter* FindFilter(const std::string& instanceName) const;
    std::vector<Filter*> GetFilters() const;

    // Connects the graph's source to a target. A graph has one source.
    KelErrorCode Connect(Filter* source, Filter* target, std::string* error = nullptr);

    // onInitialize of the source, then of each target (after handing it the
    // source's profile and stream ids). On failure the filters initialised
    // so far are de-initialised and the error names the filter.
    KelErrorCode Initialize(std::string* error = nullptr);
    // Plays on the calling thread until the end, a stop request or a failure.
    RunResult Run(const RunOptions& options = {});
    // onDeInitialize of every initialised filter.
    void DeInitialize();

    void RequestStop();
    // Ends the run after the current frame as its natural end does: no more
    // frames are asked of the source, the targets' input is finished and
    // the graph waits until they are done (an asynchronous writer writes
    // what it holds) before it stops them. A RequestStop during that wait
    // still stops at once.
    void RequestFinish();
    void Pause();
    void Resume();
    // The next frame asked of the source is `frameNr`; the listeners hear of
    // the frame-order reset before it.
    void Seek(std::uint32_t frameNr);
    bool IsRunning() const noexcept { return running_.load(); }
    // The frame currently asked for or delivered (for progress displays).
    std::uint32_t CurrentFrame() const noexcept { return currentFrame_.load(); }
    // Frames a pass will play, once known (0 while unknown).
    std::uint32_t FramesPerPass() const noexcept { return framesPerPass_.load(); }

    // Frame-order-reset listeners: a list under a recursive lock, appended to
    // by Register and searched and erased (first match) by Unregister.
    std::recursive_mutex& GetFrameOrderResetListenersLock() noexcept { return listenersLock_; }
    std::list<IFrameOrderResetListener*>& GetFrameOrderResetListeners() noexcept { return listeners_; }
    void RegisterFrameOrderResetListener(IFrameOrderResetListener* listener);
    void UnregisterFrameOrderResetListener(IFrameOrderResetListener* listener);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::recursive_mutex listenersLock_;
    std::list<IFrameOrderResetListener*> listeners_;
    std::atomic<bool> running_{false};
    std::atomic<std::uint32_t> currentFrame_{0};
    std::atomic<std::uint32_t> framesPerPass_{0};
};

}  // namespace KEL
