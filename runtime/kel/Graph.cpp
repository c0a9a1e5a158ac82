#include <KEL/FilterFactory.h>
#include <KEL/Graph.h>
#include <KEL/KELLogger.h>
#include <KEL/Target.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

namespace KEL {

namespace {

void Log(int level, const std::string& message) {
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(level, "Graph", "%s", message.c_str());
    }
}

std::string Quote(const std::string& name) { return "'" + name + "'"; }

KelErrorCode SetError(std::string* error, KelErrorCode code, const std::string& message) {
    if (error != nullptr) {
        *error = message;
    }
    return code;
}

// "code 4 (invalid): <the filter's own message>", the last part only when the
// filter reported this very code.
std::string DescribeFailure(Filter* filter, KelErrorCode code) {
    std::string text = "code " + std::to_string(code) + " (" + KelErrorCodeName(code) + ")";
    if (filter != nullptr && filter->GetLastErrorCode() == code) {
        const std::string own = filter->GetLastErrorMessage();
        if (!own.empty()) {
            text += ": " + own;
        }
    }
    return text;
}

}  // namespace

struct Graph::Impl {
    std::vector<std::unique_ptr<Filter>> filters;
    Source* source = nullptr;
    std::vector<FilterWithInput*> targets;
    std::vector<std::shared_ptr<Connection>> connections;
    bool initialized = false;

    // Requests from other threads, applied by the graph thread between frames.
    std::mutex controlMutex;
    std::condition_variable controlCv;
    bool stopRequested = false;
    bool finishRequested = false;
    bool pauseRequested = false;
    std::optional<std::uint32_t> seekTo;

    // The filters whose onPlay succeeded in the current run, in play order.
    std::vector<Filter*> started;

    bool Owns(const Filter* filter) const {
        return std::any_of(filters.begin(), filters.end(), [&](const auto& f) { return f.get() == filter; });
    }

    // The parts of a run, all on the graph thread.
    void RunInitialized(Graph& graph, const RunOptions& options, RunResult& result);
    bool PlayFrames(Graph& graph, const RunOptions& options, std::uint64_t begin, std::optional<std::uint64_t> end,
                    RunResult& result);
    bool DeliverFrame(Graph& graph, const RunOptions& options, std::uint32_t frameNr, std::uint32_t& consecutiveSkips,
                      RunResult& result);
    int HandleRequests(Graph& graph, std::uint64_t& frame, RunResult& result);
    void WaitForTargets(const RunOptions& options, RunResult& result);
    void StopStarted(RunResult& result);
};

namespace {

// What the graph thread does next after looking at the pending requests.
enum Control : int { kContinue, kStop, kFinish, kFail };

void RecordFailure(RunResult& result, KelErrorCode code, Filter* filter, const std::string& message) {
    if (!result.Ok()) {
        return;  // the first failure is the one worth reporting
    }
    result.code = code;
    result.failedFilter = filter != nullptr ? filter->GetInstanceName() : std::string();
    result.message = message;
    Log(2, message);
}

// Runs one hook; a non-zero result or an exception becomes the run's failure.
template <typename Hook>
bool CallHook(Filter* filter, const char* hookName, RunResult& result, Hook&& hook) {
    KelErrorCode code = KEL_OK;
    std::string thrown;
    try {
        code = hook();
    } catch (const std::exception& e) {
        thrown = e.what();
        code = KEL_ERR_EXCEPTION;
    } catch (...) {
        thrown = "unknown exception";
        code = KEL_ERR_EXCEPTION;
    }
    if (code == KEL_OK) {
        return true;
    }
    const std::string who = "filter " + Quote(filter->GetInstanceName());
    if (!thrown.empty()) {
        RecordFailure(result, code, filter, who + " threw from " + hookName + ": " + thrown);
    } else {
        RecordFailure(result, code, filter, who + " failed in " + hookName + ": " + DescribeFailure(filter, code));
    }
    return false;
}

template <typename Callback>
bool CallCallback(const char* what, RunResult& result, Callback&& callback) {
    try {
        callback();
        return true;
    } catch (const std::exception& e) {
        RecordFailure(result, KEL_ERR_EXCEPTION, nullptr, std::string("the ") + what + " callback threw: " + e.what());
    } catch (...) {
        RecordFailure(result, KEL_ERR_EXCEPTION, nullptr, std::string("the ") + what + " callback threw");
    }
    return false;
}

// Tells the listeners of `graph` that frames no longer follow in order. The
// listener lock is held throughout, so a listener that unregisters from
// another thread waits until this call is done with it.
bool NotifyListeners(Graph& graph, RunResult& result) {
    std::lock_guard lock(graph.GetFrameOrderResetListenersLock());
    auto& listeners = graph.GetFrameOrderResetListeners();
    const std::vector<IFrameOrderResetListener*> snapshot(listeners.begin(), listeners.end());
    for (IFrameOrderResetListener* listener : snapshot) {
        // A listener may unregister another one (or itself) from its callback.
        if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) {
            continue;
        }
        auto* filter = dynamic_cast<Filter*>(listener);
        const std::string who = filter != nullptr ? "filter " + Quote(filter->GetInstanceName()) : "a listener";
        try {
            listener->OnFrameOrderReset();
        } catch (const std::exception& e) {
            RecordFailure(result, KEL_ERR_EXCEPTION, filter, who + " threw from OnFrameOrderReset: " + e.what());
            return false;
        } catch (...) {
            RecordFailure(result, KEL_ERR_EXCEPTION, filter, who + " threw from OnFrameOrderReset");
            return false;
        }
    }
    return true;
}

}  // namespace

Graph::Graph() : impl_(std::make_unique<Impl>()) {}

Graph::~Graph() {
    if (running_.load()) {
        // Run is on another thread: ask it to finish and wait until it has.
        RequestStop();
        std::unique_lock lock(impl_->controlMutex);
        impl_->controlCv.wait(lock, [&] { return !running_.load(); });
    }
    DeInitialize();
    // No parameter change may reach a filter that is partly destroyed.
    for (auto& owned : impl_->filters) {
        owned->DetachParameters();
    }
    // Targets go first: they may refer to their source while they are destroyed.
    for (auto it = impl_->targets.rbegin(); it != impl_->targets.rend(); ++it) {
        for (auto& owned : impl_->filters) {
            if (owned.get() == *it) {
                owned.reset();
            }
        }
    }
    while (!impl_->filters.empty()) {
        impl_->filters.pop_back();
    }
}

Filter* Graph::AddFilter(std::unique_ptr<Filter> filter, const std::string& instanceName, std::string* error) {
    if (!filter) {
        SetError(error, KEL_ERR_INVALID, "no filter given for " + Quote(instanceName));
        return nullptr;
    }
    if (running_.load()) {
        SetError(error, KEL_ERR_GRAPH, "cannot add filter " + Quote(instanceName) + " while the graph is running");
        return nullptr;
    }
    if (instanceName.empty()) {
        SetError(error, KEL_ERR_INVALID, "a filter needs a non-empty instance name");
        return nullptr;
    }
    if (FindFilter(instanceName) != nullptr) {
        SetError(error, KEL_ERR_INVALID, "the instance name " + Quote(instanceName) + " is already used");
        return nullptr;
    }
    filter->SetGraph(this);
    filter->SetInstanceName(instanceName);
    RunResult outcome;
    if (!CallHook(filter.get(), "onInitializeParams", outcome, [&] { return filter->onInitializeParams(nullptr); })) {
        filter->SetGraph(nullptr);
        SetError(error, outcome.code, outcome.message);
        return nullptr;
    }
    filter->SetFilterState(FILTER_STATE_PARAMS_READY);
    impl_->filters.push_back(std::move(filter));
    return impl_->filters.back().get();
}

Filter* Graph::CreateFilter(const std::string& classNameOrGuid, const std::string& instanceName, std::string* error) {
    auto filter = FilterFactory::CreateFilter(classNameOrGuid);
    if (!filter) {
        SetError(error, KEL_ERR_NOT_FOUND, "unknown filter class " + Quote(classNameOrGuid));
        return nullptr;
    }
    return AddFilter(std::move(filter), instanceName, error);
}

Filter* Graph::FindFilter(const std::string& instanceName) const {
    for (const auto& f : impl_->filters) {
        if (f && f->GetInstanceName() == instanceName) {
            return f.get();
        }
    }
    return nullptr;
}

std::vector<Filter*> Graph::GetFilters() const {
    std::vector<Filter*> result;
    for (const auto& f : impl_->filters) {
        if (f) {
            result.push_back(f.get());
        }
    }
    return result;
}

KelErrorCode Graph::Connect(Filter* source, Filter* target, std::string* error) {
    if (running_.load() || impl_->initialized) {
        return SetError(error, KEL_ERR_GRAPH, "cannot connect filters while the graph is initialised or running");
    }
    if (source == nullptr || target == nullptr || !impl_->Owns(source) || !impl_->Owns(target)) {
        return SetError(error, KEL_ERR_INVALID, "both filters of a connection must belong to this graph");
    }
    auto* src = dynamic_cast<Source*>(source);
    if (src == nullptr) {
        return SetError(error, KEL_ERR_INVALID, "filter " + Quote(source->GetInstanceName()) + " is not a source");
    }
    auto* tgt = dynamic_cast<FilterWithInput*>(target);
    if (tgt == nullptr) {
        return SetError(error, KEL_ERR_INVALID, "filter " + Quote(target->GetInstanceName()) + " does not take input");
    }
    if (impl_->source != nullptr && impl_->source != src) {
        return SetError(
            error, KEL_ERR_GRAPH,
            "the graph already has the source " + Quote(impl_->source->GetInstanceName()) + "; a graph has one source");
    }
    if (std::find(impl_->targets.begin(), impl_->targets.end(), tgt) != impl_->targets.end()) {
        return SetError(error, KEL_ERR_GRAPH, "filter " + Quote(target->GetInstanceName()) + " is already connected");
    }
    auto connection = std::make_shared<Connection>(Connection{src, tgt});
    RunResult outcome;
    if (!CallHook(tgt, "onInputConnection", outcome, [&] {
            tgt->onInputConnection(connection);
            return KEL_OK;
        })) {
        return SetError(error, outcome.code, outcome.message);
    }
    impl_->source = src;
    impl_->targets.push_back(tgt);
    impl_->connections.push_back(std::move(connection));
    return KEL_OK;
}

KelErrorCode Graph::Initialize(std::string* error) {
    if (running_.load()) {
        return SetError(error, KEL_ERR_GRAPH, "cannot initialise a running graph");
    }
    if (impl_->initialized) {
        return SetError(error, KEL_ERR_GRAPH, "the graph is already initialised");
    }
    if (impl_->source == nullptr || impl_->targets.empty()) {
        return SetError(error, KEL_ERR_GRAPH, "the graph needs a source connected to at least one target");
    }
    std::vector<Filter*> initialized;
    RunResult outcome;
    auto fail = [&] {
        for (auto it = initialized.rbegin(); it != initialized.rend(); ++it) {
            RunResult ignored;
            CallHook(*it, "onDeInitialize", ignored, [&] { return (*it)->onDeInitialize(); });
            (*it)->SetFilterState(FILTER_STATE_PARAMS_READY);
        }
        return SetError(error, outcome.code, outcome.message);
    };
    auto initialize = [&](Filter* filter) {
        KelErrorCode code = KEL_OK;
        const bool called = CallHook(filter, "onInitialize", outcome, [&] {
            code = filter->Initialize(nullptr);
            return KEL_OK;
        });
        if (!called) {
            filter->SetFilterState(FILTER_STATE_FAILED);
            return false;
        }
        if (code != KEL_OK) {
            RecordFailure(outcome, code, filter,
                          "filter " + Quote(filter->GetInstanceName()) +
                              " failed to initialise: " + DescribeFailure(filter, code));
            return false;
        }
        initialized.push_back(filter);
        return true;
    };

    Source* source = impl_->source;
    if (!initialize(source)) {
        return fail();
    }
    if (source->GetStreamIds().empty() && source->GetOutputNumStreams() == 0) {
        // Targets count a frame's atoms to know when it is complete.
        RecordFailure(outcome, KEL_ERR_GRAPH, source,
                      "source " + Quote(source->GetInstanceName()) +
                          " names no output streams (neither GetStreamIds nor GetOutputNumStreams), so its "
                          "targets cannot tell when a frame is complete");
        return fail();
    }
    for (FilterWithInput* target : impl_->targets) {
        auto* asTarget = dynamic_cast<Target*>(target);
        const bool handedInput = CallHook(target, "SetInputProfile", outcome, [&] {
            if (asTarget != nullptr && !asTarget->AcceptsAllStreams() && source->GetOutputNumStreams() > 1) {
                RecordFailure(outcome, KEL_ERR_GRAPH, target,
                              "filter " + Quote(target->GetInstanceName()) + " takes a single stream, but " +
                                  Quote(source->GetInstanceName()) + " has " +
                                  std::to_string(source->GetOutputNumStreams()));
                return KEL_ERR_GRAPH;
            }
            target->SetInputProfile(source, source->GetOutputProfile());
            target->SetInputFinished(false);
            return KEL_OK;
        });
        if (!handedInput || !initialize(target)) {
            return fail();
        }
    }
    impl_->initialized = true;
    return KEL_OK;
}

void Graph::DeInitialize() {
    if (running_.load()) {
        Log(2, "DeInitialize ignored: the graph is running");
        return;
    }
    std::vector<Filter*> order(impl_->targets.rbegin(), impl_->targets.rend());
    if (impl_->source != nullptr) {
        order.push_back(impl_->source);
    }
    for (Filter* filter : order) {
        if (filter->GetFilterState() != FILTER_STATE_INITIALIZED) {
            continue;
        }
        RunResult outcome;
        CallHook(filter, "onDeInitialize", outcome, [&] { return filter->onDeInitialize(); });
        filter->SetFilterState(FILTER_STATE_PARAMS_READY);
    }
    impl_->initialized = false;
}

void Graph::RequestStop() {
    {
        std::lock_guard lock(impl_->controlMutex);
        impl_->stopRequested = true;
    }
    impl_->controlCv.notify_all();
}

void Graph::RequestFinish() {
    {
        std::lock_guard lock(impl_->controlMutex);
        impl_->finishRequested = true;
    }
    impl_->controlCv.notify_all();
}

void Graph::Pause() {
    std::lock_guard lock(impl_->controlMutex);
    impl_->pauseRequested = true;
}

void Graph::Resume() {
    {
        std::lock_guard lock(impl_->controlMutex);
        impl_->pauseRequested = false;
    }
    impl_->controlCv.notify_all();
}

void Graph::Seek(std::uint32_t frameNr) {
    std::lock_guard lock(impl_->controlMutex);
    impl_->seekTo = frameNr;
}

void Graph::RegisterFrameOrderResetListener(IFrameOrderResetListener* listener) {
    std::lock_guard lock(listenersLock_);
    listeners_.push_back(listener);
}

void Graph::UnregisterFrameOrderResetListener(IFrameOrderResetListener* listener) {
    std::lock_guard lock(listenersLock_);
    auto it = std::find(listeners_.begin(), listeners_.end(), listener);
    if (it != listeners_.end()) {
        listeners_.erase(it);
    }
}

RunResult Graph::Run(const RunOptions& options) {
    RunResult result;
    if (running_.exchange(true)) {
        result.code = KEL_ERR_GRAPH;
        result.message = "the graph is already running";
        return result;
    }
    if (!impl_->initialized) {
        result.code = KEL_ERR_GRAPH;
        result.message = "the graph is not initialised";
    } else {
        impl_->RunInitialized(*this, options, result);
    }
    // Notified under the lock: a destructor waiting on another thread may
    // destroy the condition variable as soon as it sees running_ false.
    std::lock_guard lock(impl_->controlMutex);
    running_.store(false);
    impl_->controlCv.notify_all();
    return result;
}

void Graph::Impl::RunInitialized(Graph& graph, const RunOptions& options, RunResult& result) {
    {
        std::lock_guard lock(controlMutex);
        stopRequested = false;
        finishRequested = false;
        pauseRequested = false;
        seekTo.reset();
    }
    for (FilterWithInput* target : targets) {
        target->SetInputFinished(false);
    }

    const std::uint64_t begin = options.startFrame;
    std::optional<std::uint64_t> end;
    if (options.frameCount) {
        end = begin + *options.frameCount;
    } else {
        std::shared_ptr<DataTypeStreamInfo> info;
        if (!CallHook(source, "GetStreamInfo", result, [&] {
                info = source->GetStreamInfo();
                return KEL_OK;
            })) {
            return;
        }
        if (info) {
            end = info->GetNumFrames();
        }
    }
    const std::uint64_t perPass = end && *end > begin ? *end - begin : 0;
    graph.framesPerPass_.store(static_cast<std::uint32_t>(std::min<std::uint64_t>(perPass, UINT32_MAX)));

    // Targets start first so that they are ready for the source's first frame.
    started.clear();
    std::vector<Filter*> order(targets.begin(), targets.end());
    order.push_back(source);
    for (Filter* filter : order) {
        if (!CallHook(filter, "onPlay", result, [&] { return filter->onPlay(); })) {
            break;
        }
        started.push_back(filter);
    }
    if (result.Ok()) {
        for (Filter* filter : started) {
            filter->SetFilterState(FILTER_STATE_PLAYING);
        }
        if (PlayFrames(graph, options, begin, end, result)) {
            WaitForTargets(options, result);
        }
    }
    if (options.beforeStop && !started.empty()) {
        CallCallback("beforeStop", result, [&] { options.beforeStop(graph); });
    }
    StopStarted(result);
}

bool Graph::Impl::PlayFrames(Graph& graph, const RunOptions& options, std::uint64_t begin,
                             std::optional<std::uint64_t> end, RunResult& result) {
    constexpr std::uint64_t kLastFrame = std::numeric_limits<std::uint32_t>::max();
    for (std::uint32_t pass = 0; options.loops == 0 || pass < options.loops; ++pass) {
        if (pass > 0 && !NotifyListeners(graph, result)) {
            return false;
        }
        const std::uint64_t deliveredBefore = result.framesDelivered;
        std::uint32_t consecutiveSkips = 0;
        for (std::uint64_t frame = begin;; ++frame) {
            switch (HandleRequests(graph, frame, result)) {
                case kStop:
                    result.stoppedEarly = true;
                    return false;
                case kFinish:
                    result.finishedEarly = true;
                    return true;
                case kFail:
                    return false;
                default:
                    break;
            }
            if (end ? frame >= *end : frame > kLastFrame) {
                break;
            }
            if (!DeliverFrame(graph, options, static_cast<std::uint32_t>(frame), consecutiveSkips, result)) {
                return false;
            }
            // Without a known frame count the source's refusals mark the end.
            if (!end && consecutiveSkips >= std::max<std::uint32_t>(options.maxConsecutiveSkips, 1)) {
                break;
            }
        }
        // Looping forever over a pass that yields nothing would spin without end.
        if (options.loops == 0 && result.framesDelivered == deliveredBefore) {
            break;
        }
    }
    return true;
}

bool Graph::Impl::DeliverFrame(Graph& graph, const RunOptions& options, std::uint32_t frameNr,
                               std::uint32_t& consecutiveSkips, RunResult& result) {
    graph.currentFrame_.store(frameNr);
    if (options.beforeFrame && !CallCallback("beforeFrame", result, [&] { options.beforeFrame(graph, frameNr); })) {
        return false;
    }
    KelErrorCode pushed = KEL_OK;
    const bool called = CallHook(source, "pushDataToOutput", result, [&] {
        pushed = source->pushDataToOutput(frameNr);
        return KEL_OK;
    });
    // Whatever a refusing or failing source queued is not part of any frame.
    std::vector<std::shared_ptr<Atom>> atoms = source->TakeOutputQueue();
    if (!called) {
        return false;
    }
    const bool delivered = pushed == KEL_OK;
    if (delivered) {
        consecutiveSkips = 0;
        for (const auto& atom : atoms) {
            for (FilterWithInput* target : targets) {
                if (!CallHook(target, "onProcessFrame", result, [&] { return target->onProcessFrame(atom); })) {
                    return false;
                }
            }
        }
        for (FilterWithInput* target : targets) {
            if (!CallHook(target, "onPostUpdate", result, [&] { return target->onPostUpdate(); })) {
                return false;
            }
        }
        ++result.framesDelivered;
    } else {
        ++consecutiveSkips;
        ++result.framesSkipped;
    }
    return !options.afterFrame ||
           CallCallback("afterFrame", result, [&] { options.afterFrame(graph, frameNr, delivered); });
}

int Graph::Impl::HandleRequests(Graph& graph, std::uint64_t& frame, RunResult& result) {
    std::unique_lock lock(controlMutex);
    for (;;) {
        if (stopRequested) {
            return kStop;
        }
        if (finishRequested) {
            return kFinish;
        }
        if (pauseRequested) {
            lock.unlock();
            for (Filter* filter : started) {
                if (!CallHook(filter, "onPause", result, [&] { return filter->onPause(); })) {
                    return kFail;
                }
            }
            for (Filter* filter : started) {
                filter->SetFilterState(FILTER_STATE_PAUSED);
            }
            lock.lock();
            controlCv.wait(lock, [&] { return !pauseRequested || stopRequested || finishRequested; });
            if (stopRequested) {
                return kStop;
            }
            lock.unlock();
            // Filters see state 6 here, which tells a resume from a first start.
            for (Filter* filter : started) {
                if (!CallHook(filter, "onPlay", result, [&] { return filter->onPlay(); })) {
                    return kFail;
                }
            }
            for (Filter* filter : started) {
                filter->SetFilterState(FILTER_STATE_PLAYING);
            }
            lock.lock();
            continue;
        }
        if (seekTo) {
            frame = *seekTo;
            seekTo.reset();
            lock.unlock();
            if (!NotifyListeners(graph, result)) {
                return kFail;
            }
            lock.lock();
            continue;
        }
        return kContinue;
    }
}

void Graph::Impl::WaitForTargets(const RunOptions& options, RunResult& result) {
    for (FilterWithInput* target : targets) {
        target->SetInputFinished(true);
    }
    const auto deadline = std::chrono::steady_clock::now() + options.doneTimeout;
    auto pollInterval = std::chrono::microseconds(50);
    for (;;) {
        FilterWithInput* pending = nullptr;
        for (FilterWithInput* target : targets) {
            bool done = false;
            if (!CallHook(target, "IsDone", result, [&] {
                    done = target->IsDone();
                    return KEL_OK;
                })) {
                return;
            }
            if (!done) {
                pending = target;
                break;
            }
        }
        if (pending == nullptr) {
            return;
        }
        if (options.doneTimeout.count() > 0 && std::chrono::steady_clock::now() >= deadline) {
            // Stopping a target that is not done may discard what it still
            // holds (an asynchronous writer's queue): the run has failed.
            RecordFailure(result, KEL_ERR_TIMEOUT, pending,
                          "filter " + Quote(pending->GetInstanceName()) + " is not done after " +
                              std::to_string(options.doneTimeout.count()) + " ms; stopping it anyway");
            return;
        }
        // Targets finish on threads of their own and have no way to wake the
        // graph, so poll, backing off to a few milliseconds. A stop request
        // cuts the wait short.
        std::unique_lock lock(controlMutex);
        if (controlCv.wait_for(lock, pollInterval, [&] { return stopRequested; })) {
            result.stoppedEarly = true;
            return;
        }
        pollInterval = std::min<std::chrono::microseconds>(pollInterval * 2, std::chrono::milliseconds(5));
    }
}

void Graph::Impl::StopStarted(RunResult& result) {
    // Reverse of the play order: the source stops producing before the
    // targets close.
    for (auto it = started.rbegin(); it != started.rend(); ++it) {
        Filter* filter = *it;
        filter->SetFilterState(FILTER_STATE_STOPPING);
        CallHook(filter, "onStop", result, [&] { return filter->onStop(); });
        filter->SetFilterState(FILTER_STATE_INITIALIZED);
    }
    started.clear();
}

}  // namespace KEL
