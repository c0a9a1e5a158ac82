#pragma once

#include <KEL/Graph.h>

#include <ostream>
#include <string>

#include "GraphDescription.h"

namespace KelTool {

struct GraphRunOutcome {
    bool ok = false;
    bool played = false;       // initialisation succeeded and the graph was played
    bool interrupted = false;  // Ctrl-C ended the run (cleanly)
    std::string error;         // what went wrong: initialisation, a filter's hook, a timeline event
    KEL::RunResult result;
    std::size_t eventsFired = 0;
    std::size_t eventsNotFired = 0;  // events whose frame (or pass) the run never reached
};

// Initialises `graph` (already built from `description`) and plays it on the
// calling thread with the description's run options, applying the timeline
// events before their frames. A failing event stops the run after the
// current frame. Ctrl-C stops the run cleanly (files are closed as at a
// natural end). With `showProgress` a progress bar is drawn on stderr when it
// is a terminal. The graph is left initialised; destroying it de-initialises
// its filters.
GraphRunOutcome RunGraph(KEL::Graph& graph, const GraphDescription& description, bool showProgress);

// Frames delivered and skipped, whether the run was stopped early, and every
// status value of every filter (such as "Dropped frames count").
void PrintRunSummary(std::ostream& out, const KEL::Graph& graph, const GraphRunOutcome& outcome);

}  // namespace KelTool
