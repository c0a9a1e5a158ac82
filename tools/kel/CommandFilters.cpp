#include <KEL/Filter.h>
#include <KEL/FilterFactory.h>
#include <KEL/FilterParams.h>

#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "PluginSetup.h"

namespace KelTool {

namespace {

std::string FlagsText(std::uint32_t flags) {
    std::string text;
    auto add = [&text](const char* name) { text += (text.empty() ? "" : ",") + std::string(name); };
    if ((flags & KEL::PARAM_FLAG_INIT_ONLY) != 0) {
        add("init");
    }
    if ((flags & KEL::PARAM_FLAG_HIDDEN) != 0) {
        add("hidden");
    }
    if ((flags & KEL::PARAM_FLAG_STATUS) != 0) {
        add("status");
    }
    return text.empty() ? "live" : text;
}

struct FiltersOptions {
    bool json = false;
    bool all = false;
};

int RunFilters(const GlobalOptions& global, const FiltersOptions& options) {
    std::string error;
    if (!LoadPlugins(global, &error)) {
        return Fail(error);
    }
    nlohmann::ordered_json classes = nlohmann::ordered_json::array();
    for (const auto& registered : KEL::FilterFactory::GetRegisteredClasses()) {
        nlohmann::ordered_json jc;
        jc["name"] = registered.info.GetName().str();
        jc["typeGuid"] = registered.typeGuid.ToString().str();
        jc["category"] = KEL::FilterCategoryName(registered.info.GetCategory());
        jc["provider"] = registered.info.GetProvider().str();
        nlohmann::ordered_json params = nlohmann::ordered_json::array();
        std::string problem;
        auto filter = KEL::FilterFactory::CreateFilter(registered.typeGuid);
        if (!filter) {
            problem = "the creator made no filter";
        } else if (const auto code = filter->onInitializeParams(nullptr); code != KEL::KEL_OK) {
            problem = "onInitializeParams failed with code " + std::to_string(code);
        } else {
            for (const auto& p : filter->GetParams()) {
                if ((p->GetFlags() & KEL::PARAM_FLAG_HIDDEN) != 0 && !options.all) {
                    continue;
                }
                params.push_back({{"name", p->GetName()},
                                  {"type", p->GetTypeName()},
                                  {"flags", p->GetFlags()},
                                  {"flagNames", FlagsText(p->GetFlags())},
                                  {"domain", p->DescribeDomain()}});
            }
        }
        jc["params"] = std::move(params);
        if (!problem.empty()) {
            jc["error"] = problem;
        }
        classes.push_back(std::move(jc));
    }

    if (options.json) {
        std::cout << classes.dump(2) << "\n";
        return kExitOk;
    }
    std::cout << classes.size() << " filter class(es)\n";
    for (const auto& c : classes) {
        std::cout << "\n"
                  << c["name"].get<std::string>() << "  {" << c["typeGuid"].get<std::string>() << "}\n"
                  << "  category: " << c["category"].get<std::string>();
        if (!c["provider"].get<std::string>().empty()) {
            std::cout << "   plugin: " << c["provider"].get<std::string>();
        }
        std::cout << "\n";
        if (c.contains("error")) {
            std::cout << "  (cannot list parameters: " << c["error"].get<std::string>() << ")\n";
        }
        for (const auto& p : c["params"]) {
            std::cout << "  " << std::left << std::setw(36) << ("\"" + p["name"].get<std::string>() + "\"")
                      << std::setw(12) << p["type"].get<std::string>() << std::setw(8)
                      << p["flagNames"].get<std::string>() << p["domain"].get<std::string>() << std::right << "\n";
        }
    }
    return kExitOk;
}

}  // namespace

Command AddFiltersCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<FiltersOptions>();
    CLI::App* app =
        root.add_subcommand("filters", "List the filter classes of the loaded plugins and their parameters");
    app->add_flag("--json", options->json, "Print JSON");
    app->add_flag("--all", options->all, "Include hidden parameters");
    return {app, [&global, options] { return RunFilters(global, *options); }};
}

}  // namespace KelTool
