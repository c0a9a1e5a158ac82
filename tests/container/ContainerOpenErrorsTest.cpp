#include <KelCommon/Logger.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;

// Opens `path` expecting `code`, and checks the failure was logged at level
// 2 with the path.
void ExpectOpenFails(const std::string& path, KEL::KelErrorCode code) {
    KelCommon::ScopedLogCapture log;
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), code) << reader.GetLastError();
    EXPECT_FALSE(reader.GetLastError().empty());
    EXPECT_EQ(reader.GetNumStreams(), 0);
    EXPECT_FALSE(reader.GetFrameAtom(1, 0));
    std::size_t level2 = 0;
    for (const auto& r : log.Records()) {
        if (r.level == 2 && r.message.find(path) != std::string::npos &&
            r.message.find(reader.GetLastError()) != std::string::npos) {
            ++level2;
        }
    }
    EXPECT_EQ(level2, 1U);
}

TEST(ContainerOpenErrors, MissingFileIsNotFound) {
    TempDir dir;
    ExpectOpenFails(dir.File("absent.kel"), KEL::KEL_ERR_NOT_FOUND);
}

TEST(ContainerOpenErrors, UnreadableFileIsAccessDenied) {
    if (geteuid() == 0) {
        GTEST_SKIP() << "permissions do not apply to root";
    }
    TempDir dir;
    const auto path = dir.File("locked.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    ExpectOpenFails(path, KEL::KEL_ERR_ACCESS_DENIED);
}

TEST(ContainerOpenErrors, DirectoryIsNotAContainer) {
    TempDir dir;
    ExpectOpenFails(dir.Path().string(), KEL::KEL_ERR_NOT_A_CONTAINER);
}

TEST(ContainerOpenErrors, EmptyFileIsNotAContainer) {
    TempDir dir;
    const auto path = dir.File("empty.kel");
    WriteFileBytes(path, {});
    ExpectOpenFails(path, KEL::KEL_ERR_NOT_A_CONTAINER);
}

TEST(ContainerOpenErrors, OtherFileIsNotAContainer) {
    TempDir dir;
    const auto path = dir.File("text.kel");
    const std::string text = "this is a text file that happens to be long enough";
    WriteFileBytes(path, std::vector<std::uint8_t>(text.begin(), text.end()));
    ExpectOpenFails(path, KEL::KEL_ERR_NOT_A_CONTAINER);
}

TEST(ContainerOpenErrors, NewerFormatVersionIsUnsupported) {
    TempDir dir;
    const auto path = dir.File("future.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    auto bytes = ReadFileBytes(path);
    const auto header = KEL::container::MakeFileHeader(2001);
    std::copy(header.begin(), header.end(), bytes.begin());
    WriteFileBytes(path, bytes);
    ExpectOpenFails(path, KEL::KEL_ERR_UNSUPPORTED_VERSION);
}

TEST(ContainerOpenErrors, DamagedFileHeaderIsCorrupt) {
    TempDir dir;
    const auto path = dir.File("header.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    FlipByte(path, 11);
    ExpectOpenFails(path, KEL::KEL_ERR_CORRUPT);
}

TEST(ContainerOpenErrors, CutFileHeaderIsCorrupt) {
    TempDir dir;
    const auto path = dir.File("cut.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    TruncateFile(path, 12);
    ExpectOpenFails(path, KEL::KEL_ERR_CORRUPT);
}

TEST(ContainerOpenErrors, FileOfOnlyDamagedRecordsIsCorrupt) {
    TempDir dir;
    const auto path = dir.File("garbage.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)}, false);
    auto bytes = ReadFileBytes(path);
    for (std::size_t i = KEL::container::kFirstRecordOffset; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    WriteFileBytes(path, bytes);
    ExpectOpenFails(path, KEL::KEL_ERR_CORRUPT);
}

TEST(ContainerOpenErrors, InitializeCanBeRepeated) {
    TempDir dir;
    const auto path = dir.File("again.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0), MakeFrameAtom(2, 0)});
    KEL::ReadKEL2File reader(path.c_str());
    ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
    ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
    EXPECT_EQ(reader.GetNumStreams(), 2);
    EXPECT_EQ(reader.GetNumAtoms(), 2U);
}

}  // namespace
