#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "view/AtomMessage.h"

namespace KelView {

// The most recently used atom messages, up to a number of bytes: scrubbing
// back and forth over a few frames reads each atom once. Safe to use from
// the server's threads at once.
class MessageCache {
public:
    using Message = std::shared_ptr<const std::string>;

    explicit MessageCache(std::size_t capacityBytes) : capacity_(capacityBytes) {}

    // The cached message of `place`, or empty.
    Message Find(const AtomPlace& place);
    // Keeps `message` as the most recent, dropping the least recent ones
    // beyond the capacity; a message larger than the capacity is not kept.
    void Put(const AtomPlace& place, Message message);

    std::size_t Bytes() const;

private:
    static std::uint64_t Key(const AtomPlace& place) noexcept {
        return (static_cast<std::uint64_t>(place.take) << 48) ^ (static_cast<std::uint64_t>(place.stream) << 32) ^
               place.frame;
    }
    struct Entry {
        std::uint64_t key;
        Message message;
    };

    mutable std::mutex mutex_;
    std::size_t capacity_;
    std::size_t bytes_ = 0;
    std::list<Entry> recent_;  // most recent first
    std::unordered_map<std::uint64_t, std::list<Entry>::iterator> byKey_;
};

}  // namespace KelView
