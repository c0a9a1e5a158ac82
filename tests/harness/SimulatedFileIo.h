#pragma once

// The serializer's file operations, performed for real, recorded, and
// optionally failed on purpose: the basis of the crash simulation (rebuild
// the files a process crash or a power loss after any operation would leave)
// and of the fault injection (every operation failing once).

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "container/FileIo.h"
#include "harness/AtomModel.h"

namespace kel_harness {

enum class OpKind : std::uint8_t { kOpen, kWrite, kSync, kTruncate, kClose, kUnlink, kRename, kSyncDir };

const char* OpKindName(OpKind kind);

// One operation as it happened.
struct Op {
    OpKind kind = OpKind::kOpen;
    std::string path;   // Open, Unlink, Rename (from), SyncDir: relative to the root
    std::string path2;  // Rename (to)
    int fd = -1;
    bool creates = false;            // Open that made a new file
    bool replace = false;            // Rename
    std::uint64_t offset = 0;        // Write
    std::uint64_t size = 0;          // Truncate: the new size
    std::vector<std::uint8_t> data;  // Write: the bytes that reached the file
    int result = 0;                  // what the serializer was told
};

// How an operation is made to fail.
struct Fault {
    enum class Mode : std::uint8_t {
        kError,                // the operation fails with `error` and does nothing
        kShortWrite,           // a write writes half of what was asked and says so
        kShortWriteThenError,  // the same, and the next write fails with `error`
        kThrowAfter,           // the operation is done, then memory runs out (std::bad_alloc)
    };
    std::size_t op = 0;  // index of the operation, counting from 0
    Mode mode = Mode::kError;
    int error = 5;  // EIO
};

// Performs the operations on the real file system under `root` (every path
// the serializer uses must lie there), records them, and applies `faults`.
// Syncs are recorded but not performed: what they make durable is what the
// crash functions below model. Thread-safe.
class SimulatedFileIo final : public KEL::container::FileIo {
public:
    explicit SimulatedFileIo(std::string root, std::vector<Fault> faults = {});

    int Open(const std::string& path, int flags, mode_t mode) override;
    std::int64_t PWriteV(int fd, const iovec* iov, int count, std::uint64_t offset) override;
    int FDataSync(int fd) override;
    int FTruncate(int fd, std::uint64_t size) override;
    int Close(int fd) override;
    int Unlink(const std::string& path) override;
    int Rename(const std::string& from, const std::string& to, bool replace) override;
    int SyncDirectory(const std::string& dir) override;

    // Calls `observer` after each operation, with the operation as
    // recorded (on the thread that made it, before it returns).
    void OnEachOperation(std::function<void(const Op&)> observer);
    std::size_t OpCount() const;
    std::vector<Op> Ops() const;
    // Faults that have been applied so far.
    std::size_t FaultsFired() const;

private:
    std::string Relative(const std::string& path) const;
    // The fault planned for the operation about to be recorded, if any.
    const Fault* NextFault();
    // Records `op` with the result of `call(op)`, or of its planned fault.
    template <typename Call>
    int Perform(Op op, Call call);

    KEL::container::SystemFileIo system_;
    std::string root_;
    std::vector<Fault> faults_;
    mutable std::mutex mutex_;
    std::vector<Op> ops_;
    std::size_t fired_ = 0;
    std::function<void(const Op&)> observer_;
    int failNextWrite_ = 0;
};

// The files (relative path to content) that the operations `ops[0, count)`
// leave behind after a crash right after the last of them.
using Files = std::map<std::string, std::vector<std::uint8_t>>;

// The process died: every completed operation reached the page cache, so
// every one is in the files.
Files AfterProcessCrash(const std::vector<Op>& ops, std::size_t count);

// The power failed: each file holds what it held at its last successful
// sync, and of what was written since, any 4 KiB page may be there or be the
// older version, and a page wholly past the synced size may read as zeros;
// the file's size may be anything from its synced size to its current one
// (in whole pages). Each directory entry is
// as last synced or as it is now. `entropy` picks one such outcome.
Files AfterPowerLoss(const std::vector<Op>& ops, std::size_t count, Entropy& entropy);

// Index of the last operation before `count` that synced a file's content
// successfully, or -1.
long LastSuccessfulSync(const std::vector<Op>& ops, std::size_t count);

// Writes `files` under `dir` (which must exist and be empty).
void Materialize(const Files& files, const std::string& dir);

}  // namespace kel_harness
