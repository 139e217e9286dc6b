// Shared by the tests that drive the client library: a fixture that resets the
// scripted test transport, a short way to script it, and a reading of what a
// call threw. ICU on Linux takes UTF-8 as its default code page whatever the
// locale (U_CHARSET_IS_UTF8), so these tests hand UTF-8 over as it is.
#ifndef AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H
#define AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "client/Exception.h"
#include "transport/testing/TestTransport.h"
#include "util/XMLNode.h"

namespace ClientTest {

using Arvant::Net::AvQuorvel::Testing::TestTransport;
using Strings = std::vector<std::string>;

// Header block and body accepted: the service asks for the body, then goes on.
constexpr const char* kHandshake = "S0 E0 R19 S1 E0 R20 ";

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { TestTransport::reset(); }
};

// Appends to the script: "S0 E0 R19" is AvQvl_SendNoAck 0, AvQvl_SendEOF 0,
// AvQvl_Receive 19; I is AvQvl_Init; "Pab" an AvQvl_Receive delivering "ab".
inline void script(const std::string& steps) {
    static const char* const names[] = {"AvQvl_SendNoAck", "AvQvl_SendEOF", "AvQvl_Receive",
                                        "AvQvl_Init"};
    std::istringstream in(steps);
    for (std::string step; in >> step;) {
        step[0] == 'P' ? TestTransport::pushResponse(step.substr(1))
                       : TestTransport::pushResult(names[std::string("SERI").find(step[0])],
                                                   std::stoi(step.substr(1)));
    }
}

inline long countCalls(const std::string& function) {
    const Strings called = TestTransport::functions();
    return std::count(called.begin(), called.end(), function);
}

// The texts of every AvQvl_SendNoAck, header blocks included.
inline Strings sentTexts() {
    Strings texts;
    for (const auto& call : TestTransport::calls()) {
        if (call.function == "AvQvl_SendNoAck") {
            texts.push_back(call.text);
        }
    }
    return texts;
}

// n bytes that show where a piece was cut.
inline std::string pattern(size_t n) {
    std::string text;
    while (text.size() < n) {
        text += "0123456789abcdefghijklmnopqrstuvwxyz!";
    }
    return text.substr(0, n);
}

// What a call threw, as "Class(type): message" with the exact class thrown, or
// "none". A thrown pointer, which no handler by reference catches, shows as
// "Class*"; DomException has no type code.
inline std::string thrownBy(const std::function<void()>& call) {
    auto describe = [](const std::string& type, const std::string& message) {
        char* name = abi::__cxa_demangle(abi::__cxa_current_exception_type()->name(), nullptr,
                                         nullptr, nullptr);
        const std::string kind = name != nullptr ? name : "?";
        std::free(name);
        return kind.substr(kind.rfind(':') + 1) + type + ": " + message;
    };
    try {
        call();
    } catch (const Arvant::Net::AvQuorvel::Client::Exception& e) {
        return describe("(" + std::to_string(e.getType()) + ")", e.getMessage());
    } catch (const Arvant::Net::AvQuorvel::Util::DomException& e) {
        return describe("", e.getMessage());
    } catch (Arvant::Net::AvQuorvel::Client::Exception* e) {
        std::unique_ptr<Arvant::Net::AvQuorvel::Client::Exception> owned(e);
        return describe("(" + std::to_string(e->getType()) + ")", e->getMessage());
    }
    return "none";
}

}  // namespace ClientTest

#endif  // AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H
