// Parsing of graph description files and command-line overrides (the forms
// `kel run` uses end to end, and a graph file that does not open, are in
// KelRunTest).

#include <gtest/gtest.h>

#include "GraphDescription.h"

namespace {

using KelTool::ParamValues;

TEST(GraphDescription, ParsesEveryFormOfFiltersConnectionsTimelineOptionsAndOverrides) {
    std::string error;
    auto g = KelTool::ParseGraphDescription(R"({
      "filters": [
        {"class": "Src", "name": "a", "params": {"Frames": 10, "Name": "x", "On": true, "Rate": 2.5, "A": "1"}},
        {"class": "Dst", "name": "b"}
      ],
      "connections": [["a", "b"], {"from": "b", "to": "a"}],
      "timeline": [
        {"frame": 3, "filter": "b", "set": {"Enable Recording": true}, "press": "Take snapshot"},
        {"frame": 7, "pass": 1, "filter": "b", "press": ["P1", "P2"]},
        {"frame": 9, "stop": true}
      ],
      "options": {"startFrame": 2, "frameCount": 5, "loops": 0, "maxConsecutiveSkips": 3, "doneTimeoutMs": 250}
    })",
                                            &error);
    ASSERT_TRUE(g) << error;
    ASSERT_EQ(g->filters.size(), 2U);
    // Values as text, in the order of the file.
    EXPECT_EQ(g->filters[0].params,
              (ParamValues{{"Frames", "10"}, {"Name", "x"}, {"On", "true"}, {"Rate", "2.5"}, {"A", "1"}}));
    ASSERT_EQ(g->connections.size(), 2U);
    EXPECT_EQ(g->connections[1].from + ">" + g->connections[1].to, "b>a");
    ASSERT_EQ(g->timeline.size(), 3U);
    EXPECT_EQ(g->timeline[1].press, (std::vector<std::string>{"P1", "P2"}));
    EXPECT_EQ(std::tuple(g->startFrame, g->frameCount, g->loops, g->maxConsecutiveSkips, g->doneTimeout.count()),
              std::tuple(2U, std::optional(5U), 0U, 3U, 250L));
    // An override's instance name ends at the first '.', the parameter name
    // at the first '=' after it; the instance must exist. (Replacing and
    // adding parameters is checked end to end by
    // KelRun.ShippedTimelineExampleRunsAndTakesOverrides.)
    ASSERT_TRUE(KelTool::ApplyParamOverride(*g, "b.KEL File Path=b=c.kel", &error)) << error;
    EXPECT_EQ(g->filters[1].params, (ParamValues{{"KEL File Path", "b=c.kel"}}));
    EXPECT_FALSE(KelTool::ApplyParamOverride(*g, "other.X=1", &error));
    EXPECT_NE(error.find("no filter named 'other'"), std::string::npos) << error;
}

TEST(GraphDescription, MalformedGraphsAreRefusedNamingTheElement) {
    const std::string one = R"({"filters": [{"class": "C", "name": "a"}], )";
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
             {"[1, 2]", "must be a JSON object"},
             {"{", "not valid JSON"},
             {R"({"filters": []})", "'filters' must be a non-empty array"},
             {R"({"filters": [{"name": "a"}]})", "filters[0]: missing 'class'"},
             {R"({"filters": [{"class": "C", "name": "a"}, {"class": "C", "name": "a"}]})",
              "filters[1]: instance name 'a' is used twice"},
             {R"({"filters": [{"class": "C", "name": "a", "params": {"x": [1]}}]})", "filters[0].params: value of 'x'"},
             {R"({"filters": [{"class": "C", "name": "a", "colour": 1}]})", "unknown key 'colour'"},
             {one + R"("connections": [["a", "b"]]})", "connections[0]: no filter named 'b'"},
             {one + R"("timeline": [{"frame": -1, "stop": true}]})", "'frame' must be a non-negative integer"},
             {one + R"("timeline": [{"frame": 1, "filter": "a"}]})", "needs 'set', 'press' or 'stop'"},
             {one + R"("options": {"maxConsecutiveSkips": 0}})", "at least 1"}}) {
        std::string error;
        EXPECT_FALSE(KelTool::ParseGraphDescription(text, &error)) << text;
        EXPECT_NE(error.find(message), std::string::npos) << text << ": " << error;
    }
}

}  // namespace
