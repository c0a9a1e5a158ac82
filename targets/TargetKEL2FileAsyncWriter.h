#pragma once

#include <KEL/Atom.h>
#include <KEL/FilterParams.h>
#include <KEL/FilterWithInput.h>
#include <KEL/Graph.h>
#include <KEL/IFrameOrderResetListener.h>
#include <KEL/KELLogger.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/BlockingBoundedQueue.h>
#include <KelCommon/Thread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "targets/TargetKEL2FileWriterBase.h"
#include "utils/ParameterNames.h"
#include "utils/PluginLog.h"

namespace Kel2File {

// The asynchronous data path: the graph thread copies the atoms of a frame
// and hands the complete frame to a bounded queue; a writing thread of the
// filter's own ("KEL2File_AsyncWriter") pulls frames and writes them through
// the strategy.
//
// Producer: the graph thread. onProcessFrame copies each atom
// (Atom::Copy(atom, -1, true): layer fields are copied, pixel data is
// shared) into the frame being collected; once one atom per input stream has
// arrived the frame is queued. When the queue is full the frame is dropped
// (counted in "Dropped frames count", logged at level 4) if "Drop frames when
// full" is on; otherwise the graph thread waits for room.
//
// Consumer: the writing thread, the only thread that writes atoms while the
// filter plays. It ignores write results. An empty frame is the exit token
// and the drain marker: nothing is written for it.
//
// Parameter changes that affect files (path, strategy parameters) are
// applied by the graph thread only after draining: it queues a marker, waits
// on the drain signal until the writing thread has taken it (so every frame
// queued before the change is written under the old settings and the
// strategy is idle), then applies. While draining and finding the queue
// empty, the writing thread keeps signalling until the graph thread clears
// the draining flag, so the wake-up cannot be lost.
//
// Stop: frames still queued and the partly collected frame are discarded;
// the frame being written is finished; the thread is joined. At a natural end
// the graph waits while IsDone() is false, i.e. until the queue is empty.
// A frame-order reset discards queued and partial frames; the thread runs on.
//
// Shared between the threads: the queue (its own locks), the stop and
// draining flags (atomic), the drain lock (taken by the graph thread only)
// and signal, the status parameters (the host's parameters accept SetValue
// from any thread), and what the strategy keeps atomic. The frame being
// collected belongs to the graph thread.
//
// `QueueHooks` lets a test stop a thread inside the queue's operations (see
// KelCommon::NoQueueHooks); the filters use the default.
template <class W, class QueueHooks = KelCommon::NoQueueHooks>
class TargetKEL2FileAsyncWriter : public TargetKEL2FileWriterBase<W>, public KEL::IFrameOrderResetListener {
public:
    using Frame = std::vector<std::shared_ptr<KEL::Atom>>;
    using FrameQueue = KelCommon::BlockingBoundedQueue<Frame, QueueHooks>;

    TargetKEL2FileAsyncWriter() = default;
    // The host stops a filter before destroying it; a filter destroyed while
    // still playing is stopped here, so that no thread outlives it. Parameter
    // callbacks are detached first (waiting for any in flight): they use the
    // members destroyed below.
    ~TargetKEL2FileAsyncWriter() override {
        this->DetachParameters();
        if (writingThread.joinable()) {
            onStop();
        }
    }

    void cbiParameterValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override {
        TargetKEL2FileWriterBase<W>::cbiParameterValueChanged(param, name);
        if (param && resetDroppedCountParam && param.get() == resetDroppedCountParam.get()) {
            droppedCountParam->SetValue(0);
        }
    }

    // Done when the input is done and no frame waits in the queue.
    bool IsDone() override { return KEL::FilterWithInput::IsDone() && QueueSize() == 0; }

    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override {
        const KEL::KelErrorCode result = TargetKEL2FileWriterBase<W>::onInitializeParams(filter);
        if (result != 0) {
            return result;
        }
        if (!bufferSizeParam) {
            bufferSizeParam =
                std::make_shared<KEL::FilterParamUInt32>(kParamBufferSize, KEL::PARAM_FLAG_INIT_ONLY, 1, 0, UINT32_MAX);
        }
        this->addParam(bufferSizeParam, true);
        if (!bufferedCountParam) {
            bufferedCountParam = std::make_shared<KEL::FilterParamUInt32>(kParamBufferedFrames, KEL::PARAM_FLAG_STATUS,
                                                                          0, 0, UINT32_MAX);
        }
        this->addParam(bufferedCountParam, true);
        if (!dropWhenFullParam) {
            dropWhenFullParam = std::make_shared<KEL::FilterParamBool>(kParamDropWhenFull, KEL::PARAM_FLAG_LIVE, true);
        }
        this->addParam(dropWhenFullParam, true);
        if (!droppedCountParam) {
            droppedCountParam =
                std::make_shared<KEL::FilterParamInt64>(kParamDroppedFrames, KEL::PARAM_FLAG_STATUS, 0, 0, INT64_MAX);
        }
        this->addParam(droppedCountParam, true);
        if (!resetDroppedCountParam) {
            resetDroppedCountParam =
                std::make_shared<KEL::FilterParamCallback>(kParamResetDropped, KEL::PARAM_FLAG_LIVE);
        }
        this->addParam(resetDroppedCountParam, true);
        return 0;
    }

    // Starts the strategy (base), then, only from the initialised state,
    // creates the queue ("Buffer size", at least 1), registers for
    // frame-order resets and starts the writing thread. Failure to create the
    // thread leaves as std::system_error.
    KEL::KelErrorCode onPlay() override {
        const KEL::KelErrorCode result = TargetKEL2FileWriterBase<W>::onPlay();
        if (result != 0 || this->GetFilterState() != KEL::FILTER_STATE_INITIALIZED || !bufferSizeParam) {
            return result;
        }
        const std::uint32_t capacity = std::max<std::uint32_t>(bufferSizeParam->GetValue(), 1);
        queue = std::make_unique<FrameQueue>(capacity);
        bufferedCountParam->SetValue(static_cast<std::uint32_t>(queue->Size()));
        droppedCountParam->SetValue(0);
        if (KEL::Graph* graph = this->GetGraph()) {
            graph->RegisterFrameOrderResetListener(this);
        }
        stopFlag.exchange(false);
        StartWritingThread();
        return 0;
    }

    KEL::KelErrorCode onStop() override {
        if (writingThread.joinable()) {
            draining.exchange(false);
            stopFlag.exchange(true);
            FlushFramesReadyForWriting();
            writingThread.join();
        }
        FlushFramesReadyForWriting();
        std::unique_ptr<FrameQueue> oldQueue = std::move(queue);
        oldQueue.reset();
        if (bufferedCountParam) {
            bufferedCountParam->SetValue(0);
        }
        collectedFrame.clear();
        if (droppedCountParam) {
            droppedCountParam->SetValue(0);
        }
        if (KEL::Graph* graph = this->GetGraph()) {
            graph->UnregisterFrameOrderResetListener(this);
        }
        W::OnStop();
        return 0;
    }

    // Copies the atom into the frame being collected; queues the frame once
    // it holds one atom per input stream. Never blocks except when the queue
    // is full and dropping is off. KEL_ERR_INVALID for a null atom.
    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        if (!atom) {
            return KEL::KEL_ERR_INVALID;
        }
        collectedFrame.push_back(KEL::Atom::Copy(atom, -1, true));
        if (static_cast<std::int32_t>(collectedFrame.size()) == this->GetInputNumStreams()) {
            EnqueueFrameReadyForWriting(collectedFrame);
            collectedFrame.clear();
        }
        return 0;
    }

    // Applies a changed path or changed strategy parameters, after every
    // frame queued so far has been written.
    KEL::KelErrorCode onPostUpdate() override {
        if (!this->filePathParam) {
            return 0;
        }
        if (this->AbsoluteFilePath() != this->currentFilePath || W::WriterParamChangesAvailable()) {
            WaitUntilQueuedFramesAreWritten();
            this->ApplyParamChanges();
        }
        return 0;
    }

    // Discards the queued frames and the partly collected one; the frame
    // being written is finished.
    void OnFrameOrderReset() override {
        if (queue) {
            FlushFramesReadyForWriting();
        }
        collectedFrame.clear();
    }

protected:
    void StartWritingThread() {
        writingThread = std::thread([this] {
            KelCommon::concurrency::Thread::setCurrentThreadName("KEL2File_AsyncWriter");
            WritingFunc();
        });
    }

    void WritingFunc() {
        if (stopFlag.load()) {
            return;
        }
        for (;;) {
            if (queue->Size() == 0 && draining.load()) {
                drainSignal.notify_all();
                std::this_thread::yield();
                continue;
            }
            // A frame taken after the stop began goes with the frames the stop
            // discarded, so nothing reaches the file after it; a frame taken
            // before is finished (at a natural end the stop comes only once
            // the last frame was taken).
            std::optional<Frame> taken = queue->PullUnless([this] { return stopFlag.load(); });
            bufferedCountParam->SetValue(static_cast<std::uint32_t>(queue->Size()));
            if (!taken) {
                return;
            }
            Frame frame = std::move(*taken);
            // An empty frame (exit token, drain marker) must not touch the
            // strategy: the graph thread may be applying changes to it.
            if (!frame.empty() && W::ProcessingAllowed()) {
                for (const auto& atom : frame) {
                    WriteOwnedAtom(atom);
                }
            }
            frame.clear();
            if (stopFlag.load()) {
                return;
            }
        }
    }

    void EnqueueFrameReadyForWriting(const Frame& frame) {
        if (!queue || frame.empty()) {
            return;
        }
        if (dropWhenFullParam->GetValue()) {
            const auto [capacity, size] = queue->CapacityAndSize();
            if (static_cast<std::int64_t>(capacity) <= static_cast<std::int64_t>(size)) {
                droppedCountParam->SetValue(droppedCountParam->GetValue() + 1);
                Log(kLogInfo, "Dropping a frame since the buffer is full (id: %d, timestamp: %lld)",
                    static_cast<int>(frame.front()->GetId()), static_cast<long long>(frame.front()->GetTimeStamp()));
                return;
            }
        }
        queue->Push(frame);
        bufferedCountParam->SetValue(static_cast<std::uint32_t>(queue->Size()));
    }

    void FlushFramesReadyForWriting() {
        if (!queue) {
            if (bufferedCountParam) {
                bufferedCountParam->SetValue(0);
            }
            return;
        }
        queue->FlushAndPutExitToken(Frame{});
        bufferedCountParam->SetValue(static_cast<std::uint32_t>(queue->Size()));
    }

    // Blocks the graph thread until the writing thread has written every
    // frame queued so far and holds none. The marker is queued even when the
    // queue has frames, so the wait cannot end while the last of them is
    // still being written.
    void WaitUntilQueuedFramesAreWritten() {
        if (!queue || !writingThread.joinable()) {
            return;
        }
        std::unique_lock<std::mutex> lock(drainLock);
        draining.exchange(true);
        queue->Push(Frame{});
        bufferedCountParam->SetValue(static_cast<std::uint32_t>(queue->Size()));
        while (queue->Size() != 0) {
            drainSignal.wait(lock);
        }
        draining.exchange(false);
    }

private:
    std::size_t QueueSize() const { return queue ? queue->Size() : 0; }

    void WriteOwnedAtom(const std::shared_ptr<KEL::Atom>& atom) {
        try {
            (void)W::WriteAtom(atom, true);
        } catch (const std::exception& e) {
            Log(kLogFailure, "Writing an atom failed: %s", e.what());
        }
    }

    std::shared_ptr<KEL::FilterParamUInt32> bufferSizeParam;
    std::shared_ptr<KEL::FilterParamUInt32> bufferedCountParam;
    std::shared_ptr<KEL::FilterParamBool> dropWhenFullParam;
    std::shared_ptr<KEL::FilterParamInt64> droppedCountParam;
    std::shared_ptr<KEL::FilterParamCallback> resetDroppedCountParam;
    Frame collectedFrame;
    std::unique_ptr<FrameQueue> queue;
    std::thread writingThread;
    std::atomic<bool> stopFlag{false};
    std::atomic<bool> draining{false};
    std::mutex drainLock;
    std::condition_variable drainSignal;
};

}  // namespace Kel2File
