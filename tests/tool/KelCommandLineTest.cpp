// The command line itself: usage errors, plugin loading, the filter listing
// and verbosity.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "ToolTestSupport.h"

namespace {

using KelCommandLine = kel_tool_test::KelToolTest;
using KelFilters = kel_tool_test::KelToolTest;

TEST_F(KelCommandLine, UsageErrorsExitTwoAndNameTheProblem) {
    KelFails({"frobnicate"}, 2, "frobnicate");
    KelFails({"copy", "only-one.kel"}, 2, "OUT");
    KelFails({"copy", "a.kel", "b.kel", "--buffer", "4"}, 2, "--async");  // a queue only the asynchronous writer has
}

// Without -v nothing is logged: the runs of KelCopy print nothing to standard
// error.
TEST_F(KelCommandLine, VerboseShowsWriterStartLines) {
    kel_tool_test::RecordSynthetic(File("in.kel"), 1, 2);
    const auto verbose = Kel({"-vv", "copy", "-q", "in.kel", "out.kel"});
    ASSERT_EQ(verbose.exitCode, 0) << verbose.err;
    EXPECT_NE(verbose.err.find("WriterBase::Start writing"), std::string::npos) << verbose.err;
}

// The member of the JSON array `list` named `name` (null when there is none).
nlohmann::json Named(const nlohmann::json& list, const std::string& name) {
    const auto it = std::find_if(list.begin(), list.end(), [&](const nlohmann::json& e) { return e["name"] == name; });
    return it == list.end() ? nlohmann::json() : *it;
}

// Every class of both plugins with its parameters; a plugin named after the
// command loads only that plugin (the table quotes parameter names); without
// the plugins, only the tool's own classes are there.
TEST_F(KelFilters, ListsEveryClassOfTheLoadedPluginsWithParameters) {
    const auto run = Kel({"filters", "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto classes = nlohmann::json::parse(run.out);
    EXPECT_FALSE(Named(classes, "SyntheticCaptureSource").is_null());
    EXPECT_EQ(Named(classes, "SourceKEL2FileReader")["typeGuid"], "B74863F3-13CF-47A0-9F90-07718FC52AB6");
    EXPECT_EQ(Named(classes, "SourceKEL2FileReader")["category"], "source");
    const auto async = Named(classes, "TargetKEL2FileWriterAsync");
    EXPECT_EQ(async["category"], "target");
    EXPECT_EQ(Named(async["params"], "Dropped frames count")["type"], "int64");
    EXPECT_EQ(Named(async["params"], "Dropped frames count")["flags"], 4);
    EXPECT_EQ(Named(async["params"], "Buffer size")["flags"], 1);
    EXPECT_FALSE(Named(async["params"], "Buffer size")["domain"].get<std::string>().empty());

    const auto one = Kel({"filters", "--plugin", KEL_TEST_PLUGIN_PATH});
    ASSERT_EQ(one.exitCode, 0) << one.err;
    EXPECT_NE(one.out.find("11 filter class(es)"), std::string::npos) << one.out;
    EXPECT_NE(one.out.find("TargetKEL2FilePerStreamSnapshotWriterAsync"), std::string::npos);
    EXPECT_NE(one.out.find("\"Frames count per snapshot\""), std::string::npos);
    EXPECT_EQ(one.out.find("SyntheticCaptureSource"), std::string::npos);
    KelFails({"--plugin-dir", File("nowhere"), "filters"}, 1, "does not exist");
    kel_tool_test::WriteText(File("libfake.so"), "not an ELF file");
    KelFails({"--plugin", File("libfake.so"), "filters"}, 1, "libfake.so");
    std::filesystem::create_directories(dir.Path() / "empty");
    const auto bare = Kel({"--plugin-dir", File("empty"), "filters", "--json"});
    ASSERT_EQ(bare.exitCode, 0) << bare.err;
    EXPECT_TRUE(Named(nlohmann::json::parse(bare.out), "SourceKEL2FileReader").is_null());
}

}  // namespace
