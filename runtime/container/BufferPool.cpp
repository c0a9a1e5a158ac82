#include "container/BufferPool.h"

#include <sys/mman.h>

#include <bit>
#include <cstdlib>
#include <new>

namespace KEL::container {

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Populates pages of a range for writing in one call (Linux 5.14); older
// kernels reject it and the pages fault in on first use instead.
constexpr int kPopulateWrite = 23;

// Sizes are rounded up to classes a quarter of a power of two apart, so that
// records of similar size share blocks while no block wastes more than a
// quarter of itself.
std::size_t SizeClass(std::size_t size) {
    const std::size_t step = std::max(BufferPool::kPooledMinimum, std::bit_floor(size) / 4);
    return (size + step - 1) / step * step;
}

std::uint8_t* Allocate(std::size_t capacity) {
    const std::size_t alignment = capacity >= kHugePage ? kHugePage : 64;
    void* p = nullptr;
    if (::posix_memalign(&p, alignment, capacity) != 0) {
        throw std::bad_alloc();
    }
    if (capacity >= kHugePage) {
        (void)::madvise(p, capacity, MADV_HUGEPAGE);
    }
    (void)::madvise(p, capacity, kPopulateWrite);
    return static_cast<std::uint8_t*>(p);
}

}  // namespace

std::shared_ptr<BufferPool> BufferPool::Shared() {
    static const auto pool = std::make_shared<BufferPool>(std::size_t{96} << 20);
    return pool;
}

BufferPool::~BufferPool() {
    for (const auto& [capacity, data] : free_) {
        std::free(data);
    }
}

std::shared_ptr<std::uint8_t> BufferPool::Get(std::size_t size) {
    if (size < kPooledMinimum) {
        void* p = nullptr;
        if (::posix_memalign(&p, 64, std::max<std::size_t>(size, 64)) != 0) {
            throw std::bad_alloc();
        }
        return {static_cast<std::uint8_t*>(p), [](std::uint8_t* q) { std::free(q); }};
    }
    const std::size_t capacity = SizeClass(size);
    std::uint8_t* data = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (const auto it = free_.find(capacity); it != free_.end()) {
            data = it->second;
            free_.erase(it);
            cached_ -= capacity;
        }
    }
    if (data == nullptr) {
        data = Allocate(capacity);
    }
    std::weak_ptr<BufferPool> pool = weak_from_this();
    return {data, [pool = std::move(pool), capacity](std::uint8_t* q) {
                if (const auto owner = pool.lock()) {
                    owner->Return(q, capacity);
                } else {
                    std::free(q);
                }
            }};
}

void BufferPool::Return(std::uint8_t* data, std::size_t capacity) {
    {
        std::lock_guard lock(mutex_);
        if (cached_ + capacity <= maxCached_) {
            free_.emplace(capacity, data);
            cached_ += capacity;
            return;
        }
    }
    std::free(data);
}

}  // namespace KEL::container
