#pragma once

#include <KEL/Compression.h>
#include <KEL/LayerCodec.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KEL::container {

// How one blob is stored in a layer's coded blob table (see
// ContainerFormat.h): the codec, the filter that rearranged its bytes before
// the codec saw them, and the size of the pieces compressed independently.
//
// Filters, applied to each piece on its own (so pieces decode in parallel
// and a reader never needs more than one piece of scratch per thread):
//   kShuffle       the bytes of each element of `elementSize` regrouped by
//                  position (all first bytes, then all second bytes, ...):
//                  the exponents and high bytes of floats line up.
//   kDeltaShuffle  each element (a little-endian integer of `elementSize`
//                  bytes) replaced by its difference to the one before,
//                  then shuffled: growing indices become small numbers.
//   kShuffleDelta  shuffled, then each byte replaced by its difference to
//                  the byte before: neighbouring pixels of one channel differ
//                  little.
// Bytes past the last whole element are stored as they are.
enum class BlobFilter : std::uint8_t {
    kNone = 0,
    kShuffle = 1,
    kDeltaShuffle = 2,
    kShuffleDelta = 3,
};

struct BlobCoding {
    CompressionCodec codec = CompressionCodec::kNone;
    BlobFilter filter = BlobFilter::kNone;
    std::uint8_t elementSize = 1;
    std::uint32_t chunkSize = 0;  // original bytes per independently coded piece
};

// Pieces of 1 MiB: as fast to compress as larger ones and as well, and
// enough of them in a camera frame to keep every core busy.
inline constexpr std::uint32_t kCompressionChunkSize = 1U << 20;
// Smaller blobs are stored as they are: too little to gain.
inline constexpr std::size_t kMinCompressedBlobSize = 4096;
// A blob that does not shrink below this fraction of its size (in
// percent) is stored as it is, to be read without decoding.
inline constexpr std::uint64_t kMaxStoredPercent = 97;

// The filter that serves a kind of blob best (measured on camera images,
// scanned meshes and their texture coordinates: bench/compression_bench.cpp).
BlobCoding CodingFor(BlobKind kind, CompressionCodec codec);

// Whether this reader can decode a blob stored so. False, with `why` set,
// for codecs and filters of a newer writer and for impossible parameters.
bool CodingSupported(const BlobCoding& coding, std::string& why);

// Compresses `size` bytes (one piece) into `out` (replacing its content).
// Returns false, with `why` set, when the codec fails.
bool CompressPiece(const std::uint8_t* data, std::size_t size, const BlobCoding& coding, int level,
                   std::vector<std::uint8_t>& out, std::string& why);

// Where the pieces of a stored blob lie: one zstd frame per piece, each
// declaring the size of its piece. False, with `why` set, unless the stored
// bytes are exactly ceil(originalSize / chunkSize) frames of the right sizes.
struct StoredPiece {
    std::size_t offset = 0;  // in the stored bytes
    std::size_t size = 0;
};
bool FindPieces(const std::uint8_t* stored, std::size_t storedSize, std::uint64_t originalSize,
                const BlobCoding& coding, std::vector<StoredPiece>& pieces, std::string& why);

// Decodes one piece into `out`, which takes exactly `size` original bytes.
bool DecompressPiece(const std::uint8_t* piece, std::size_t pieceSize, const BlobCoding& coding, std::uint8_t* out,
                     std::size_t size, std::string& why);

// The filters on their own (for tests and measurements): `out` receives
// `size` bytes.
void ApplyFilter(BlobFilter filter, unsigned elementSize, const std::uint8_t* in, std::size_t size, std::uint8_t* out);
void UndoFilter(BlobFilter filter, unsigned elementSize, const std::uint8_t* in, std::size_t size, std::uint8_t* out);

}  // namespace KEL::container
