#pragma once

#include <KEL/FilterClassInfo.h>
#include <KEL/FilterParams.h>
#include <KEL/KelErrorCode.h>
#include <KEL/Profile.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>
#include <KelCommon/String.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KEL {

class Graph;
class Filter;

// A link from a source filter to a target filter in a graph.
struct Connection {
    Filter* from = nullptr;
    Filter* to = nullptr;
};

// Life-cycle states reported by GetFilterState().
enum FilterState : int {
    FILTER_STATE_CREATED = 0,       // made by its creator, parameters not yet created
    FILTER_STATE_PARAMS_READY = 1,  // onInitializeParams succeeded; not initialised
    FILTER_STATE_INITIALIZING = 2,  // inside onInitialize
    FILTER_STATE_FAILED = 3,        // onInitialize failed; may be initialised again
    FILTER_STATE_INITIALIZED = 4,   // initialised and not playing (also after a stop)
    FILTER_STATE_PLAYING = 5,       // playing: frames flow
    FILTER_STATE_PAUSED = 6,        // playing, paused by the graph
    FILTER_STATE_STOPPING = 7,      // inside onStop
};

// The root of all filters.
//
// The graph drives a filter in this order: creator; onInitializeParams (may
// be repeated); onInitialize; onPlay; per frame pushDataToOutput (sources) or
// onProcessFrame for each atom and onPostUpdate (targets); onStop;
// onDeInitialize; destructor. Every hook runs on the graph thread; only
// cbiParameterValueChanged arrives on the thread that changed a parameter.
//
// The virtual operations are declared in the host's slot order.
class KEL_API Filter {
public:
    Filter();
    virtual ~Filter();
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;

    // A parameter added with addParam(param, true) changed. Called on the
    // changing thread. The base does nothing.
    virtual void cbiParameterValueChanged(std::shared_ptr<FilterParam> param, const char* name);
    virtual KelCommon::Guid TypeGuid() const = 0;
    virtual FilterClassInfo GetFilterClassInfo() const = 0;
    // A new, uninitialised filter of the same class, made through the filter
    // factory; nullptr when the class is not registered.
    virtual Filter* Instantiate() const;
    // Host side of initialisation: state bookkeeping around onInitialize.
    virtual KelErrorCode Initialize(Filter* parent);
    // One processing step outside a graph run; the base does nothing.
    virtual KelErrorCode Update();
    // True when the filter has nothing left to do at the natural end of a run.
    virtual bool IsDone();
    // Asks the filter's graph to stop after the current frame.
    virtual void ForceGraphStop();
    virtual std::shared_ptr<Profile> GetOutputProfile();
    virtual std::shared_ptr<Profile> GetAggregatedOutputProfile();
    virtual std::uint32_t GetOutputNumStreams();
    virtual std::vector<std::uint32_t> GetStreamIds();
    virtual float GetProgressWeight();
    // 0 to 1; the base reports 0.
    virtual float GetProgress();
    virtual KelCommon::String GetProgressInfo();
    // Create parameters (once) and add them (every call). `filter` is the
    // enclosing filter of a compound filter, nullptr for a graph's own.
    virtual KelErrorCode onInitializeParams(Filter* filter);
    virtual KelErrorCode onInitialize(Filter* filter);
    virtual KelErrorCode onDeInitialize();
    virtual KelErrorCode onPlay();
    virtual KelErrorCode onPause();
    virtual KelErrorCode onStop();
    virtual void onInputConnection(std::weak_ptr<Connection> connection);

    // Records the error as the filter's last error, logs it at level 2 with
    // the filter's name, and returns `code` for the failing hook to return.
    KelErrorCode ReportError(KelErrorCode code, const char* message);
    KelErrorCode GetLastErrorCode() const;
    std::string GetLastErrorMessage() const;

    // Adds a parameter. Adding an object that is already added changes
    // nothing; adding another object with the name of an added one replaces
    // it. With `notifyOnChange` true the parameter's changes reach
    // cbiParameterValueChanged.
    void addParam(std::shared_ptr<FilterParam> param, bool notifyOnChange);
    std::vector<std::shared_ptr<FilterParam>> GetParams() const;
    std::shared_ptr<FilterParam> FindParam(const std::string& name) const;
    // Stops change notifications to this filter and returns once no other
    // thread is inside its cbiParameterValueChanged. A filter whose callback
    // uses members of a derived class calls it first in its destructor,
    // before those members go; the graph calls it before destroying a filter,
    // and ~Filter calls it for whatever is left. Not from within a callback
    // of another thread's parameter change of the same filter.
    void DetachParameters();

    // One of FilterState.
    int GetFilterState() const noexcept { return state_.load(); }
    Graph* GetGraph() const noexcept { return graph_.load(); }
    const std::string& GetInstanceName() const noexcept { return instanceName_; }

    // Host side.
    void SetFilterState(int state) noexcept { state_.store(state); }
    void SetGraph(Graph* graph) noexcept { graph_.store(graph); }
    void SetInstanceName(std::string name) { instanceName_ = std::move(name); }

private:
    std::atomic<int> state_{FILTER_STATE_CREATED};
    std::atomic<Graph*> graph_{nullptr};
    std::string instanceName_;
    mutable std::mutex mutex_;  // guards params_ and the last error
    std::vector<std::shared_ptr<FilterParam>> params_;
    KelErrorCode lastErrorCode_ = KEL_OK;
    std::string lastErrorMessage_;
};

// Creator functions that plugins export for each filter class.
using FilterCreator = Filter* (*)();

}  // namespace KEL
