#pragma once

namespace Kel2File {

// The plugin's log lines: through the host's logger, only when one is
// present (its handle is taken per message), always with this tag.
inline constexpr const char* kLogTag = "KEL2File";

// The levels the plugin logs at.
inline constexpr int kLogFailure = 2;  // failures, skipped or inconsistent data
inline constexpr int kLogInfo = 4;     // start and stop of writing, frames dropped from a full buffer
inline constexpr int kLogDetail = 6;   // a frame missing in a stream, all streams included

// Logs a printf-style message at `level`. A real variadic function (not a
// template) so that the compiler checks every call's arguments against its
// format.
__attribute__((format(printf, 2, 3))) void Log(int level, const char* format, ...);

}  // namespace Kel2File
