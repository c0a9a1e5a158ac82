#include "container/ReaderDamageRecord.h"

#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace KEL {

namespace container {

namespace {

// The process-wide record behind TakeReaderDamage.
class DamageRecord {
public:
    static DamageRecord& Instance() {
        static DamageRecord record;
        return record;
    }

    void Add(ReaderDamage damage) {
        std::lock_guard lock(mutex_);
        if (entries_.size() >= kMaxReaderDamage) {
            ++dropped_;
            return;
        }
        if (!seen_.emplace(damage.path, damage.offset).second) {
            return;
        }
        entries_.push_back(std::move(damage));
    }

    std::vector<ReaderDamage> Take(std::uint64_t* dropped) {
        std::lock_guard lock(mutex_);
        if (dropped != nullptr) {
            *dropped = dropped_;
        }
        dropped_ = 0;
        seen_.clear();
        return std::exchange(entries_, {});
    }

private:
    std::mutex mutex_;
    std::vector<ReaderDamage> entries_;
    std::set<std::pair<std::string, std::uint64_t>> seen_;
    std::uint64_t dropped_ = 0;
};

}  // namespace

void RecordReaderDamage(ReaderDamage damage) { DamageRecord::Instance().Add(std::move(damage)); }

}  // namespace container

std::vector<ReaderDamage> TakeReaderDamage(std::uint64_t* dropped) {
    return container::DamageRecord::Instance().Take(dropped);
}

}  // namespace KEL
