#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string cannotQueue(const std::string& serverId, const std::string& senderId,
                        const std::string& recipientId) {
    return "Cannot queue the event of client " + quoted(senderId) + ": client " +
           quoted(recipientId) + " of server " + quoted(serverId) + " already has ";
}

}  // namespace

std::string notRegisteredMessage(const std::string& serverId, const std::string& clientId) {
    return "Client " + quoted(clientId) + " is not registered with server " + quoted(serverId) +
           ".";
}

std::string tooManyClientsMessage(const std::string& serverId, const std::string& clientId,
                                  std::size_t count) {
    return "Cannot register client " + quoted(clientId) + ": server " + quoted(serverId) +
           " already has " + std::to_string(count) + " clients, the most one server may have.";
}

std::string tooManyEventsMessage(const std::string& serverId, const std::string& senderId,
                                 const std::string& recipientId, std::size_t waiting) {
    return cannotQueue(serverId, senderId, recipientId) + std::to_string(waiting) +
           " events waiting, the most a client may have.";
}

std::string tooManyBytesMessage(const std::string& serverId, const std::string& senderId,
                                const std::string& recipientId, std::size_t waitingBytes,
                                std::size_t moreBytes, std::size_t limit) {
    return cannotQueue(serverId, senderId, recipientId) + std::to_string(waitingBytes) +
           " bytes of events waiting; " + std::to_string(moreBytes) +
           " more would pass the limit of " + std::to_string(limit) + " bytes.";
}

std::string outOfMemoryMessage() {
    return "The Quorvel service ran out of memory while handling the request.";
}

std::string storeFailedMessage(const std::string& action, const std::string& cause) {
    return "The Quorvel service could not " + action + ": its store failed (" + cause +
           "); nothing was changed.";
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
