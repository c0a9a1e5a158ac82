#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KEL::container {

// Where one atom record lives, as the index written at close lists it.
struct IndexEntry {
    std::uint64_t offset = 0;
    std::uint32_t frameNr = 0;
    std::uint16_t streamId = 0;
};

// The index record and the footer record that end a closed file; the index
// record starts at `indexOffset`.
std::vector<std::uint8_t> EncodeIndexAndFooter(const std::vector<IndexEntry>& entries, std::uint64_t indexOffset);

enum class IndexStatus {
    kValid,
    kAbsent,   // no footer at the end: the file was not closed (or was cut)
    kDamaged,  // a footer, but it or the index fails its checks
};

struct IndexLocation {
    std::uint64_t indexOffset = 0;  // valid unless kAbsent
    std::uint64_t footerOffset = 0;
};

// Reads the index of a closed file from `data[0, size)`: the footer at the
// end, then the index record it points to, both checksum-verified, and every
// entry checked to lie before the index in increasing order. Reads only the
// footer and the index. On kDamaged, `reason` says what failed.
IndexStatus ReadIndex(const std::uint8_t* data, std::uint64_t size, std::vector<IndexEntry>& entries,
                      IndexLocation& location, std::string& reason);

}  // namespace KEL::container
