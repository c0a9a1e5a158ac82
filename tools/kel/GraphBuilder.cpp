#include "GraphBuilder.h"

#include <KEL/FilterFactory.h>
#include <KelCommon/Guid.h>

namespace KelTool {

namespace {

bool IsRegistered(const std::string& classNameOrGuid) {
    if (KEL::FilterFactory::FindByName(classNameOrGuid)) {
        return true;
    }
    const auto guid = KelCommon::Guid::TryParse(classNameOrGuid);
    return guid && KEL::FilterFactory::Find(*guid);
}

std::string Describe(const KEL::Filter& filter) {
    return "filter '" + filter.GetInstanceName() + "' (" + filter.GetFilterClassInfo().GetName().str() + ")";
}

}  // namespace

bool SetFilterParam(KEL::Filter& filter, const std::string& name, const std::string& value, std::string* error) {
    const auto param = filter.FindParam(name);
    if (!param) {
        *error = Describe(filter) + " has no parameter '" + name + "'";
        return false;
    }
    std::string why;
    if (!param->SetValueFromString(value, &why)) {
        *error = "cannot set '" + name + "' of " + Describe(filter) + " to '" + value + "': " + why;
        return false;
    }
    return true;
}

bool BuildGraph(const GraphDescription& description, KEL::Graph& graph, std::string* error) {
    for (const auto& entry : description.filters) {
        if (!IsRegistered(entry.className)) {
            *error = "filter class '" + entry.className + "' is not registered";
            return false;
        }
        std::string why;
        KEL::Filter* filter = graph.CreateFilter(entry.className, entry.name, &why);
        if (filter == nullptr) {
            *error = "cannot create filter '" + entry.name + "' of class '" + entry.className + "': " + why;
            return false;
        }
        for (const auto& [name, value] : entry.params) {
            if (!SetFilterParam(*filter, name, value, error)) {
                return false;
            }
        }
    }
    auto connect = [&](const std::string& from, const std::string& to) {
        std::string why;
        if (graph.Connect(graph.FindFilter(from), graph.FindFilter(to), &why) != KEL::KEL_OK) {
            *error = "cannot connect '" + from + "' to '" + to + "': " + why;
            return false;
        }
        return true;
    };
    if (description.connections.empty()) {
        for (std::size_t i = 1; i < description.filters.size(); ++i) {
            if (!connect(description.filters.front().name, description.filters[i].name)) {
                return false;
            }
        }
    }
    for (const auto& c : description.connections) {
        if (!connect(c.from, c.to)) {
            return false;
        }
    }
    return true;
}

}  // namespace KelTool
