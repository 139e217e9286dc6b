// Exits 0 only when the scripted test transport, not the embedded service,
// answered: the service always echoes the status text, the script does not.
#include "client/AvQVLConnection.h"
#include "transport/testing/TestTransport.h"

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Testing::TestTransport;

int main() {
    TestTransport::reset();
    TestTransport::expectExchange("not the status text");
    AvQVLConnection connection;
    return connection.getStatus() == -2 && TestTransport::scriptDone() ? 0 : 1;
}
