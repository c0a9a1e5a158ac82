#pragma once

#include <KEL/Atom.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

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
    // payload bytes may be shared with the reader's memory.
    virtual std::shared_ptr<Atom> GetFrameAtom(std::uint16_t stream, std::uint32_t frameNr) = 0;
    // The stream's atom with the lowest stored frame number, or empty.
    virtual std::shared_ptr<Atom> GetFirstFrameAtom(std::uint16_t stream) = 0;
};

// What a reader learnt about damage while opening or reading.
struct ContainerDamageReport {
    bool indexUsed = false;       // opened from the index written at close
    bool recovered = false;       // no usable index: the records were walked
    bool checkpointUsed = false;  // ...from the last checkpoint the writer left, not from the start
    // The file header was unreadable; the file's identity was taken from its
    // footer or its records (and the records of any other file skipped).
    bool headerDamaged = false;
    std::uint64_t skippedBytes = 0;        // bytes that belonged to no valid record
    std::uint64_t skippedRecords = 0;      // records or damaged regions dropped
    std::uint64_t foreignRecords = 0;      // intact records of another file among the skipped bytes
    std::uint64_t validRecords = 0;        // atom records available
    std::uint64_t truncatedTailBytes = 0;  // an incomplete last record (a writer that died, or is still writing)

    // Whether the reader met anything a user should look at: a damaged
    // header, damaged records or regions, an incomplete last record.
    bool Damaged() const noexcept { return headerDamaged || skippedRecords > 0 || truncatedTailBytes > 0; }
};

struct ReaderOptions {
    // Verify each record's payload checksum when it is first read (on by
    // default; the check costs less than reading the bytes from disk).
    bool verifyChecksums = true;
    // Report damage: log recovery and damage at level 3 (walking, skipped
    // records) and record what was lost for TakeReaderDamage.
    bool logDamage = true;
    // Open a closed file through its index (false: walk the records as for
    // a file that was not closed; for checking one against the other).
    bool useIndex = true;
    // While atoms are fetched in file order, as playback does, ask the
    // kernel to read the records that follow ahead of their use.
    bool readAhead = true;
    // While the atoms of a compressed file are fetched in file order, read
    // and decode the next one on a thread of the reader's own as the caller
    // uses the current one (one atom ahead at most).
    bool decodeAhead = true;
};

// Something a reader lost to damage: a damaged atom record (its stream and
// frame known from the index or the record walk), or a region of a file in
// which no intact record could be found (the atoms it held are unknown).
struct ReaderDamage {
    std::string path;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;  // the region's bytes (0 for an atom record)
    bool atomKnown = false;
    std::uint16_t streamId = 0;
    std::uint32_t frameNr = 0;
    std::string reason;
};

// What one layer of an atom takes in the file: its blobs' own sizes and the
// bytes they are stored in (less when compressed).
struct LayerStorage {
    KelCommon::Guid type;
    std::uint64_t blobBytes = 0;
    std::uint64_t storedBlobBytes = 0;
};

// One atom record as the index or its header lists it.
struct AtomListing {
    std::uint16_t streamId = 0;
    std::uint32_t frameNr = 0;
    std::int64_t timeStamp = 0;
};

// One layer of an atom record, as its descriptor lists it.
struct LayerListing {
    KelCommon::Guid typeGuid;
    KelCommon::Guid purposeGuid;
    std::uint16_t version = 0;
    // The type's name as the layer read back gives it ("TextureRGBA";
    // "Unknown" for a type this runtime does not know).
    std::string typeName;
    std::uint64_t blobBytes = 0;        // the sizes of its blobs (pixels, vertices, attachments), decoded
    std::uint64_t storedBlobBytes = 0;  // the bytes they are stored in (less when compressed)
};

// An atom record as its header and its layer descriptors describe it, read
// without the blobs that make up most of its payload.
struct AtomDescription {
    AtomListing key;
    std::uint64_t offset = 0;
    // The bytes of the record in the file: header, payload and padding (the
    // distance to the next record when its header does not read).
    std::uint64_t storedBytes = 0;
    std::vector<LayerListing> layers;
    // The record header or the layer descriptors fail their checks, or a
    // read already found the record damaged; `reason` says why. Blobs are
    // not read, so a payload checksum that fails shows only when the atom is
    // read (or the file verified).
    bool damaged = false;
    std::string reason;
};

// The container file reader (the KEL2 container, ".kel").
//
// Reading. Records are read with positioned reads into reference-counted
// memory from a pool, in cache-sized chunks each verified as it arrives; the
// layer payloads of the atoms returned are views of that memory (no further
// copy) and keep it alive, so atoms stay valid after the reader is gone.
// While atoms are fetched in file order the kernel reads ahead of them, and
// the next atom of a compressed file is decoded ahead on another thread.
//
// Opening a closed file reads the header, the footer and the index, nothing
// in proportion to the payload. A file without a valid index (its writer was
// killed, or is still writing) is listed from the writer's last checkpoint
// and the record headers after it, which carry each atom's key; payloads are
// verified when first read, as with the index. A damaged record costs that
// record only; a damaged or missing file header costs nothing but itself
// (the records name their file). Records of another file (stale blocks of
// an earlier recording, a second file glued on) are never returned.
//
// Any path is safe: FIFOs, sockets, devices and directories are refused at
// once, and a file that another process shortens or rewrites while it is read
// yields damaged records, never a signal or a hang. A file that grows (a
// recording in progress) is followed with Refresh(); a record is listed only
// once it is complete.
//
// Not thread-safe: one thread at a time.
class KEL_API ReadKEL2File : public KEL2Reader {
public:
    explicit ReadKEL2File(const char* path, ReaderOptions options = {});
    ~ReadKEL2File() override;

    // Codes: KEL_ERR_NOT_FOUND, KEL_ERR_ACCESS_DENIED, KEL_ERR_IO,
    // KEL_ERR_NOT_A_CONTAINER (not a regular file, or no container in it),
    // KEL_ERR_UNSUPPORTED_VERSION, KEL_ERR_CORRUPT (a damaged header and no
    // record to recover). Each failure is logged at level 2 with the path and
    // the reason. Can be called again to reopen.
    KelErrorCode Initialize() override;
    int GetNumStreams() const override;
    std::uint16_t GetStreamId(int index) const override;
    std::uint16_t GetFirstStreamId() const override;
    std::uint32_t GetNumFrames(std::uint16_t stream) const override;
    std::shared_ptr<Atom> GetFrameAtom(std::uint16_t stream, std::uint32_t frameNr) override;
    std::shared_ptr<Atom> GetFirstFrameAtom(std::uint16_t stream) override;

    // Lists the atom records appended since Initialize or the last Refresh
    // (a recording still being written), continuing after the last complete
    // record: a partial record is listed once the rest of it is there. Walks
    // only the new records' headers. Returns 0 (with GetNumAtoms grown by
    // what was found), or KEL_ERR_NOT_OPEN before a successful Initialize.
    KelErrorCode Refresh();
    // True when the file ends with its index: its writer closed it and it
    // will not grow any more.
    bool IsClosed() const noexcept;

    const std::string& GetFilePath() const noexcept;
    std::uint16_t GetFormatVersion() const noexcept;
    // The identity the writer gave the file, and when it was created
    // (microseconds since the Unix epoch; 0 when the header was lost).
    std::uint64_t GetFileId() const noexcept;
    std::int64_t GetCreationTime() const noexcept;
    const ContainerDamageReport& GetDamageReport() const noexcept;
    // Every damaged atom and region this reader met since Initialize, in
    // the order met, each once (at most kMaxReaderDamage).
    std::vector<ReaderDamage> GetDamage() const;
    // The stored frame numbers of a stream, ascending, and the time stamps
    // of the same atoms in the same order; both from the index or the record
    // headers, without reading payloads.
    std::vector<std::uint32_t> GetFrameNumbers(std::uint16_t stream) const;
    std::vector<std::int64_t> GetTimeStamps(std::uint16_t stream) const;
    // The bytes the stream's records take in the file (headers and padding
    // included), without reading them.
    std::uint64_t GetStoredBytes(std::uint16_t stream) const;
    // Total number of atom records.
    std::uint64_t GetNumAtoms() const noexcept;
    // The frames a source plays from this file: the count of its shortest
    // stream (0 with no stream).
    std::uint32_t GetNumPlayableFrames() const;
    // The key of every atom record, in file order, without reading payloads.
    std::vector<AtomListing> ListAtoms() const;
    // The atom of the `position`-th record in file order (0 to GetNumAtoms()
    // - 1), or empty when there is none or it is damaged. Reaches records
    // that share a stream and frame number with an earlier one, which
    // GetFrameAtom never returns.
    std::shared_ptr<Atom> GetAtomAt(std::uint64_t position);
    // The record of the `position`-th atom in file order described from its
    // header and layer descriptors (one small read; the blobs are neither
    // read nor verified). Changes nothing the reader reports: damage found
    // here is in the description only. A position past the end gives a
    // description that is damaged ("no such atom").
    AtomDescription DescribeAtomAt(std::uint64_t position);
    // The layers of the `position`-th record and what their blobs take:
    // DescribeAtomAt's layers (the record's layer tables only, nothing
    // decompressed, the payload not verified). Empty when the record cannot
    // be read or its tables are malformed.
    std::vector<LayerStorage> GetLayerStorage(std::uint64_t position);
    std::uint64_t GetFileSize() const noexcept;
    // The error text of the last failure ("" when none).
    const std::string& GetLastError() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Every damage that readers reporting damage (ReaderOptions::logDamage) met
// in this process since the last call, in the order met, each once (a region
// walked again by Refresh, an atom asked for again, are not repeated), and
// forgets them. At most kMaxReaderDamage entries are kept; `dropped` (when
// given) receives how many more there were. Thread-safe. Lets a host that
// played a graph tell which frames its sources could not deliver because of
// damage.
inline constexpr std::size_t kMaxReaderDamage = 10000;
KEL_API std::vector<ReaderDamage> TakeReaderDamage(std::uint64_t* dropped = nullptr);

}  // namespace KEL
