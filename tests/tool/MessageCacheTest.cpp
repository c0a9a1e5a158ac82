#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "view/MessageCache.h"

namespace {

using KelView::AtomPlace;
using KelView::MessageCache;

MessageCache::Message Bytes(std::size_t n) { return std::make_shared<const std::string>(n, 'x'); }

// Random puts and finds against a model of the cache: a list of the most
// recently used places whose sizes fit the capacity.
TEST(MessageCache, KeepsTheMostRecentlyUsedWithinItsCapacity) {
    constexpr std::size_t kCapacity = 1000;
    MessageCache cache(kCapacity);
    std::vector<std::pair<std::uint64_t, std::size_t>> model;  // most recent first
    std::mt19937 rng(7);
    for (int step = 0; step < 5000; ++step) {
        const AtomPlace place{static_cast<std::uint32_t>(rng() % 2), static_cast<std::uint16_t>(rng() % 3),
                              static_cast<std::uint32_t>(rng() % 8)};
        const std::uint64_t key = (std::uint64_t{place.take} << 48) | (std::uint64_t{place.stream} << 32) | place.frame;
        const auto known = std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
        if (rng() % 2 == 0) {
            const MessageCache::Message found = cache.Find(place);
            ASSERT_EQ(found != nullptr, known != model.end()) << "step " << step;
            if (known != model.end()) {
                ASSERT_EQ(found->size(), known->second);
                std::rotate(model.begin(), known, known + 1);
            }
            continue;
        }
        const std::size_t size = rng() % 400 + (rng() % 50 == 0 ? kCapacity : 0);
        cache.Put(place, Bytes(size));
        if (size <= kCapacity) {  // a larger one changes nothing
            if (known != model.end()) {
                model.erase(known);
            }
            model.insert(model.begin(), {key, size});
        }
        std::size_t total = 0;
        for (const auto& e : model) {
            total += e.second;
        }
        while (total > kCapacity) {
            total -= model.back().second;
            model.pop_back();
        }
        ASSERT_EQ(cache.Bytes(), total) << "step " << step;
    }
}

}  // namespace
