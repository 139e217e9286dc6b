#include "daemon/Log.h"

#include <time.h>

#include <nlohmann/json.hpp>

#include <cstdio>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

namespace {

const char* const kLevelNames[] = {"debug", "info", "warn", "error", "off"};

const char* levelName(LogLevel level) {
    return kLevelNames[static_cast<int>(level)];
}

// "2026-01-31T23:59:59.123456Z"
std::string utcNow() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    ::gmtime_r(&now.tv_sec, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<long>(now.tv_nsec / 1000));
    return text;
}

// One JSON object a line, its members in the order written. Text that is not
// UTF-8 (client input is made printable first; a message may hold anything)
// gets U+FFFD instead of failing the line.
std::string jsonLine(const nlohmann::ordered_json& object) {
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace

bool parseLogLevel(const std::string& text, LogLevel& level) {
    for (int i = 0; i <= static_cast<int>(LogLevel::Off); ++i) {
        if (text == kLevelNames[i]) {
            level = static_cast<LogLevel>(i);
            return true;
        }
    }
    return false;
}

std::string logLevelChoices() {
    std::string choices;
    for (int i = 0; i <= static_cast<int>(LogLevel::Off); ++i) {
        choices += std::string(i == 0                                 ? ""
                               : i == static_cast<int>(LogLevel::Off) ? " or "
                                                                      : ", ") +
                   kLevelNames[i];
    }
    return choices;
}

bool parseLogFormat(const std::string& text, LogFormat& format) {
    if (text == "text" || text == "json") {
        format = text == "text" ? LogFormat::Text : LogFormat::Json;
        return true;
    }
    return false;
}

std::string printable(const std::string& text) {
    static const char digits[] = "0123456789ABCDEF";
    std::string shown;
    shown.reserve(text.size());
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7F && byte != '=' && byte != '%') {
            shown += c;
        } else {
            shown += '%';
            shown += digits[byte >> 4];
            shown += digits[byte & 0x0F];
        }
    }
    return shown;
}

Log::Log(std::FILE* out, LogLevel threshold, LogFormat format)
    : out(threshold == LogLevel::Off ? nullptr : out), threshold(threshold), format(format) {}

void Log::request(const RequestLine& line) {
    const LogLevel level = line.status >= 500   ? LogLevel::Error
                           : line.status >= 400 ? LogLevel::Warn
                                                : LogLevel::Info;
    if (!enabled(level)) {
        return;
    }
    // Whatever the client sent as method and path, the line stays short.
    const std::string method = printable(line.method.substr(0, 16));
    const std::string path = printable(line.path.substr(0, 200));
    std::string text = utcNow();
    if (format == LogFormat::Text) {
        text += std::string(" ") + levelName(level);
        if (line.exchange) {
            text += " exchange op=" + printable(line.operation) +
                    " server=" + printable(line.server) + " client=" + printable(line.client);
        } else {
            text += " request method=" + method + " path=" + path;
        }
        text += " status=" + std::to_string(line.status) + " us=" + std::to_string(line.micros) +
                " peer=" + line.peer + "\n";
    } else {
        nlohmann::ordered_json object;
        object["time"] = text;
        object["level"] = levelName(level);
        if (line.exchange) {
            object["event"] = "exchange";
            object["op"] = printable(line.operation);
            object["server"] = printable(line.server);
            object["client"] = printable(line.client);
        } else {
            object["event"] = "request";
            object["method"] = method;
            object["path"] = path;
        }
        object["status"] = line.status;
        object["us"] = line.micros;
        object["peer"] = line.peer;
        text = jsonLine(object);
    }
    write(text);
}

void Log::message(LogLevel level, const std::string& text) {
    if (!enabled(level)) {
        return;
    }
    if (format == LogFormat::Text) {
        write(utcNow() + " " + levelName(level) + " " + text + "\n");
    } else {
        nlohmann::ordered_json object;
        object["time"] = utcNow();
        object["level"] = levelName(level);
        object["message"] = text;
        write(jsonLine(object));
    }
}

void Log::write(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex);
    std::fwrite(line.data(), 1, line.size(), out);
    std::fflush(out);
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
