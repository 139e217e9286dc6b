// The transport's header-block reader and its per-thread exchange state machine.
// The input is a header block for parseHeaderBlock and, after a 0x01 byte, a
// script of AvQvl_ calls for an Exchange over an echoing backend: pieces split
// at 0x02, each led by one byte that picks the call (text, end of input,
// receive, complete, abandon).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzInput.h"
#include "transport/internal/Exchange.h"
#include "transport/internal/HeaderBlock.h"

using namespace Arvant::Net::AvQuorvel::Transport;

namespace {

class EchoBackend : public Backend {
public:
    std::size_t maxBodyBytes() const override { return 40000; }
    bool exchange(const HeaderFields& headers, const std::string& body, std::string& response,
                  BackendFailure& failure) override {
        if (headers.count("fail") != 0) {
            failure.code = AVQVL_FOREIGN_CONNECT_FAILURE;
            failure.message = "refused";
            return false;
        }
        response = body + body;  // more than one piece for bodies above 8 KiB
        return true;
    }
};

void checkHeaderBlock(const std::string& block) {
    HeaderFields fields;
    std::string error;
    if (!parseHeaderBlock(block, fields, error)) {
        if (error.empty()) {
            std::abort();
        }
        return;
    }
    // What was read renders back to a block that reads the same.
    std::string rendered;
    for (const auto& field : fields) {
        rendered += field.first + "=" + field.second + "\r\n";
    }
    rendered += "\r\n";
    HeaderFields again;
    if (!parseHeaderBlock(rendered, again, error) || again != fields) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto halves = splitInput(data, size, '\x01', 2);
    checkHeaderBlock(halves[0]);
    if (halves.size() < 2) {
        return 0;
    }
    EchoBackend backend;
    Exchange exchange(backend);
    static char buffer[AVQVL_RECEIVE_BUFFER_BYTES];
    std::string error;
    const auto calls = splitInput(reinterpret_cast<const uint8_t*>(halves[1].data()),
                                  halves[1].size(), '\x02', 4096);
    for (const std::string& call : calls) {
        const int which = call.empty() ? 0 : static_cast<unsigned char>(call[0]) % 5;
        const std::string text = call.empty() ? std::string() : call.substr(1);
        int32_t result = 0;
        switch (which) {
            case 0:
                result = exchange.sendText(text.c_str(), error);
                break;
            case 1:
                result = exchange.endOfInput(error);
                break;
            case 2:
                result = exchange.receive(buffer, error);
                if (result > AVQVL_RECEIVE_BUFFER_BYTES) {
                    std::abort();
                }
                break;
            case 3:
                result = exchange.complete(error);
                break;
            default:
                exchange.abandon();
                break;
        }
        if (result < -1 && error.empty()) {
            std::abort();  // every failure carries a message
        }
    }
    return 0;
}
