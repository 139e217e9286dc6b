// The reference service's request handling: header fields, operation and body
// from the input, one engine across inputs so that state builds up. The input is
// lines (LF) of name=value headers, then an empty line, then the body; a few
// well-known requests are mixed in so that registered clients exist.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "engine/ServiceEngine.h"
#include "protocol/Names.h"

using namespace Arvant::Net::AvQuorvel::Engine;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

namespace {

ServiceEngine& engine() {
    static ServiceEngine* const instance = [] {
        ServiceLimits limits;
        limits.maxBodyBytes = 4096;
        limits.maxQueuedEventsPerClient = 8;
        limits.maxClientsPerServer = 8;
        return new ServiceEngine(limits);
    }();
    return *instance;
}

void handle(const RequestHeaders& headers, const std::string& body) {
    std::string response;
    Failure failure;
    if (engine().handle(headers, body, response, failure)) {
        return;
    }
    if ((failure.kind != FailureKind::Refused && failure.kind != FailureKind::Limit) ||
        failure.message.empty()) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    RequestHeaders headers;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = input.find('\n', start);
        const std::string line = input.substr(start, end - start);
        start = end == std::string::npos ? input.size() : end + 1;
        if (line.empty() || end == std::string::npos) {
            break;
        }
        const std::size_t equals = line.find('=');
        headers.emplace(line.substr(0, equals),
                        equals == std::string::npos ? std::string() : line.substr(equals + 1));
    }
    const std::string body = input.substr(start);
    handle(headers, body);

    // The same request from a client that surely is registered.
    RequestHeaders known = headers;
    known[Protocol::kServiceNameField] = Protocol::kServiceName;
    known[Protocol::kServerIdField] = "S";
    known[Protocol::kClientIdField] = "fuzz";
    RequestHeaders registration = known;
    registration[Protocol::kOperationNameField] = Protocol::kRegisterClient;
    handle(registration, std::string());
    handle(known, body);
    return 0;
}
