#include "view/MessageCache.h"

namespace KelView {

MessageCache::Message MessageCache::Find(const AtomPlace& place) {
    const std::lock_guard lock(mutex_);
    const auto it = byKey_.find(Key(place));
    if (it == byKey_.end()) {
        return nullptr;
    }
    recent_.splice(recent_.begin(), recent_, it->second);
    return it->second->message;
}

void MessageCache::Put(const AtomPlace& place, Message message) {
    if (!message || message->size() > capacity_) {
        return;
    }
    const std::lock_guard lock(mutex_);
    const std::uint64_t key = Key(place);
    if (const auto it = byKey_.find(key); it != byKey_.end()) {
        bytes_ -= it->second->message->size();
        recent_.erase(it->second);
        byKey_.erase(it);
    }
    bytes_ += message->size();
    recent_.push_front({key, std::move(message)});
    byKey_[key] = recent_.begin();
    while (bytes_ > capacity_) {
        bytes_ -= recent_.back().message->size();
        byKey_.erase(recent_.back().key);
        recent_.pop_back();
    }
}

std::size_t MessageCache::Bytes() const {
    const std::lock_guard lock(mutex_);
    return bytes_;
}

}  // namespace KelView
