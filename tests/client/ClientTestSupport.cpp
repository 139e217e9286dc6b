#include "ClientTestSupport.h"

#include "util/XMLNode.h"

namespace ClientTest {

using namespace Arvant::Net::AvQuorvel::Client;
using Arvant::Net::AvQuorvel::Util::DomException;

Thrown thrownBy(const std::function<void()>& call) {
    auto of = [](const char* kind, const Exception& e) {
        return Thrown{kind, e.getType(), e.getMessage()};
    };
    try {
        call();
    } catch (const AvQVLConnectionException& e) {
        return of("AvQVLConnectionException", e);
    } catch (const AvQVLProtocolException& e) {
        return of("AvQVLProtocolException", e);
    } catch (const AvQVLRuntimeException& e) {
        return of("AvQVLRuntimeException", e);
    } catch (const AvQVLUnrecognisedException& e) {
        return of("AvQVLUnrecognisedException", e);
    } catch (const AvQVLException& e) {
        return of("AvQVLException", e);
    } catch (const Exception& e) {
        return of("Exception", e);
    } catch (const DomException& e) {
        return Thrown{"DomException", 0, e.getMessage()};
    }
    return Thrown{"none", 0, ""};
}

void scriptHandshake() {
    script({{"AvQvl_SendNoAck", 0},
            {"AvQvl_SendEOF", 0},
            {"AvQvl_Receive", 19},
            {"AvQvl_SendNoAck", 1},
            {"AvQvl_SendEOF", 0},
            {"AvQvl_Receive", 20}});
}

void script(const Steps& steps) {
    for (const auto& step : steps) {
        TestTransport::pushResult(step.first, step.second);
    }
}

int countCalls(const std::string& function) {
    int count = 0;
    for (const TransportCall& call : TestTransport::calls()) {
        count += call.function == function ? 1 : 0;
    }
    return count;
}

std::vector<std::string> sentTexts() {
    std::vector<std::string> texts;
    for (const TransportCall& call : TestTransport::calls()) {
        if (call.function == kSend) {
            texts.push_back(call.text);
        }
    }
    return texts;
}

}  // namespace ClientTest
