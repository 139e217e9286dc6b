// How every command reports: one JSON object built field by field for --json,
// and the one place where a failure is printed and becomes the exit code.
#ifndef AVQVL_TOOLS_REPORT_H
#define AVQVL_TOOLS_REPORT_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "EventList.h"
#include "Json.h"

namespace Quorvel {

// {"command":"...","ok":true,...}; command null when it is not known.
class JsonObject {
public:
    explicit JsonObject(const char* command) {
        out << "{\"command\":" << (command != nullptr ? jsonQuote(command) : "null");
    }
    JsonObject& raw(const char* name, const std::string& json) {
        out << ",\"" << name << "\":" << json;
        return *this;
    }
    JsonObject& text(const char* name, const std::string& value) {
        return raw(name, jsonQuote(value));
    }
    JsonObject& number(const char* name, long long value) {
        return raw(name, std::to_string(value));
    }
    JsonObject& flag(const char* name, bool value) { return raw(name, value ? "true" : "false"); }
    JsonObject& list(const char* name, const std::vector<std::string>& values) {
        return raw(name, jsonStringArray(values));
    }
    std::string str() const { return out.str() + "}"; }

private:
    std::ostringstream out;
};

// {"sender":"...","sequence":"...","text":"..."}
std::string eventJson(const Event& event);

// Runs `body` and returns its exit code; whatever it throws is printed (on
// standard error, or as {"command":...,"ok":false,"error":{...}} on standard
// output with --json) and becomes the exit code. With addTransportCause, a
// failure also names the transport's last error message as its cause.
int guarded(const char* command, const Options& options, const std::function<int()>& body,
            bool addTransportCause = false);

// Prints a failure of the tool's own (usage, input) the way guarded does.
int reportToolError(const char* command, bool json, int code, const char* className,
                    const std::string& message);

}  // namespace Quorvel

#endif  // AVQVL_TOOLS_REPORT_H
