#pragma once

#include <KelCommon/Export.h>

#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace KelCommon {

// Numeric log levels; lower is more severe. Components log with the numbers
// directly (for example 2 for failures), these names only document them.
enum LogLevel : int {
    LOG_OFF = 0,
    LOG_CRITICAL = 1,
    LOG_ERROR = 2,
    LOG_WARNING = 3,
    LOG_INFO = 4,
    LOG_VERBOSE = 5,
    LOG_DEBUG = 6,
    LOG_TRACE = 7,
};

struct LogRecord {
    int level = 0;
    std::string tag;
    std::string message;
};

// The host logger. Messages at a level numerically at or below the stderr
// threshold are written to stderr as "[LEVEL] tag: message"; every message,
// whatever its level, goes to the registered sinks (tests capture lines
// through a sink). The default stderr threshold is LOG_WARNING; the
// environment variable KEL_LOG_LEVEL (a number) overrides it at start-up.
//
// Thread-safe: messages from several threads are written whole, one at a time.
class KEL_API Logger {
public:
    using Sink = std::function<void(const LogRecord&)>;

    Logger();

    void LogMessage(int level, const char* tag, const char* format, ...) __attribute__((format(printf, 4, 5)));
    // The same with the arguments as a va_list, for logging helpers of
    // their own (a fixed tag, a logger that may be absent).
    void LogMessageV(int level, const char* tag, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));

    void SetStderrLevel(int level);
    int GetStderrLevel() const;

    // Adds a sink; returns a handle for RemoveSink. Sinks are called on the
    // logging thread, outside the logger's lock, possibly from several
    // threads at once.
    int AddSink(Sink sink);
    // Removes a sink and returns once no other thread is still calling it, so
    // whatever the sink refers to may be destroyed right after. A sink that
    // removes itself does not wait for itself.
    void RemoveSink(int handle);

private:
    struct SinkEntry {
        int handle;
        Sink sink;
        std::vector<std::thread::id> callers;  // threads about to call or calling it
    };

    mutable std::mutex mutex_;
    std::condition_variable sinkReturned_;
    int stderrLevel_;
    int nextSinkHandle_ = 1;
    std::vector<std::shared_ptr<SinkEntry>> sinks_;
};

// Captures every log line while it lives. For tests and tools.
class KEL_API ScopedLogCapture {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    std::vector<LogRecord> Records() const;
    // Number of captured lines whose message equals `message` exactly.
    std::size_t Count(const std::string& message) const;
    // Number of captured lines whose message contains `fragment`.
    std::size_t CountContaining(const std::string& fragment) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
    int handle_ = 0;
};

}  // namespace KelCommon
