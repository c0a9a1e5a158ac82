#include "container/ForkGuard.h"

#include <pthread.h>

#include <atomic>
#include <utility>

namespace KEL::container {

// The guards alive in the process, and the fork handlers that walk them. The
// registry's own mutex is held from before a fork to after it, so no guard
// comes or goes meanwhile.
struct ForkGuardRegistry {
    std::mutex mutex;
    ForkGuard* first = nullptr;
    std::atomic<void (*)()> waitHook{nullptr};

    static ForkGuardRegistry& Get() {
        // Never destroyed: guards of static objects may outlive any other
        // static, and a fork may come at any time.
        static ForkGuardRegistry* registry = [] {
            auto* r = new ForkGuardRegistry();
            ::pthread_atfork(&Prepare, &Parent, &Child);
            return r;
        }();
        return *registry;
    }

    static void Prepare() {
        ForkGuardRegistry& r = Get();
        r.mutex.lock();
        for (int rank = 0; rank <= static_cast<int>(ForkGuard::Rank::kBufferPool); ++rank) {
            for (ForkGuard* g = r.first; g != nullptr; g = g->next_) {
                if (static_cast<int>(g->rank_) != rank || g->mutex_.try_lock()) {
                    continue;
                }
                if (const auto hook = r.waitHook.load()) {
                    hook();
                }
                g->mutex_.lock();
            }
        }
    }

    static void Parent() {
        ForkGuardRegistry& r = Get();
        for (ForkGuard* g = r.first; g != nullptr; g = g->next_) {
            g->mutex_.unlock();
        }
        r.mutex.unlock();
    }

    // The forking thread took every mutex in Prepare and is the one thread
    // here, so it may let them go.
    static void Child() {
        ForkGuardRegistry& r = Get();
        for (ForkGuard* g = r.first; g != nullptr; g = g->next_) {
            if (g->inChild_) {
                g->inChild_();
            }
            g->mutex_.unlock();
        }
        r.mutex.unlock();
    }
};

ForkGuard::ForkGuard(Rank rank, std::mutex& mutex, std::function<void()> inChild)
    : rank_(rank), mutex_(mutex), inChild_(std::move(inChild)) {
    ForkGuardRegistry& r = ForkGuardRegistry::Get();
    const std::lock_guard lock(r.mutex);
    next_ = r.first;
    r.first = this;
}

ForkGuard::~ForkGuard() {
    ForkGuardRegistry& r = ForkGuardRegistry::Get();
    const std::lock_guard lock(r.mutex);
    for (ForkGuard** link = &r.first; *link != nullptr; link = &(*link)->next_) {
        if (*link == this) {
            *link = next_;
            break;
        }
    }
}

void ForkGuard::SetWaitHook(void (*hook)()) { ForkGuardRegistry::Get().waitHook = hook; }

}  // namespace KEL::container
