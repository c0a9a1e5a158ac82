#pragma once

#include <KEL/Graph.h>

#include <string>

#include "GraphDescription.h"

namespace KelTool {

// Turns a GraphDescription into filters of a KEL::Graph.
//
// Filters are created through the filter factory by class name and named
// after their instances; their parameters are set from text in the given
// order; then the connections are made (without connections, the first
// filter feeds every other one). The graph is not initialised. On failure
// `error` says which filter, parameter or connection is at fault; a class
// that no loaded plugin registers fails with "filter class 'X' is not
// registered". The filters made so far stay in the graph, which owns them.
bool BuildGraph(const GraphDescription& description, KEL::Graph& graph, std::string* error);

// Sets one parameter of `filter` from text (a callback parameter is pressed).
// `error` names the filter and the parameter.
bool SetFilterParam(KEL::Filter& filter, const std::string& name, const std::string& value, std::string* error);

}  // namespace KelTool
