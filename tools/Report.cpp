#include "tools/Report.h"

#include <cstdio>
#include <iostream>

#include "client/AvQVLRequest.h"

namespace Arvant::Net::AvQuorvel::Tools {

namespace {

int print(const char* command, bool json, const Failure& failure) {
    // Once standard output has failed, the failure goes where it can be read.
    if (json && !std::ferror(stdout)) {
        Json result = resultJson(command, false);
        result["error"] = failureJson(failure);
        std::cout << dumpJson(result) << std::endl;
    } else {
        std::cout.flush();
        std::cerr << "error: " << failure.describe() << std::endl;
    }
    return failure.exitCode;
}

}  // namespace

Json resultJson(const char* command, bool ok) {
    Json result;
    result["command"] = command != nullptr ? Json(command) : Json(nullptr);
    result["ok"] = ok;
    return result;
}

std::string dumpJson(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json eventJson(const Event& event) {
    Json result;
    result["sender"] = event.sender;
    result["sequence"] = event.sequence;
    result["text"] = event.text;
    return result;
}

Json failureJson(const Failure& failure) {
    Json result;
    result["class"] = failure.className;
    result["type"] = failure.hasType ? Json(failure.type) : Json(nullptr);
    result["message"] = failure.message;
    if (!failure.cause.empty()) {
        result["cause"] = failure.cause;
    }
    return result;
}

int guarded(const char* command, const Options& options, const std::function<int()>& body) {
    try {
        return body();
    } catch (...) {
        Failure failure = describeCurrentException();
        if (!failure.fromTool) {
            // Empty until a transport call of this thread has failed; most
            // operations carry it as their message, the status check does not.
            const std::string cause = Client::getLastTransportError();
            if (failure.message.find(cause) == std::string::npos) {
                failure.cause = cause;
            }
        }
        return print(command, options.json, failure);
    }
}

int reportToolError(const char* command, bool json, int code, const char* className,
                    const std::string& message) {
    Failure failure;
    failure.className = className;
    failure.message = message;
    failure.exitCode = static_cast<ExitCode>(code);
    failure.fromTool = true;
    return print(command, json, failure);
}

}  // namespace Arvant::Net::AvQuorvel::Tools
