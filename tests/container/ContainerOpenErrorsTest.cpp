// Paths a reader must refuse at once, with their code, a message and one log
// line. (Files cut anywhere, also inside the file header, are covered by
// ContainerFollow.EveryPrefixOfAFileListsExactlyItsCompleteRecords.)

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <tuple>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using namespace KEL::container;
using Bytes = std::vector<std::uint8_t>;

// Special files are refused without blocking: a FIFO without a writer would
// wait forever if opened for reading in the ordinary way.
TEST(ContainerOpen, RefusedPathsFailAtOnceWithTheirCodeAndOneLogLine) {
    TempDir dir;
    const auto path = dir.File("test.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    const auto original = ReadFileBytes(path);
    ASSERT_EQ(mkfifo(dir.File("take.kel").c_str(), 0644), 0);
    // The one-atom container with `damage` done to its bytes.
    const auto damaged = [&](const std::function<void(Bytes&)>& damage) {
        auto bytes = original;
        damage(bytes);
        WriteFileBytes(path, bytes);
        return path;
    };
    const std::vector<std::tuple<const char*, KEL::KelErrorCode, std::function<std::string()>>> cases{
        {"missing file", KEL::KEL_ERR_NOT_FOUND, [&] { return dir.File("no.kel"); }},
        {"directory", KEL::KEL_ERR_NOT_A_CONTAINER, [&] { return dir.Path().string(); }},
        {"FIFO", KEL::KEL_ERR_NOT_A_CONTAINER, [&] { return dir.File("take.kel"); }},
        {"device", KEL::KEL_ERR_NOT_A_CONTAINER, [] { return std::string("/dev/zero"); }},
        {"other file", KEL::KEL_ERR_NOT_A_CONTAINER, [&] { return damaged([](Bytes& b) { b.assign(300, 't'); }); }},
        {"newer format version", KEL::KEL_ERR_UNSUPPORTED_VERSION,
         [&] {
             return damaged([](Bytes& b) {
                 const auto header = EncodeFileHeader({2001, kLayoutRevision, 1, 0});
                 std::copy(header.begin(), header.end(), b.begin());
             });
         }},
        {"layout of an earlier release", KEL::KEL_ERR_UNSUPPORTED_VERSION,
         [&] {
             return damaged([](Bytes& b) {
                 b[12] = 0;  // revision 0 kept a 16-bit header check at 13
                 PutU16(b.data() + 13, static_cast<std::uint16_t>(Checksum(b.data(), 13)));
             });
         }},
        {"damaged header without any record", KEL::KEL_ERR_CORRUPT, [&] {
             return damaged([](Bytes& b) {
                 b[11] ^= 1;
                 std::fill(b.begin() + kFirstRecordOffset, b.end(), 0);
             });
         }}};
    for (const auto& [what, code, make] : cases) {
        SCOPED_TRACE(what);
        const std::string target = make();
        KelCommon::ScopedLogCapture log;
        KEL::ReadKEL2File reader(target.c_str());
        EXPECT_EQ(reader.Initialize(), code) << reader.GetLastError();
        ASSERT_FALSE(reader.GetLastError().empty());
        EXPECT_EQ(reader.GetNumStreams(), 0);
        EXPECT_FALSE(reader.GetFrameAtom(1, 0));
        EXPECT_EQ(reader.Refresh(), KEL::KEL_ERR_NOT_OPEN);
        std::size_t lines = 0;
        for (const auto& r : log.Records()) {
            lines += (r.level == 2 && r.message.find(target) != std::string::npos &&
                      r.message.find(reader.GetLastError()) != std::string::npos);
        }
        EXPECT_EQ(lines, 1U);
    }
}

// Runs as an unprivileged user: as root, permissions would not apply and the
// case would prove nothing.
TEST(ContainerOpen, UnreadableFileIsAccessDenied) {
    TempDir dir;
    const auto path = dir.File("test.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    std::filesystem::permissions(dir.Path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::none);
    const int code = RunInChild([&] { return static_cast<int>(KEL::ReadKEL2File(path.c_str()).Initialize()); }, true);
    EXPECT_EQ(code, static_cast<int>(KEL::KEL_ERR_ACCESS_DENIED));
}

}  // namespace
