// daemon_client: one client process of the daemon tests. Reaches the daemon
// through the transport library, which QUORVEL_URL in the environment points
// at. Prints what it got on standard output; exit 0 on success, 1 when the
// library threw (the exception is printed), 2 on wrong usage, 3 when a check of
// the load command failed.
//
//   daemon_client status
//   daemon_client register|list|unregister|get SERVER CLIENT
//   daemon_client put SERVER CLIENT TEXT
//   daemon_client raw OPERATION SERVER CLIENT BODY_BYTES   (AvQvl_ calls, prints the code)
//   daemon_client load SERVER CLIENT PEERS EVENTS
//   daemon_client bench COUNT        (status checks; prints microseconds each)
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "transport/AvQvlBinding.h"

using namespace Arvant::Net::AvQuorvel::Client;

namespace {

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ",") + item;
    }
    return text;
}

int report(const char* name, const Exception& e) {
    std::cout << name << " type " << e.getType() << ": " << e.getMessage() << "\n";
    return 1;
}

// One exchange driven through the AvQvl_ functions, so the transport code and
// message are seen as they are.
int rawExchange(const std::string& operation, const std::string& server, const std::string& client,
                std::size_t bodyBytes) {
    AvQvl_Init(malloc, free);
    std::string block = "Client-ID=" + client + "\r\nOperation-Name=" + operation +
                        "\r\nServer-ID=" + server + "\r\nService-Name=AvQVLRequest\r\n\r\n";
    static char buffer[16384];
    std::string body(bodyBytes, 'x');
    int32_t rc = AvQvl_SendNoAck(block.c_str());
    if (rc >= 0) {
        AvQvl_SendEOF();
        rc = AvQvl_Receive(buffer);
    }
    if (rc == 19) {
        rc = body.empty() ? 1 : AvQvl_SendNoAck(body.c_str());
        if (rc >= 0) {
            rc = AvQvl_SendEOF();
        }
        if (rc >= 0) {
            rc = AvQvl_Receive(buffer);
        }
    }
    std::size_t received = 0;
    if (rc == 20) {
        while ((rc = AvQvl_Receive(buffer)) >= 0) {
            if (rc > 16384) {
                std::cout << "piece of " << rc << " bytes\n";
                return 3;
            }
            received += static_cast<std::size_t>(rc);
        }
        if (rc == -1) {
            AvQvl_Complete();
            std::cout << "ok " << received << "\n";
            return 0;
        }
    }
    char* message = nullptr;
    AvQvl_GetLastError(&message);
    std::cout << "code " << rc << "\nmessage " << (message ? message : "") << "\n";
    return 0;
}

// The events of one getEvents document: (sender, text) in document order.
void parseEvents(const std::string& document,
                 std::vector<std::pair<std::string, std::string>>& events) {
    const std::string senderMark = "sender=\"";
    std::size_t at = 0;
    while ((at = document.find(senderMark, at)) != std::string::npos) {
        at += senderMark.size();
        const std::size_t senderEnd = document.find('"', at);
        const std::size_t textStart = document.find('>', senderEnd) + 1;
        const std::size_t textEnd = document.find('<', textStart);
        events.emplace_back(document.substr(at, senderEnd - at),
                            document.substr(textStart, textEnd - textStart));
        at = textEnd;
    }
}

// Registers, waits for all peers, posts EVENTS events ("CLIENT#i"), fetching as
// it goes, then fetches until every peer's events are in. Checks that each
// sender's events come exactly once and in order.
int load(std::string server, std::string client, int peers, int count) {
    AvQVLConnection connection;
    std::string locale;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (static_cast<int>(shared.size()) < peers) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::cout << "only " << shared.size() << " of " << peers << " peers registered\n";
            return 3;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        shared.clear();
        connection.getSharedClients(shared);
    }
    std::map<std::string, int> next;  // sender -> index expected next
    long received = 0;
    const long expected = static_cast<long>(peers - 1) * count;
    auto fetch = [&]() -> bool {
        std::string document;
        std::string correlation = "load.get";
        std::vector<std::string> ignored;
        connection.getEvents(document, ignored, correlation);
        std::vector<std::pair<std::string, std::string>> events;
        parseEvents(document, events);
        for (const auto& event : events) {
            const std::string wanted = event.first + "#" + std::to_string(next[event.first]);
            if (event.second != wanted || event.first == client) {
                std::cout << "got \"" << event.second << "\" from " << event.first
                          << ", expected \"" << wanted << "\"\n";
                return false;
            }
            ++next[event.first];
            ++received;
        }
        return true;
    };
    for (int i = 0; i < count; ++i) {
        std::string text = client + "#" + std::to_string(i);
        std::string correlation = "load.put";
        std::vector<std::string> ignored;
        connection.putEvents(text, ignored, correlation);
        if (i % 100 == 99 && !fetch()) {
            return 3;
        }
    }
    while (received < expected) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::cout << "received " << received << " of " << expected << " events\n";
            return 3;
        }
        if (!fetch()) {
            return 3;
        }
        if (received < expected) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    for (const auto& sender : next) {
        if (sender.second != count) {
            std::cout << sender.first << " sent " << sender.second << " events\n";
            return 3;
        }
    }
    std::cout << "received " << received << " from " << next.size() << " senders\n";
    return 0;
}

int run(const std::vector<std::string>& args) {
    const std::string command = args.empty() ? "" : args[0];
    if (command == "status" && args.size() == 1) {
        AvQVLConnection connection;
        const int32_t status = connection.getStatus();
        std::cout << "status " << status << "\n";
        return 0;
    }
    if (command == "bench" && args.size() == 2) {
        AvQVLConnection connection;
        const int count = std::stoi(args[1]);
        connection.getStatus();  // connects
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i) {
            if (connection.getStatus() != 0) {
                return 3;
            }
        }
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::steady_clock::now() - start)
                                .count();
        std::cout << "us " << micros / count << "\n";
        return 0;
    }
    if (command == "raw" && args.size() == 5) {
        return rawExchange(args[1], args[2], args[3], std::stoul(args[4]));
    }
    if (command == "load" && args.size() == 5) {
        return load(args[1], args[2], std::stoi(args[3]), std::stoi(args[4]));
    }
    if (args.size() < 3) {
        return 2;
    }
    std::string server = args[1];
    std::string client = args[2];
    std::string locale;
    std::vector<std::string> shared;
    AvQVLConnection connection;
    connection.registerClient(server, client, locale, shared);
    std::string correlation = "daemon_client";
    if (args.size() == 3 &&
        (command == "register" || command == "list" || command == "unregister")) {
        if (command == "list") {
            shared.clear();
            connection.getSharedClients(shared);
        } else if (command == "unregister") {
            shared.clear();
            connection.unregisterClient(shared);
        }
        std::cout << "shared " << joined(shared) << "\n";
    } else if (command == "put" && args.size() == 4) {
        std::string text = args[3];
        connection.putEvents(text, shared, correlation);
        std::cout << "posted\n";
    } else if (command == "get" && args.size() == 3) {
        std::string document;
        connection.getEvents(document, shared, correlation);
        std::cout << document << "\n";
    } else {
        return 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // The classes share no virtual function, so each is caught by name.
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const AvQVLConnectionException& e) {
        return report("AvQVLConnectionException", e);
    } catch (const AvQVLProtocolException& e) {
        return report("AvQVLProtocolException", e);
    } catch (const AvQVLRuntimeException& e) {
        return report("AvQVLRuntimeException", e);
    } catch (const AvQVLUnrecognisedException& e) {
        return report("AvQVLUnrecognisedException", e);
    } catch (const Exception& e) {
        return report("Exception", e);
    } catch (AvQVLProtocolException* e) {  // getSharedClients throws a pointer
        report("AvQVLProtocolException", *e);
        delete e;
    } catch (const std::exception& e) {
        std::cout << "std::exception: " << e.what() << "\n";
    }
    return 1;
}
