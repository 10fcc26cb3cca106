#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kavelin {

enum class LogType { log, warning, error };

std::string_view rawValue(LogType type);
std::optional<LogType> logTypeFromRaw(std::string_view raw);

// The caller's file and line. Not std::source_location: clang 14 cannot build
// libstdc++'s, and the fuzz and sanitizer builds use clang 14.
struct SourceLocation {
    const char* file = "";
    int line = 0;
    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            int line = __builtin_LINE()) {
        return {file, line};
    }
};

// The library's one diagnostic channel: one tagged, time-stamped line per call on
// standard output, flushed at once so a host piping our output sees every line.
class VPLogger {
  public:
    static void log(std::string_view message,
                    SourceLocation where = SourceLocation::current());
    static void warning(std::string_view message,
                        SourceLocation where = SourceLocation::current());
    static void error(std::string_view message,
                      SourceLocation where = SourceLocation::current());

    static void print(std::string_view message, LogType type, std::string_view file, int line);

    // The embedding application may silence the library entirely.
    static void setEnabled(bool enabled);
    static bool isEnabled();

    // Where finished lines go (without the trailing line feed). Standard output when
    // empty; tests collect lines here.
    using Sink = std::function<void(const std::string& line)>;
    static void setSink(Sink sink);
};

}  // namespace kavelin
