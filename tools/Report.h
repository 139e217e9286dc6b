// How every command reports: one JSON object for --json, and the one place
// where a failure is printed and becomes the exit code.
#ifndef AVQVL_TOOLS_REPORT_H
#define AVQVL_TOOLS_REPORT_H

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/Commands.h"
#include "tools/EventList.h"
#include "tools/Failure.h"

namespace Arvant::Net::AvQuorvel::Tools {

// Fields stay in the order they are set, which is the order people read them in.
using Json = nlohmann::ordered_json;

// {"command":"...","ok":...}; command null when it is not known.
Json resultJson(const char* command, bool ok);

// One line of JSON. Text the service hands back in another code page is not
// UTF-8: each byte that starts no character becomes U+FFFD, so the output is
// always a valid document.
std::string dumpJson(const Json& value);

// {"sender":"...","sequence":"...","text":"..."}
Json eventJson(const Event& event);

// {"class":"...","type":-2,"message":"..."}; type is null when absent, and
// "cause" is there only when known.
Json failureJson(const Failure& failure);

// Runs `body` and returns its exit code; whatever it throws is printed (on
// standard error, or as {"command":...,"ok":false,"error":{...}} on standard
// output with --json) and becomes the exit code. A failure names the
// transport's last error message as its cause when its own message does not.
int guarded(const char* command, const Options& options, const std::function<int()>& body);

// Prints a failure of the tool's own (usage, input) the way guarded does.
int reportToolError(const char* command, bool json, int code, const char* className,
                    const std::string& message);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_REPORT_H
