#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "container/ForkGuard.h"

namespace KEL::container {

// Memory for record payloads read from files.
//
// Blocks are 64-byte aligned (large ones 2 MiB aligned, with transparent huge
// pages requested) and handed out under shared ownership; when the last owner
// lets go, a block returns to the pool, up to `maxCachedBytes` of them. A
// reader playing a recording thus reuses a few blocks whose pages are already
// mapped instead of faulting in fresh memory for every frame, which costs
// more than reading the data (page-table updates are expensive, above all
// under virtualisation). Blocks below kPooledMinimum come from the heap.
//
// Thread-safe; blocks may outlive the pool (they are then freed).
class BufferPool : public std::enable_shared_from_this<BufferPool> {
public:
    static constexpr std::size_t kPooledMinimum = std::size_t{64} << 10;

    // The process's pool, shared by every reader.
    static std::shared_ptr<BufferPool> Shared();

    explicit BufferPool(std::size_t maxCachedBytes) : maxCached_(maxCachedBytes) {}
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    // A block of at least `size` bytes. Throws std::bad_alloc.
    std::shared_ptr<std::uint8_t> Get(std::size_t size);

private:
    void Return(std::uint8_t* data, std::size_t capacity);

    const std::size_t maxCached_;
    mutable std::mutex mutex_;
    std::multimap<std::size_t, std::uint8_t*> free_;
    std::size_t cached_ = 0;
    // A block let go by a thread of the parent as it forked leaves no lock
    // held in the child.
    ForkGuard forkGuard_{ForkGuard::Rank::kBufferPool, mutex_};
};

}  // namespace KEL::container
