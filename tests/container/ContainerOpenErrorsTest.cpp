#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using Bytes = std::vector<std::uint8_t>;

enum class Target { kDamagedFile, kAbsentFile, kDirectory, kUnreadableFile };

struct OpenError {
    const char* name;
    KEL::KelErrorCode code;
    Target target;
    std::function<void(Bytes&)> damage;  // applied to a closed one-atom container
};

void PrintTo(const OpenError& error, std::ostream* os) { *os << error.name; }

class ContainerOpenErrors : public testing::TestWithParam<OpenError> {};

// The open fails with the case's code and a message, the failure is logged
// once at level 2 with the path and the message, and the reader stays empty.
TEST_P(ContainerOpenErrors, FailWithTheirCodeAndOneLogLine) {
    const auto& param = GetParam();
    TempDir dir;
    std::string path = dir.File("test.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    if (param.target == Target::kAbsentFile) {
        path = dir.File("absent.kel");
    } else if (param.target == Target::kDirectory) {
        path = dir.Path().string();
    } else if (param.target == Target::kUnreadableFile) {
        if (geteuid() == 0) {
            GTEST_SKIP() << "permissions do not apply to root";
        }
        ASSERT_EQ(chmod(path.c_str(), 0), 0);
    } else {
        auto bytes = ReadFileBytes(path);
        param.damage(bytes);
        WriteFileBytes(path, bytes);
    }
    KelCommon::ScopedLogCapture log;
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), param.code) << reader.GetLastError();
    EXPECT_FALSE(reader.GetLastError().empty());
    EXPECT_EQ(reader.GetNumStreams(), 0);
    EXPECT_FALSE(reader.GetFrameAtom(1, 0));
    std::size_t lines = 0;
    for (const auto& r : log.Records()) {
        lines += (r.level == 2 && r.message.find(path) != std::string::npos &&
                  r.message.find(reader.GetLastError()) != std::string::npos);
    }
    EXPECT_EQ(lines, 1U);
}

void ReplaceHeader(Bytes& b) {
    const auto header = KEL::container::MakeFileHeader(2001);
    std::copy(header.begin(), header.end(), b.begin());
}

const std::string kText = "this is a text file that happens to be long enough";

INSTANTIATE_TEST_SUITE_P(
    Cases, ContainerOpenErrors,
    testing::Values(OpenError{"MissingFileIsNotFound", KEL::KEL_ERR_NOT_FOUND, Target::kAbsentFile, {}},
                    OpenError{"UnreadableFileIsAccessDenied", KEL::KEL_ERR_ACCESS_DENIED, Target::kUnreadableFile, {}},
                    OpenError{"DirectoryIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER, Target::kDirectory, {}},
                    OpenError{"EmptyFileIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER, Target::kDamagedFile,
                              [](Bytes& b) { b.clear(); }},
                    OpenError{"OtherFileIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER, Target::kDamagedFile,
                              [](Bytes& b) { b.assign(kText.begin(), kText.end()); }},
                    OpenError{"NewerFormatVersionIsUnsupported", KEL::KEL_ERR_UNSUPPORTED_VERSION, Target::kDamagedFile,
                              ReplaceHeader},
                    OpenError{"DamagedFileHeaderIsCorrupt", KEL::KEL_ERR_CORRUPT, Target::kDamagedFile,
                              [](Bytes& b) { b[11] ^= 1; }},
                    OpenError{"CutFileHeaderIsCorrupt", KEL::KEL_ERR_CORRUPT, Target::kDamagedFile,
                              [](Bytes& b) { b.resize(12); }}),
    [](const testing::TestParamInfo<OpenError>& p) { return std::string(p.param.name); });

TEST(ContainerOpen, InitializeCanBeRepeated) {
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
