// The default backend: the reference service engine running inside the process.
// One engine serves every connection and thread of the process.
//
// A getEvents acknowledges its own answer (ServiceEngine::handle): the answer
// is handed to the caller inside the process, where nothing can lose it on the way. A process
// that dies mid-answer takes the memory store, and every other event, with it;
// a client that abandons an answer it was given (it threw while converting it)
// made that choice in its own code, like a client that drops a fetched event.
#include "engine/ServiceEngine.h"
#include "protocol/Failure.h"
#include "transport/internal/Backend.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

class EmbeddedBackend : public Backend {
public:
    std::size_t maxBodyBytes() const override { return engine.limits().maxBodyBytes; }

    bool exchange(const HeaderFields& headers, const std::string& body, std::string& response,
                  BackendFailure& failure) override {
        Protocol::Failure refused;
        if (engine.handle(headers, body, response, refused)) {
            return true;
        }
        failure.code = Protocol::failureCode(refused.kind);
        failure.message = refused.message;
        return false;
    }

private:
    Engine::ServiceEngine engine;
};

}  // namespace

// The registrations live as long as the process: stopping the transport
// (AvQvl_Term down to zero) does not forget them, like a service that keeps
// running while its clients come and go.
Backend& embeddedBackend() {
    static EmbeddedBackend embedded;
    return embedded;
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
