// Shared by the client tests: a fixture that pins ICU's default code page to
// UTF-8 and resets the test transport, and small helpers to read exceptions.
#ifndef AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H
#define AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H

#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "client/Exception.h"
#include "transport/testing/TestTransport.h"

namespace ClientTest {

using Arvant::Net::AvQuorvel::Testing::TestTransport;
using Arvant::Net::AvQuorvel::Testing::TransportCall;

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedCodePage = ucnv_getDefaultName();
        ucnv_setDefaultName("UTF-8");
        TestTransport::reset();
    }
    void TearDown() override { ucnv_setDefaultName(savedCodePage.c_str()); }

private:
    std::string savedCodePage;
};

// What a call threw: the most derived class of the client hierarchy (or
// "DomException", "none"), with type code and message.
struct Thrown {
    std::string kind;
    int32_t type = 0;
    std::string message;
};

Thrown thrownBy(const std::function<void()>& call);

// The header block and the body accepted, the service asks for the body (19)
// and then declares the request complete (20).
void scriptHandshake();

// Appends results to the script in order: {function, code}.
constexpr const char* kSend = "AvQvl_SendNoAck";
constexpr const char* kEof = "AvQvl_SendEOF";
constexpr const char* kReceive = "AvQvl_Receive";
using Steps = std::vector<std::pair<const char*, int32_t>>;
void script(const Steps& steps);

// Number of recorded calls of `function`, and the texts of every AvQvl_SendNoAck.
int countCalls(const std::string& function);
std::vector<std::string> sentTexts();

}  // namespace ClientTest

#endif  // AVQVL_TESTS_CLIENT_CLIENTTESTSUPPORT_H
