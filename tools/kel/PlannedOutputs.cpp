#include "PlannedOutputs.h"

#include <KEL/FilterParams.h>
#include <KEL/FilterWithInput.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "utils/ParameterNames.h"
#include "writers/PerStreamFilePath.h"

namespace KelTool {

namespace fs = std::filesystem;

namespace {

constexpr const char* kPathParam = Kel2File::kParamKelFilePath;

}  // namespace

std::string WriterOutputPath(const std::string& value) {
    const KEL::FilterParamWriteFilePath param("path", 0, value.c_str(), "kel");
    return fs::path(param.GetAbsoluteFilePath().str()).replace_extension(".kel").string();
}

std::string PerStreamOutputPath(const std::string& value, std::uint16_t id) {
    return WriterOutputPath(Kel2File::PerStreamFilePath(value, id));
}

std::vector<PlannedOutput> PlannedOutputs(KEL::Graph& graph, const GraphDescription& description) {
    std::vector<PlannedOutput> planned;
    std::set<std::string> seen;
    const auto plan = [&](const std::string& target, const std::string& path) {
        if (seen.insert(path).second) {
            planned.push_back({target, path});
        }
    };
    for (KEL::Filter* filter : graph.GetFilters()) {
        const std::string className = filter->GetFilterClassInfo().GetName().str();
        auto* target = dynamic_cast<KEL::FilterWithInput*>(filter);
        const auto param = filter->FindParam(kPathParam);
        if (target == nullptr || param == nullptr || !className.starts_with("TargetKEL2File")) {
            continue;
        }
        std::vector<std::string> values{param->GetValueAsString()};
        for (const TimelineEvent& event : description.timeline) {
            if (event.filter != filter->GetInstanceName()) {
                continue;
            }
            for (const auto& [name, value] : event.set) {
                if (name == kPathParam) {
                    values.push_back(value);
                }
            }
        }
        const bool perStream = className.find("PerStream") != std::string::npos;
        for (const std::string& value : values) {
            if (!perStream) {
                plan(filter->GetInstanceName(), WriterOutputPath(value));
                continue;
            }
            for (const std::uint32_t id : target->GetInputStreamIds()) {
                plan(filter->GetInstanceName(), PerStreamOutputPath(value, static_cast<std::uint16_t>(id)));
            }
        }
    }
    return planned;
}

FileIdentity IdentifyPath(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return {};
    }
    return {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino)};
}

std::vector<std::string> ExistingFiles(const std::vector<PlannedOutput>& planned) {
    std::vector<std::string> existing;
    for (const PlannedOutput& output : planned) {
        for (const std::string& candidate : {output.path, output.path + ".xml"}) {
            std::error_code ec;
            if (fs::symlink_status(candidate, ec).type() != fs::file_type::not_found) {
                existing.push_back(candidate);
            }
        }
    }
    return existing;
}

std::string DescribeExisting(const std::vector<std::string>& existing) {
    constexpr std::size_t kNamed = 3;
    std::string text;
    for (std::size_t i = 0; i < existing.size() && i < kNamed; ++i) {
        text += (i == 0 ? "'" : "', '") + existing[i];
    }
    text += "'";
    if (existing.size() > kNamed) {
        text += " and " + std::to_string(existing.size() - kNamed) + " more";
    }
    return text + (existing.size() == 1 ? " exists" : " exist") + "; nothing was written (pass --overwrite to replace)";
}

}  // namespace KelTool
