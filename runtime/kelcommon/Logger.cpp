#include <KEL/KELLogger.h>
#include <KelCommon/Logger.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace KelCommon {

namespace {

const char* LevelName(int level) {
    switch (level) {
        case LOG_CRITICAL:
            return "CRITICAL";
        case LOG_ERROR:
            return "ERROR";
        case LOG_WARNING:
            return "WARNING";
        case LOG_INFO:
            return "INFO";
        case LOG_VERBOSE:
            return "VERBOSE";
        case LOG_DEBUG:
            return "DEBUG";
        case LOG_TRACE:
            return "TRACE";
        default:
            return "LOG";
    }
}

int InitialStderrLevel() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the runtime never changes the environment, so reading it is safe
    if (const char* env = std::getenv("KEL_LOG_LEVEL"); env != nullptr && *env != '\0') {
        char* end = nullptr;
        const long v = std::strtol(env, &end, 10);
        if (end != env && *end == '\0' && v >= LOG_OFF && v <= LOG_TRACE) {
            return static_cast<int>(v);
        }
    }
    return LOG_WARNING;
}

std::string FormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed < 0) {
        return format;
    }
    std::string out(static_cast<std::size_t>(needed), '\0');
    std::vsnprintf(out.data(), out.size() + 1, format, args);
    return out;
}

}  // namespace

Logger::Logger() : stderrLevel_(InitialStderrLevel()) {}

void Logger::LogMessage(int level, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogMessageV(level, tag, format, args);
    va_end(args);
}

void Logger::LogMessageV(int level, const char* tag, const char* format, va_list args) {
    LogRecord record{level, tag != nullptr ? tag : "", format != nullptr ? FormatV(format, args) : std::string()};

    // Sinks run outside the lock (a sink may log or take its own locks);
    // each is marked as called by this thread until it has returned, which
    // RemoveSink waits for.
    const std::thread::id self = std::this_thread::get_id();
    std::vector<std::shared_ptr<SinkEntry>> sinks;
    int threshold = 0;
    {
        std::lock_guard lock(mutex_);
        threshold = stderrLevel_;
        sinks = sinks_;
        for (const auto& entry : sinks) {
            entry->callers.push_back(self);
        }
    }
    for (const auto& entry : sinks) {
        try {
            entry->sink(record);
        } catch (...) {
            // A failing sink must not take the logging thread with it.
        }
        std::lock_guard lock(mutex_);
        entry->callers.erase(std::find(entry->callers.begin(), entry->callers.end(), self));
        sinkReturned_.notify_all();
    }
    if (level > LOG_OFF && level <= threshold) {
        // One fprintf call per line keeps lines from different threads whole.
        std::fprintf(stderr, "[%s] %s: %s\n", LevelName(level), record.tag.c_str(), record.message.c_str());
    }
}

void Logger::SetStderrLevel(int level) {
    std::lock_guard lock(mutex_);
    stderrLevel_ = level;
}

int Logger::GetStderrLevel() const {
    std::lock_guard lock(mutex_);
    return stderrLevel_;
}

int Logger::AddSink(Sink sink) {
    std::lock_guard lock(mutex_);
    const int handle = nextSinkHandle_++;
    sinks_.push_back(std::make_shared<SinkEntry>(SinkEntry{handle, std::move(sink), {}}));
    return handle;
}

void Logger::RemoveSink(int handle) {
    std::unique_lock lock(mutex_);
    const auto it = std::find_if(sinks_.begin(), sinks_.end(), [handle](const auto& e) { return e->handle == handle; });
    if (it == sinks_.end()) {
        return;
    }
    const std::shared_ptr<SinkEntry> entry = *it;
    sinks_.erase(it);
    const std::thread::id self = std::this_thread::get_id();
    sinkReturned_.wait(lock, [&] {
        return std::all_of(entry->callers.begin(), entry->callers.end(), [&](const auto& id) { return id == self; });
    });
}

ScopedLogCapture::ScopedLogCapture() {
    if (auto logger = KEL::GetKELLoggerInstance().lock()) {
        handle_ = logger->AddSink([this](const LogRecord& record) {
            std::lock_guard lock(mutex_);
            records_.push_back(record);
        });
    }
}

ScopedLogCapture::~ScopedLogCapture() {
    if (auto logger = KEL::GetKELLoggerInstance().lock(); logger && handle_ != 0) {
        logger->RemoveSink(handle_);
    }
}

std::vector<LogRecord> ScopedLogCapture::Records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::size_t ScopedLogCapture::Count(const std::string& message) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(records_.begin(), records_.end(), [&](const LogRecord& r) { return r.message == message; }));
}

std::size_t ScopedLogCapture::CountContaining(const std::string& fragment) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(records_.begin(), records_.end(), [&](const LogRecord& r) {
        return r.message.find(fragment) != std::string::npos;
    }));
}

void ScopedLogCapture::Clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

}  // namespace KelCommon

// The process logger lives with the logger itself so that every library of
// the host (and the capture helper above) reaches the same instance.
namespace KEL {

namespace {
std::mutex& LoggerInstanceMutex() {
    static std::mutex mutex;
    return mutex;
}
std::shared_ptr<KelCommon::Logger>& LoggerInstance() {
    static std::shared_ptr<KelCommon::Logger> instance = std::make_shared<KelCommon::Logger>();
    return instance;
}
}  // namespace

std::weak_ptr<KelCommon::Logger> GetKELLoggerInstance() {
    std::lock_guard lock(LoggerInstanceMutex());
    return LoggerInstance();
}

void SetKELLoggerInstance(std::shared_ptr<KelCommon::Logger> logger) {
    std::lock_guard lock(LoggerInstanceMutex());
    LoggerInstance() = std::move(logger);
}

}  // namespace KEL
