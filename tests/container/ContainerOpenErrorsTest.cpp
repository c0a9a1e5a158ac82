#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using Bytes = std::vector<std::uint8_t>;

struct OpenError {
    const char* name;
    KEL::KelErrorCode code;
    // Makes the thing to open from a directory holding a closed one-atom
    // container "test.kel"; returns its path.
    std::function<std::string(const TempDir&)> make;
};

void PrintTo(const OpenError& error, std::ostream* os) { *os << error.name; }

class ContainerOpenErrors : public testing::TestWithParam<OpenError> {};

// The open fails at once with the case's code and a message, the failure is
// logged once at level 2 with the path and the message, and the reader stays
// empty. Special files are refused without blocking (a FIFO without a writer
// would wait forever if opened for reading in the ordinary way).
TEST_P(ContainerOpenErrors, FailAtOnceWithTheirCodeAndOneLogLine) {
    const auto& param = GetParam();
    TempDir dir;
    WriteContainer(dir.File("test.kel"), {MakeFrameAtom(1, 0)});
    const std::string path = param.make(dir);
    KelCommon::ScopedLogCapture log;
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), param.code) << reader.GetLastError();
    EXPECT_FALSE(reader.GetLastError().empty());
    EXPECT_EQ(reader.GetNumStreams(), 0);
    EXPECT_FALSE(reader.GetFrameAtom(1, 0));
    EXPECT_EQ(reader.Refresh(), KEL::KEL_ERR_NOT_OPEN);
    std::size_t lines = 0;
    for (const auto& r : log.Records()) {
        lines += (r.level == 2 && r.message.find(path) != std::string::npos &&
                  r.message.find(reader.GetLastError()) != std::string::npos);
    }
    EXPECT_EQ(lines, 1U);
}

// The damaged copy of the one-atom container.
std::function<std::string(const TempDir&)> Damaged(std::function<void(Bytes&)> damage) {
    return [damage](const TempDir& dir) {
        const auto path = dir.File("test.kel");
        auto bytes = ReadFileBytes(path);
        damage(bytes);
        WriteFileBytes(path, bytes);
        return path;
    };
}

std::string Fifo(const TempDir& dir) {
    const auto path = dir.File("take.kel");
    EXPECT_EQ(mkfifo(path.c_str(), 0644), 0);
    return path;
}

std::string Socket(const TempDir& dir) {
    const auto path = dir.File("socket.kel");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);  // the socket file stays
    return path;
}

const std::string kText = "this is a text file that happens to be long enough to hold a container header";

INSTANTIATE_TEST_SUITE_P(
    Cases, ContainerOpenErrors,
    testing::Values(
        OpenError{"MissingFileIsNotFound", KEL::KEL_ERR_NOT_FOUND, [](const TempDir& d) { return d.File("no.kel"); }},
        OpenError{"DirectoryIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER,
                  [](const TempDir& d) { return d.Path().string(); }},
        OpenError{"FifoIsRefusedWithoutWaiting", KEL::KEL_ERR_NOT_A_CONTAINER, Fifo},
        OpenError{"SocketIsRefused", KEL::KEL_ERR_NOT_A_CONTAINER, Socket},
        OpenError{"DeviceIsRefused", KEL::KEL_ERR_NOT_A_CONTAINER, [](const TempDir&) { return "/dev/zero"; }},
        OpenError{"EmptyFileIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER, Damaged([](Bytes& b) { b.clear(); })},
        OpenError{"OtherFileIsNotAContainer", KEL::KEL_ERR_NOT_A_CONTAINER,
                  Damaged([](Bytes& b) { b.assign(kText.begin(), kText.end()); })},
        OpenError{
            "NewerFormatVersionIsUnsupported", KEL::KEL_ERR_UNSUPPORTED_VERSION, Damaged([](Bytes& b) {
                const auto header = KEL::container::EncodeFileHeader({2001, KEL::container::kLayoutRevision, 1, 0});
                std::copy(header.begin(), header.end(), b.begin());
            })},
        OpenError{"EarlierLayoutIsUnsupported", KEL::KEL_ERR_UNSUPPORTED_VERSION, Damaged([](Bytes& b) {
                      b[12] = 0;  // revision 0 kept a 16-bit header check at 13
                      const auto check = static_cast<std::uint16_t>(KEL::container::Checksum(b.data(), 13));
                      KEL::container::PutU16(b.data() + 13, check);
                  })},
        OpenError{"DamagedHeaderWithoutAnyRecordIsCorrupt", KEL::KEL_ERR_CORRUPT, Damaged([](Bytes& b) {
                      b[11] ^= 1;
                      std::fill(b.begin() + KEL::container::kFirstRecordOffset, b.end(), 0);
                  })},
        OpenError{"CutFileHeaderIsCorrupt", KEL::KEL_ERR_CORRUPT, Damaged([](Bytes& b) { b.resize(30); })}),
    [](const testing::TestParamInfo<OpenError>& p) { return std::string(p.param.name); });

// Runs as an unprivileged user: as root, permissions would not apply and the
// case would prove nothing.
TEST(ContainerOpen, UnreadableFileIsAccessDenied) {
    TempDir dir;
    const auto path = dir.File("test.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    std::filesystem::permissions(dir.Path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::none);
    const int code = RunInChild(
        [&] {
            KEL::ReadKEL2File reader(path.c_str());
            return static_cast<int>(reader.Initialize());
        },
        true);
    EXPECT_EQ(code, static_cast<int>(KEL::KEL_ERR_ACCESS_DENIED));
}

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
