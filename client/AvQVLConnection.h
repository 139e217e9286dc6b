/// @file
/// The application's handle on the Quorvel service: AvQVLConnection.
#ifndef AVQVL_CLIENT_AVQVLCONNECTION_H
#define AVQVL_CLIENT_AVQVLCONNECTION_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {

class AvQVLRequest;

/// The application's handle on the Quorvel service. Registration state lives
/// here; the transport starts on the first operation. Results come back through
/// the reference arguments, failures as exceptions (see Exception.h).
///
/// Ownership: the caller owns every argument; an operation keeps nothing of them
/// but the identifiers and locale that registerClient stores in the connection.
///
/// Throws: every failure of the client side as a class of Exception.h, by value,
/// except getSharedClients, which throws a pointer the handler must delete:
///     try { connection.getSharedClients(ids); }
///     catch (AvQVLProtocolException* e) { report(e->getMessage()); delete e; }
/// A malformed answer from the service throws Util::DomException (util/XMLNode.h).
///
/// Threads: distinct connections may live on distinct threads at once, and be
/// built, copied and destroyed on any thread in any order, without external
/// synchronization. One connection is used by one thread at a time.
class AVQVL_EXPORT AvQVLConnection {
public:
    AvQVLConnection();
    /// Copies the registration state; the copy is a connection of its own.
    AvQVLConnection(const AvQVLConnection& other);
    /// Copies the registration state.
    AvQVLConnection& operator=(const AvQVLConnection& other);
    ~AvQVLConnection();

    /// 0 when the service echoes the status text, -2 otherwise.
    int32_t getStatus();
    /// Registers clientId under serverId (stored in the connection first, and
    /// kept on failure) and appends the clients sharing the service.
    void registerClient(std::string& serverId, std::string& clientId, std::string& locale,
                        std::vector<std::string>& sharedClients);
    /// Unregisters and appends the clients that remain. A failure of the client
    /// side still unregisters, and is thrown as a plain Exception.
    void unregisterClient(std::vector<std::string>& sharedClients);
    /// Sets `events` to the raw events document waiting for the client, and
    /// `sharedClients` to the clients sharing the service. Needs registration.
    void getEvents(std::string& events, std::vector<std::string>& sharedClients,
                   std::string& logCorrelationId);
    /// getEvents, except that the service holds the fetch for up to `wait`
    /// while nothing waits for the client: it answers as soon as an event
    /// arrives, or with the empty events document when the wait ends. A wait
    /// of zero is getEvents; one longer than the service allows (quorveld's
    /// --max-wait) is cut to that limit by the service. The HTTP backend waits
    /// for the answer its time-out plus `wait`. A negative wait throws
    /// AvQVLRuntimeException before anything is sent.
    void waitForEvents(std::string& events, std::vector<std::string>& sharedClients,
                       std::string& logCorrelationId, std::chrono::milliseconds wait);
    /// Posts `events` to the other clients of the server and appends the
    /// clients sharing the service. Needs registration.
    void putEvents(std::string& events, std::vector<std::string>& sharedClients,
                   std::string& logCorrelationId);
    /// Appends the clients sharing the service. Needs registration, and throws
    /// a pointer when it is missing (see above).
    void getSharedClients(std::vector<std::string>& sharedClients);

private:
    // How an operation guards against an unregistered connection: not at all,
    // by throwing the exception object, or (getSharedClients) a pointer to it.
    enum class Precondition { None, Registered, RegisteredThrowsPointer };

    bool isClientRegistered() const;
    void initAvQvl();
    void termAvQvl();
    void setRequestHeader(AvQVLRequest& request, const char* operationName,
                          const char* logCorrelationId, bool includeClientIds);
    // The exchange every registered-client operation runs; returns the response.
    // The body goes out with the NUL byte that ends it.
    // `wait`, when not null, is sent as the Wait-Milliseconds field.
    std::string exchange(Precondition precondition, const char* operationName,
                         const char* logCorrelationId, const std::string& body,
                         const char* wait = nullptr);
    // getEvents and waitForEvents: the fetch, then the shared clients.
    void fetchEvents(std::string& events, std::vector<std::string>& sharedClients,
                     std::string& logCorrelationId, const char* wait);

    std::string serverId;
    std::string clientId;
    bool avQvlInitialised;
    std::string locale;
};

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_CLIENT_AVQVLCONNECTION_H
