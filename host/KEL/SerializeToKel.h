#pragma once

#include <KEL/Atom.h>
#include <KEL/Compression.h>
#include <KEL/KEL2Header.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Export.h>
#include <KelCommon/String.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KEL {

namespace container {
class FileIo;
}

// What a serializer is given beyond the four arguments of its constructor
// (the constructor without options uses these defaults).
struct SerializerOptions {
    // The file-system calls it makes: every write, sync, cut, rename and
    // removal goes through this object (the interface is the runtime's
    // container/FileIo.h). Empty: the system's calls. Tests pass one that
    // records each operation, to rebuild what a crash at any point leaves,
    // or fails a chosen one.
    std::shared_ptr<container::FileIo> fileIo;
    // How blobs are stored. Unset: the process's setting
    // (SerializerSettings::compression), which is how the serializers that
    // the plugin's writers create follow a host's choice.
    std::optional<CompressionSetting> compression;
};

// Writes atoms to a file.
class KEL_API SerializeToFile {
public:
    virtual ~SerializeToFile() = default;

    // Writes one atom as one complete record before returning. Returns 0, or
    // a KelErrorCodes value (KEL_ERR_DISK_FULL, KEL_ERR_FILE_TOO_LARGE,
    // KEL_ERR_IO, KEL_ERR_NOT_OPEN, KEL_ERR_INVALID for an atom that cannot
    // be stored). After a failure the file holds every atom written before.
    virtual KelErrorCode SerializeAtom(const std::shared_ptr<Atom>& atom) = 0;
    // The path of the file on disk.
    virtual const KelCommon::String& GetFilePath() const noexcept = 0;
    // Finishes the file (index, companion files) and closes it. Idempotent;
    // the destructor calls it.
    virtual KelErrorCode Close() = 0;
};

// The container serializer.
//
// `path` is the file to write. When it ends in "+xml", the suffix is removed
// from the file name and an XML companion describing the file is written at
// close next to it, named after the container with ".xml" appended
// ("rec.kel" gets "rec.kel.xml").
//
// `overwrite`: true replaces an existing file at that path (and removes its
// companion); false refuses to touch an existing container or companion (the
// serializer is then not open and every SerializeAtom returns
// KEL_ERR_ALREADY_EXISTS).
// `version`: the format version to write; only CURRENT_VERSION is supported.
// `syncEachAtom`: true makes every SerializeAtom durable (fdatasync) before it
// returns; false (the default of every writer in this project) syncs once,
// at Close, so a closed file is durable and an open one costs no sync per
// atom. Either way an acknowledged atom (SerializeAtom returned 0) is in the
// file and survives the death of the process.
//
// Creating a serializer creates the file durably: its header is written to a
// temporary file, synced and renamed into place, and the directory synced, so
// the path names either the old file or a valid new container, never a
// half-made one. Missing parent directories are created. Failure to open is
// not thrown: GetOpenResult() tells it, and it is logged at level 2.
//
// Failures are logged at level 2 with the path and the reason, once per kind
// of failure (not once per atom), and recorded for TakeSerializerFailures.
// After a failed sync the serializer accepts no more atoms (the kernel may
// already have dropped the unsynced data, so a later sync proves nothing)
// and Close leaves the file without its index: readers recover it by
// scanning.
//
// Not thread-safe: one thread at a time.
class KEL_API SerializeToKel : public SerializeToFile {
public:
    SerializeToKel(const char* path, bool overwrite, KELFormatVersion version, bool syncEachAtom);
    SerializeToKel(const char* path, bool overwrite, KELFormatVersion version, bool syncEachAtom,
                   const SerializerOptions& options);
    ~SerializeToKel() override;

    KelErrorCode SerializeAtom(const std::shared_ptr<Atom>& atom) override;
    const KelCommon::String& GetFilePath() const noexcept override;
    KelErrorCode Close() override;

    KelErrorCode GetOpenResult() const noexcept;
    std::uint64_t GetNumAtomsWritten() const noexcept;
    std::uint64_t GetBytesWritten() const noexcept;
    const std::string& GetLastError() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Settings of the host that every serializer created afterwards follows,
// whoever creates it (the plugin's writers included).
struct SerializerSettings {
    // False: a serializer asked to replace an existing file (or its XML
    // companion) refuses with KEL_ERR_ALREADY_EXISTS and changes nothing, as
    // with `overwrite` false. For hosts that must never destroy a recording.
    bool allowReplace = true;
    // How the blobs of every atom are stored: compressed files are read by
    // this reader (and refused as a newer layout by readers that predate
    // compression). The initial value comes from the environment variable
    // KEL_COMPRESSION ("zstd", "zstd:LEVEL" or "none"; anything else is
    // logged at level 2 and ignored).
    CompressionSetting compression;
    // Threads that compress and decompress blobs, shared by every serializer
    // and reader of the process: 0 means one per core. The initial value
    // comes from KEL_COMPRESSION_THREADS; the pool takes the value current
    // when it is first used.
    unsigned compressionThreads = 0;
};
// Thread-safe; serializers already open keep what they were created with.
KEL_API void SetSerializerSettings(const SerializerSettings& settings);
KEL_API SerializerSettings GetSerializerSettings();

// One file whose serializer failed, as the process-wide record keeps it.
struct SerializerFailure {
    std::string path;
    KelErrorCode code = 0;    // the first failure's code
    std::string reason;       // and its message
    std::uint64_t count = 0;  // failures of this file since the last TakeSerializerFailures
};

// Every serializer failure of the process (open, write, sync, index,
// companion) since the last call, one entry per file in the order of their
// first failure, and forgets them. Thread-safe. Lets a tool that ran a graph
// whose writers ignore their results (the asynchronous targets) report that
// writing failed.
KEL_API std::vector<SerializerFailure> TakeSerializerFailures();

}  // namespace KEL
