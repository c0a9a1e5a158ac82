#pragma once

// Helpers of the container tests: writing containers whole or "unclosed"
// (as a writer that was killed leaves them), checking which atoms a reader
// returns, and a fixture that gives each test a scratch file.

#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace kel_test {

// Writes `atoms` to `path` and returns the file offset at which each atom's
// record ends. With `close` false the file is left as a writer that died
// after the last atom leaves it: every record, but no index.
// `compression`: how blobs are stored.
inline std::vector<std::uint64_t> WriteContainer(const std::string& path, const std::vector<KEL::AtomPtr>& atoms,
                                                 bool close = true, KEL::CompressionSetting compression = {}) {
    std::vector<std::uint64_t> ends;
    std::vector<std::uint8_t> unclosed;
    {
        KEL::SerializerOptions options;
        options.compression = compression;
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false, options);
        EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_OK);
        for (const auto& atom : atoms) {
            EXPECT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
            ends.push_back(writer.GetBytesWritten());
        }
        unclosed = close ? std::vector<std::uint8_t>{} : ReadFileBytes(path);
        EXPECT_EQ(writer.Close(), KEL::KEL_OK);
    }
    if (!close) {
        WriteFileBytes(path, unclosed);
    }
    return ends;
}

// Stream s, frames 0..n-1, textures of w x w pixels.
inline std::vector<KEL::AtomPtr> SmallAtoms(std::uint16_t stream, std::uint32_t n, std::uint32_t w = 2) {
    std::vector<KEL::AtomPtr> atoms;
    for (std::uint32_t f = 0; f < n; ++f) {
        atoms.push_back(MakeFrameAtom(stream, f, w, w));
    }
    return atoms;
}

inline std::unique_ptr<KEL::ReadKEL2File> OpenContainer(const std::string& path, KEL::KelErrorCode expected = 0,
                                                        KEL::ReaderOptions options = {}) {
    auto reader = std::make_unique<KEL::ReadKEL2File>(path.c_str(), options);
    EXPECT_EQ(reader->Initialize(), expected) << reader->GetLastError();
    return reader;
}

// `actual` was read and equals `expected` (ids, time stamp, every layer).
inline void ExpectSameAtom(const KEL::AtomPtr& expected, const KEL::AtomPtr& actual) {
    ASSERT_TRUE(actual) << "stream " << expected->GetStreamId() << " frame " << expected->GetFrameNr();
    std::string why;
    EXPECT_TRUE(AtomsEqual(*expected, *actual, &why)) << why;
}

// Which of `atoms` the reader returns identical (true) or not at all
// (false). An atom returned different from what was written fails the test.
inline std::vector<bool> Survivors(KEL::ReadKEL2File& reader, const std::vector<KEL::AtomPtr>& atoms) {
    std::vector<bool> back;
    for (const auto& atom : atoms) {
        const auto read = reader.GetFrameAtom(atom->GetStreamId(), atom->GetFrameNr());
        std::string why;
        EXPECT_TRUE(!read || AtomsEqual(*atom, *read, &why)) << "an altered atom came back: " << why;
        back.push_back(read != nullptr);
    }
    return back;
}

// A scratch directory per test, and the container file most tests use.
class ContainerTest : public testing::Test {
protected:
    TempDir dir;
    const std::string path = dir.File("test.kel");
};

}  // namespace kel_test
