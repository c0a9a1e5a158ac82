// The command line itself: usage errors, plugin loading and the filter
// listing.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "ToolTestSupport.h"

namespace {

using KelCommandLine = kel_tool_test::KelToolTest;

TEST_F(KelCommandLine, UsageErrorsExitTwoAndNameTheProblem) {
    KelFails({"frobnicate"}, 2, "frobnicate");
    KelFails({"copy", "only-one.kel"}, 2, "OUT");
    KelFails({"copy", "a.kel", "b.kel", "--buffer", "4"}, 2, "--async");  // a queue only the asynchronous writer has
}

// Every class of both plugins: those the file plugin lists on its own (a
// plugin named after the command loads only that one; the table quotes
// parameter names) and the synthetic source. (Their
// GUIDs and categories are checked by
// PluginLoaderTest.LoadsTheBuiltPluginOnceAndReadsItsDescriptorClassesAndParameters.)
TEST_F(KelCommandLine, FiltersListsEveryClassOfTheLoadedPlugins) {
    const auto names = [&](const std::vector<std::string>& args) {
        const auto run = KelOk(args);
        std::set<std::string> set;
        for (const auto& c : nlohmann::json::parse(run.out)) {
            set.insert(c["name"].get<std::string>());
        }
        return set;
    };
    auto all = names({"filters", "--json"});
    EXPECT_EQ(all.erase("SyntheticCaptureSource"), 1U);
    EXPECT_EQ(all, names({"filters", "--json", "--plugin", KEL_TEST_PLUGIN_PATH}));
    EXPECT_TRUE(kel_tool_test::Contains(Kel({"filters", "--plugin", KEL_TEST_PLUGIN_PATH}).out,
                                        {"11 filter class(es)", "\"Frames count per snapshot\""}));
    KelFails({"--plugin-dir", File("nowhere"), "filters"}, 1, "does not exist");
}

}  // namespace
