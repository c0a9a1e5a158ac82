#pragma once

#include <KEL/Atom.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KEL {

// Read access to a container of streams of atoms.
class KEL_API KEL2Reader {
public:
    virtual ~KEL2Reader() = default;

    // Opens the container; 0 on success, otherwise a KelErrorCodes value.
    virtual KelErrorCode Initialize() = 0;
    // Streams in the order in which they first appear in the file.
    virtual int GetNumStreams() const = 0;
    virtual std::uint16_t GetStreamId(int index) const = 0;
    // The id of stream 0 in file order (0 when there is none).
    virtual std::uint16_t GetFirstStreamId() const = 0;
    // Number of atoms of the stream (0 for an unknown stream).
    virtual std::uint32_t GetNumFrames(std::uint16_t stream) const = 0;
    // The atom of `stream` whose stored frame number is `frameNr`, or empty.
    // Every call returns a new Atom object that the caller may change; the
    // payload bytes may be shared with the reader's mapping of the file.
    virtual std::shared_ptr<Atom> GetFrameAtom(std::uint16_t stream, std::uint32_t frameNr) = 0;
    // The stream's atom with the lowest stored frame number, or empty.
    virtual std::shared_ptr<Atom> GetFirstFrameAtom(std::uint16_t stream) = 0;
};

// What a reader learnt about damage while opening or reading.
struct ContainerDamageReport {
    bool indexUsed = false;                // opened from the index written at close
    bool recovered = false;                // no usable index: the records were scanned
    std::uint64_t skippedBytes = 0;        // bytes that belonged to no valid record
    std::uint64_t skippedRecords = 0;      // records dropped for a bad checksum or structure
    std::uint64_t validRecords = 0;        // atom records available
    std::uint64_t truncatedTailBytes = 0;  // an incomplete last record (a writer that died)
};

struct ReaderOptions {
    // Verify each record's payload checksum when it is read (on by default;
    // the check is cheap compared with using the data).
    bool verifyChecksums = true;
    // Log recovery and damage at level 3 (scanning, skipped records).
    bool logDamage = true;
    // Open a closed file through its index (false: walk the records as for
    // a file that was not closed; for checking one against the other).
    bool useIndex = true;
};

// The container file reader (the KEL2 container, ".kel").
//
// The file is memory-mapped at Initialize(): layer payloads of the atoms it
// returns are views of the mapping and keep it alive, so atoms stay valid
// after the reader is gone. The file must not be truncated by another process
// while mapped. Opening reads the header and the index written at close; a
// file without a valid index (its writer was killed or is still writing) is
// scanned record by record and opened with every complete, checksum-valid
// record. A damaged record costs that record only.
//
// Not thread-safe: one thread at a time.
class KEL_API ReadKEL2File : public KEL2Reader {
public:
    explicit ReadKEL2File(const char* path, ReaderOptions options = {});
    ~ReadKEL2File() override;

    // Codes: KEL_ERR_NOT_FOUND, KEL_ERR_ACCESS_DENIED, KEL_ERR_IO,
    // KEL_ERR_NOT_A_CONTAINER, KEL_ERR_UNSUPPORTED_VERSION, KEL_ERR_CORRUPT
    // (no valid record can be recovered from a file that claims to hold
    // some). Each failure is logged at level 2 with the path and the reason.
    KelErrorCode Initialize() override;
    int GetNumStreams() const override;
    std::uint16_t GetStreamId(int index) const override;
    std::uint16_t GetFirstStreamId() const override;
    std::uint32_t GetNumFrames(std::uint16_t stream) const override;
    std::shared_ptr<Atom> GetFrameAtom(std::uint16_t stream, std::uint32_t frameNr) override;
    std::shared_ptr<Atom> GetFirstFrameAtom(std::uint16_t stream) override;

    const std::string& GetFilePath() const noexcept;
    std::uint16_t GetFormatVersion() const noexcept;
    const ContainerDamageReport& GetDamageReport() const noexcept;
    // The stored frame numbers of a stream, ascending.
    std::vector<std::uint32_t> GetFrameNumbers(std::uint16_t stream) const;
    // Total number of atom records.
    std::uint64_t GetNumAtoms() const noexcept;
    std::uint64_t GetFileSize() const noexcept;
    // The error text of the last failure ("" when none).
    const std::string& GetLastError() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace KEL
