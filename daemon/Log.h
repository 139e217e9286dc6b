// quorveld's log: one line per request and a few messages, on one stream, as
// text or as JSON objects, each line starting with its UTC time (ISO 8601, in
// microseconds) and level. Thread-safe: lines from different threads never mix.
#ifndef AVQVL_DAEMON_LOG_H
#define AVQVL_DAEMON_LOG_H

#include <cstdio>
#include <mutex>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

enum class LogLevel { Debug, Info, Warn, Error, Off };
enum class LogFormat { Text, Json };

// "debug", "info", "warn", "error", "off"; false for anything else.
bool parseLogLevel(const std::string& text, LogLevel& level);
// Those names as a sentence, for help and errors: "debug, info, ... or off".
std::string logLevelChoices();
// "text" or "json"; false for anything else.
bool parseLogFormat(const std::string& text, LogFormat& format);

struct RequestLine {
    bool exchange = false;  // an exchange: operation and identifiers; else method and path
    std::string operation, server, client;
    std::string method, path;
    int status = 0;
    long long micros = 0;
    std::string peer;
};

// Bytes outside printable ASCII, and space, "=" and "%", as %XX, so a line
// stays one line and its fields stay apart whatever they hold.
std::string printable(const std::string& text);

class Log {
public:
    // Writes to out (not owned) what is at threshold or above.
    Log(std::FILE* out, LogLevel threshold, LogFormat format);

    bool enabled(LogLevel level) const { return out != nullptr && level >= threshold; }
    // At info for answers below 400, warn for 4xx, error for 5xx.
    void request(const RequestLine& line);
    void message(LogLevel level, const std::string& text);

private:
    void write(const std::string& line);

    std::FILE* const out;
    const LogLevel threshold;
    const LogFormat format;
    std::mutex mutex;  // one line at a time
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_LOG_H
