#include <KelCommon/Thread.h>
#include <pthread.h>

#include <array>

namespace KelCommon::concurrency {

namespace {
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
thread_local std::string currentThreadName;
constexpr std::size_t kKernelNameLimit = 15;
}  // namespace

void Thread::setCurrentThreadName(const std::string& name) {
    currentThreadName = name;
    pthread_setname_np(pthread_self(), name.substr(0, kKernelNameLimit).c_str());
}

std::string Thread::getCurrentThreadName() {
    if (!currentThreadName.empty()) {
        return currentThreadName;
    }
    std::array<char, 64> buffer{};
    if (pthread_getname_np(pthread_self(), buffer.data(), buffer.size()) != 0) {
        return {};
    }
    return buffer.data();
}

}  // namespace KelCommon::concurrency
