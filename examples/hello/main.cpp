// hello: the smallest complete use of AvQvlCppBinding. Checks the service,
// registers, posts one event and fetches what is waiting. Built against an
// installed copy of the library (see examples/CMakeLists.txt and Makefile).
#include <iostream>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::AvQVLProtocolException;
using Arvant::Net::AvQuorvel::Client::Exception;
using Arvant::Net::AvQuorvel::Util::DomException;

int main() {
    try {
        AvQVLConnection sender;
        AvQVLConnection receiver;
        std::cout << "status: " << sender.getStatus() << "\n";

        std::string server = "hello-server";
        std::string senderId = "hello-sender";
        std::string receiverId = "hello-receiver";
        std::string locale;  // none
        std::vector<std::string> shared;
        sender.registerClient(server, senderId, locale, shared);
        receiver.registerClient(server, receiverId, locale, shared);

        std::string event = "Hello, Quorvel!";
        std::string correlationId = "hello.put";
        shared.clear();
        sender.putEvents(event, shared, correlationId);
        std::cout << "posted to " << shared.size() << " shared clients\n";

        std::string events;
        correlationId = "hello.get";
        receiver.getEvents(events, shared, correlationId);
        std::cout << "received: " << events << "\n";
        return events.find("Hello, Quorvel!") == std::string::npos ? 1 : 0;
    } catch (const Exception& e) {
        std::cerr << "error (type " << e.getType() << "): " << e.getMessage() << "\n";
    } catch (AvQVLProtocolException* e) {  // getSharedClients throws a pointer when unregistered
        std::cerr << "error (type " << e->getType() << "): " << e->getMessage() << "\n";
        delete e;  // as its own class: the exceptions have no virtual destructor
    } catch (const DomException& e) {
        std::cerr << "malformed answer: " << e.getMessage() << "\n";
    }
    return 1;
}
