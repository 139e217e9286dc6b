#include "Report.h"

#include <cstdio>
#include <iostream>

#include "Failure.h"
#include "client/AvQVLRequest.h"

namespace Quorvel {

namespace {

int print(const char* command, bool json, const Failure& failure) {
    // Once standard output has failed, the failure goes where it can be read.
    if (json && !std::ferror(stdout)) {
        std::cout << JsonObject(command).flag("ok", false).raw("error", failure.toJson()).str()
                  << std::endl;
    } else {
        std::cout.flush();
        std::cerr << "error: " << failure.describe() << std::endl;
    }
    return failure.exitCode;
}

}  // namespace

std::string eventJson(const Event& event) {
    return "{\"sender\":" + jsonQuote(event.sender) + ",\"sequence\":" + jsonQuote(event.sequence) +
           ",\"text\":" + jsonQuote(event.text) + "}";
}

int guarded(const char* command, const Options& options, const std::function<int()>& body,
            bool addTransportCause) {
    try {
        return body();
    } catch (...) {
        Failure failure = describeCurrentException();
        if (addTransportCause) {
            // Empty until a transport call of this thread has failed.
            const std::string cause = Arvant::Net::AvQuorvel::Client::getLastTransportError();
            if (cause != failure.message) {
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

}  // namespace Quorvel
