#include "GraphDescription.h"

#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace KelTool {

namespace {

using Json = nlohmann::ordered_json;

// Parameter values may be written as JSON strings, numbers or booleans; all
// are handed to the parameter as text.
bool ValueAsText(const Json& value, std::string* text) {
    if (value.is_string()) {
        *text = value.get<std::string>();
    } else if (value.is_boolean()) {
        *text = value.get<bool>() ? "true" : "false";
    } else if (value.is_number_integer() || value.is_number_unsigned()) {
        *text = value.dump();
    } else if (value.is_number_float()) {
        std::ostringstream out;
        out << value.get<double>();
        *text = out.str();
    } else {
        return false;
    }
    return true;
}

bool ParseParamObject(const Json& object, const std::string& where, ParamValues* params, std::string* error) {
    if (!object.is_object()) {
        *error = where + " must be an object of parameter names to values";
        return false;
    }
    for (const auto& [name, value] : object.items()) {
        std::string text;
        if (!ValueAsText(value, &text)) {
            *error = where + ": value of '" + name + "' must be a string, number or boolean";
            return false;
        }
        params->emplace_back(name, text);
    }
    return true;
}

bool ReadUInt32(const Json& object, const char* key, const std::string& where, std::uint32_t* out, std::string* error) {
    const auto it = object.find(key);
    if (it == object.end()) {
        return true;
    }
    if (!it->is_number_unsigned() && !(it->is_number_integer() && it->get<std::int64_t>() >= 0)) {
        *error = where + ": '" + key + "' must be a non-negative integer";
        return false;
    }
    const auto value = it->get<std::uint64_t>();
    if (value > std::numeric_limits<std::uint32_t>::max()) {
        *error = where + ": '" + key + "' is too large";
        return false;
    }
    *out = static_cast<std::uint32_t>(value);
    return true;
}

bool ReadString(const Json& object, const char* key, const std::string& where, bool required, std::string* out,
                std::string* error) {
    const auto it = object.find(key);
    if (it == object.end()) {
        if (required) {
            *error = where + ": missing '" + key + "'";
            return false;
        }
        return true;
    }
    if (!it->is_string() || it->get<std::string>().empty()) {
        *error = where + ": '" + key + "' must be a non-empty string";
        return false;
    }
    *out = it->get<std::string>();
    return true;
}

bool CheckKeys(const Json& object, const std::set<std::string>& known, const std::string& where, std::string* error) {
    for (const auto& [key, value] : object.items()) {
        if (!known.contains(key)) {
            *error = where + ": unknown key '" + key + "'";
            return false;
        }
    }
    return true;
}

bool ParseFilters(const Json& root, GraphDescription* graph, std::string* error) {
    const auto it = root.find("filters");
    if (it == root.end() || !it->is_array() || it->empty()) {
        *error = "'filters' must be a non-empty array";
        return false;
    }
    std::set<std::string> names;
    for (std::size_t i = 0; i < it->size(); ++i) {
        const Json& f = (*it)[i];
        const std::string where = "filters[" + std::to_string(i) + "]";
        if (!f.is_object()) {
            *error = where + " must be an object";
            return false;
        }
        FilterEntry entry;
        if (!CheckKeys(f, {"class", "name", "params"}, where, error) ||
            !ReadString(f, "class", where, true, &entry.className, error) ||
            !ReadString(f, "name", where, true, &entry.name, error)) {
            return false;
        }
        if (entry.name.find('.') != std::string::npos) {
            *error = where + ": instance name '" + entry.name + "' must not contain '.'";
            return false;
        }
        if (!names.insert(entry.name).second) {
            *error = where + ": instance name '" + entry.name + "' is used twice";
            return false;
        }
        if (const auto p = f.find("params"); p != f.end()) {
            if (!ParseParamObject(*p, where + ".params", &entry.params, error)) {
                return false;
            }
        }
        graph->filters.push_back(std::move(entry));
    }
    return true;
}

bool ParseConnections(const Json& root, GraphDescription* graph, std::string* error) {
    const auto it = root.find("connections");
    if (it == root.end()) {
        return true;
    }
    if (!it->is_array()) {
        *error = "'connections' must be an array";
        return false;
    }
    for (std::size_t i = 0; i < it->size(); ++i) {
        const Json& c = (*it)[i];
        const std::string where = "connections[" + std::to_string(i) + "]";
        ConnectionEntry entry;
        if (c.is_array() && c.size() == 2 && c[0].is_string() && c[1].is_string()) {
            entry.from = c[0].get<std::string>();
            entry.to = c[1].get<std::string>();
        } else if (c.is_object()) {
            if (!CheckKeys(c, {"from", "to"}, where, error) ||
                !ReadString(c, "from", where, true, &entry.from, error) ||
                !ReadString(c, "to", where, true, &entry.to, error)) {
                return false;
            }
        } else {
            *error = where + " must be [\"from\", \"to\"] or {\"from\": ..., \"to\": ...}";
            return false;
        }
        for (const auto* name : {&entry.from, &entry.to}) {
            if (graph->FindFilter(*name) == nullptr) {
                *error = where + ": no filter named '" + *name + "'";
                return false;
            }
        }
        graph->connections.push_back(std::move(entry));
    }
    return true;
}

bool ParseTimeline(const Json& root, GraphDescription* graph, std::string* error) {
    const auto it = root.find("timeline");
    if (it == root.end()) {
        return true;
    }
    if (!it->is_array()) {
        *error = "'timeline' must be an array";
        return false;
    }
    for (std::size_t i = 0; i < it->size(); ++i) {
        const Json& e = (*it)[i];
        const std::string where = "timeline[" + std::to_string(i) + "]";
        if (!e.is_object()) {
            *error = where + " must be an object";
            return false;
        }
        if (!CheckKeys(e, {"frame", "pass", "filter", "set", "press", "stop"}, where, error)) {
            return false;
        }
        TimelineEvent event;
        if (!e.contains("frame")) {
            *error = where + ": missing 'frame'";
            return false;
        }
        if (!ReadUInt32(e, "frame", where, &event.frame, error) ||
            !ReadString(e, "filter", where, false, &event.filter, error)) {
            return false;
        }
        if (e.contains("pass")) {
            std::uint32_t pass = 0;
            if (!ReadUInt32(e, "pass", where, &pass, error)) {
                return false;
            }
            event.pass = pass;
        }
        if (const auto s = e.find("set"); s != e.end()) {
            if (!ParseParamObject(*s, where + ".set", &event.set, error)) {
                return false;
            }
        }
        if (const auto p = e.find("press"); p != e.end()) {
            if (p->is_string()) {
                event.press.push_back(p->get<std::string>());
            } else if (p->is_array()) {
                for (const auto& name : *p) {
                    if (!name.is_string()) {
                        *error = where + ": 'press' must name parameters";
                        return false;
                    }
                    event.press.push_back(name.get<std::string>());
                }
            } else {
                *error = where + ": 'press' must be a parameter name or an array of them";
                return false;
            }
        }
        if (const auto s = e.find("stop"); s != e.end()) {
            if (!s->is_boolean()) {
                *error = where + ": 'stop' must be true or false";
                return false;
            }
            event.stop = s->get<bool>();
        }
        const bool changesParams = !event.set.empty() || !event.press.empty();
        if (!changesParams && !event.stop) {
            *error = where + ": an event needs 'set', 'press' or 'stop'";
            return false;
        }
        if (changesParams) {
            if (event.filter.empty()) {
                *error = where + ": 'filter' is required with 'set' or 'press'";
                return false;
            }
            if (graph->FindFilter(event.filter) == nullptr) {
                *error = where + ": no filter named '" + event.filter + "'";
                return false;
            }
        }
        graph->timeline.push_back(std::move(event));
    }
    return true;
}

bool ParseOptions(const Json& root, GraphDescription* graph, std::string* error) {
    const auto it = root.find("options");
    if (it == root.end()) {
        return true;
    }
    const std::string where = "options";
    if (!it->is_object()) {
        *error = "'options' must be an object";
        return false;
    }
    if (!CheckKeys(*it, {"startFrame", "frameCount", "loops", "maxConsecutiveSkips", "doneTimeoutMs", "compression"}, where, error)) {
        return false;
    }
    std::uint32_t doneTimeoutMs = 0;
    if (!ReadUInt32(*it, "startFrame", where, &graph->startFrame, error) ||
        !ReadUInt32(*it, "loops", where, &graph->loops, error) ||
        !ReadUInt32(*it, "maxConsecutiveSkips", where, &graph->maxConsecutiveSkips, error) ||
        !ReadUInt32(*it, "doneTimeoutMs", where, &doneTimeoutMs, error)) {
        return false;
    }
    graph->doneTimeout = std::chrono::milliseconds(doneTimeoutMs);
    if (it->contains("frameCount")) {
        std::uint32_t count = 0;
        if (!ReadUInt32(*it, "frameCount", where, &count, error)) {
            return false;
        }
        graph->frameCount = count;
    }
    if (graph->maxConsecutiveSkips == 0) {
        *error = "options: 'maxConsecutiveSkips' must be at least 1";
        return false;
    }
    if (const auto c = it->find("compression"); c != it->end()) {
        KEL::CompressionSetting setting;
        std::string why;
        if (!c->is_string() || !KEL::ParseCompression(c->get<std::string>(), setting, why)) {
            *error = "options: 'compression' must be \"none\", \"zstd\" or \"zstd:LEVEL\"" +
                     (why.empty() ? std::string() : ": " + why);
            return false;
        }
        graph->compression = setting;
    }
    return true;
}

}  // namespace

FilterEntry* GraphDescription::FindFilter(const std::string& name) {
    for (auto& f : filters) {
        if (f.name == name) {
            return &f;
        }
    }
    return nullptr;
}

std::optional<GraphDescription> ParseGraphDescription(const std::string& text, std::string* error) {
    Json root;
    try {
        root = Json::parse(text);
    } catch (const Json::parse_error& e) {
        *error = std::string("not valid JSON: ") + e.what();
        return std::nullopt;
    }
    if (!root.is_object()) {
        *error = "the graph must be a JSON object";
        return std::nullopt;
    }
    GraphDescription graph;
    if (!CheckKeys(root, {"filters", "connections", "timeline", "options", "description"}, "graph", error) ||
        !ParseFilters(root, &graph, error) || !ParseConnections(root, &graph, error) ||
        !ParseTimeline(root, &graph, error) || !ParseOptions(root, &graph, error)) {
        return std::nullopt;
    }
    return graph;
}

std::optional<GraphDescription> LoadGraphDescription(const std::string& path, std::string* error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        *error = "'" + path + "' is a directory, not a graph file";
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot open graph file '" + path + "'";
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        *error = "cannot read graph file '" + path + "'";
        return std::nullopt;
    }
    auto graph = ParseGraphDescription(text.str(), error);
    if (!graph) {
        *error = "'" + path + "': " + *error;
    }
    return graph;
}

bool ApplyParamOverride(GraphDescription& description, const std::string& assignment, std::string* error) {
    const auto dot = assignment.find('.');
    const auto eq = dot == std::string::npos ? std::string::npos : assignment.find('=', dot + 1);
    if (dot == std::string::npos || eq == std::string::npos || dot == 0 || eq == dot + 1) {
        *error = "'" + assignment + "' is not of the form INSTANCE.PARAMETER=VALUE";
        return false;
    }
    const std::string instance = assignment.substr(0, dot);
    const std::string param = assignment.substr(dot + 1, eq - dot - 1);
    const std::string value = assignment.substr(eq + 1);
    FilterEntry* filter = description.FindFilter(instance);
    if (filter == nullptr) {
        *error = "'" + assignment + "': the graph has no filter named '" + instance + "'";
        return false;
    }
    for (auto& [name, text] : filter->params) {
        if (name == param) {
            text = value;
            return true;
        }
    }
    filter->params.emplace_back(param, value);
    return true;
}

}  // namespace KelTool
