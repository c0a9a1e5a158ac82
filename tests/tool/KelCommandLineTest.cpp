// The command line itself: usage errors, plugin loading, the filter listing
// and verbosity.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ToolTestSupport.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;
using kel_tool_test::RunKel;

TEST(KelCommandLine, UnknownCommandIsAUsageError) {
    TempDir dir;
    const auto run = RunKel({"frobnicate"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("frobnicate"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
}

TEST(KelCommandLine, MissingArgumentIsAUsageError) {
    TempDir dir;
    const auto run = RunKel({"copy", "only-one.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("OUT"), std::string::npos) << run.err;
}

TEST(KelCommandLine, BufferOptionNeedsAsync) {
    TempDir dir;
    const auto run = RunKel({"copy", "a.kel", "b.kel", "--buffer", "4"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 2) << run.err;
}

TEST(KelCommandLine, HelpSucceedsAndListsCommands) {
    TempDir dir;
    const auto run = RunKel({"--help"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 0);
    for (const char* command :
         {"filters", "info", "verify", "run", "copy", "split", "concat", "merge", "thumbnail", "demo"}) {
        EXPECT_NE(run.out.find(command), std::string::npos) << command;
    }
}

TEST(KelFilters, ListsEveryClassOfBothPluginsWithParameters) {
    TempDir dir;
    const auto run = RunKel({"filters", "--json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto classes = nlohmann::json::parse(run.out);
    std::map<std::string, nlohmann::json> byName;
    for (const auto& c : classes) {
        byName[c["name"].get<std::string>()] = c;
    }
    ASSERT_TRUE(byName.contains("SourceKEL2FileReader"));
    ASSERT_TRUE(byName.contains("TargetKEL2FileWriterAsync"));
    ASSERT_TRUE(byName.contains("SyntheticCaptureSource"));
    EXPECT_EQ(byName["SourceKEL2FileReader"]["typeGuid"], "B74863F3-13CF-47A0-9F90-07718FC52AB6");
    EXPECT_EQ(byName["SourceKEL2FileReader"]["category"], "source");
    EXPECT_EQ(byName["TargetKEL2FileWriterAsync"]["category"], "target");

    std::map<std::string, nlohmann::json> params;
    for (const auto& p : byName["TargetKEL2FileWriterAsync"]["params"]) {
        params[p["name"].get<std::string>()] = p;
    }
    ASSERT_TRUE(params.contains("Dropped frames count"));
    EXPECT_EQ(params["Dropped frames count"]["type"], "int64");
    EXPECT_EQ(params["Dropped frames count"]["flags"], 4);
    ASSERT_TRUE(params.contains("Buffer size"));
    EXPECT_EQ(params["Buffer size"]["flags"], 1);
    EXPECT_FALSE(params["Buffer size"]["domain"].get<std::string>().empty());
}

TEST(KelFilters, TableNamesClassesAndQuotedParameters) {
    TempDir dir;
    const auto run = RunKel({"filters"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("TargetKEL2FilePerStreamSnapshotWriterAsync"), std::string::npos);
    EXPECT_NE(run.out.find("\"Frames count per snapshot\""), std::string::npos);
}

TEST(KelPlugins, PluginOptionMayFollowTheCommand) {
    kel_test::TempDir dir;
    const auto run = RunKel({"filters", "--plugin", KEL_TEST_PLUGIN_PATH}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("11 filter class(es)"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("TargetKEL2FilePerStreamSnapshotWriterAsync"), std::string::npos);
    EXPECT_EQ(run.out.find("SyntheticCaptureSource"), std::string::npos);
}

TEST(KelPlugins, MissingPluginDirectoryFailsWithMessage) {
    TempDir dir;
    const auto run = RunKel({"--plugin-dir", dir.File("nowhere"), "filters"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("does not exist"), std::string::npos) << run.err;
}

TEST(KelPlugins, NonPluginLibraryIsRefusedWithMessage) {
    TempDir dir;
    kel_tool_test::WriteText(dir.File("libfake.so"), "not an ELF file");
    const auto run = RunKel({"--plugin", dir.File("libfake.so"), "filters"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("libfake.so"), std::string::npos) << run.err;
}

TEST(KelPlugins, EmptyPluginDirectoryLeavesOnlyBuiltInClasses) {
    TempDir dir;
    std::filesystem::create_directories(dir.Path() / "empty");
    const auto run = RunKel({"--plugin-dir", dir.File("empty"), "filters", "--json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const auto& c : nlohmann::json::parse(run.out)) {
        EXPECT_NE(c["name"], "SourceKEL2FileReader");
    }
}

TEST(KelVerbosity, VerboseShowsWriterStartLines) {
    TempDir dir;
    kel_tool_test::RecordSynthetic(dir.File("in.kel"), 1, 2);
    const auto quiet = RunKel({"copy", "-q", "in.kel", "out.kel"}, dir.Path().string());
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_EQ(quiet.err.find("WriterBase::Start writing"), std::string::npos) << quiet.err;
    const auto verbose = RunKel({"-vv", "copy", "-q", "in.kel", "out2.kel"}, dir.Path().string());
    ASSERT_EQ(verbose.exitCode, 0) << verbose.err;
    EXPECT_NE(verbose.err.find("WriterBase::Start writing"), std::string::npos) << verbose.err;
}

}  // namespace
