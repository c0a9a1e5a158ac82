#pragma once

#include <KelCommon/Export.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

namespace KelCommon {

// An immutable, reference-counted byte range. Copying a SharedBuffer copies a
// pointer and bumps a reference count; the bytes are never copied. The range
// may live in heap memory owned by the buffer or alias memory owned by
// something else (a memory-mapped container file), which `owner` keeps alive.
class SharedBuffer {
public:
    SharedBuffer() = default;

    // Takes ownership of `bytes` without copying them.
    static SharedBuffer FromVector(std::vector<std::uint8_t>&& bytes) {
        auto holder = std::make_shared<std::vector<std::uint8_t>>(std::move(bytes));
        SharedBuffer b;
        b.data_ = holder->data();
        b.size_ = holder->size();
        b.owner_ = std::move(holder);
        return b;
    }
    // Copies `size` bytes from `data` into a new buffer.
    static SharedBuffer Copy(const void* data, std::size_t size) {
        std::vector<std::uint8_t> bytes(size);
        if (size != 0) {
            std::memcpy(bytes.data(), data, size);
        }
        return FromVector(std::move(bytes));
    }
    // Refers to `size` bytes at `data`, which stay valid while `owner` lives.
    static SharedBuffer Alias(std::shared_ptr<const void> owner, const void* data, std::size_t size) {
        SharedBuffer b;
        b.owner_ = std::move(owner);
        b.data_ = static_cast<const std::uint8_t*>(data);
        b.size_ = size;
        return b;
    }

    const std::uint8_t* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::span<const std::uint8_t> span() const noexcept { return {data_, size_}; }
    // True when both refer to the very same bytes (not just equal contents).
    bool SharesStorageWith(const SharedBuffer& other) const noexcept {
        return data_ == other.data_ && size_ == other.size_;
    }
    bool ContentEquals(const SharedBuffer& other) const noexcept {
        return size_ == other.size_ && (size_ == 0 || std::memcmp(data_, other.data_, size_) == 0);
    }
    long UseCount() const noexcept { return owner_.use_count(); }

private:
    std::shared_ptr<const void> owner_;
    const std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace KelCommon
