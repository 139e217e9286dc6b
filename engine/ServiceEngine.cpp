#include "engine/ServiceEngine.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "engine/Documents.h"
#include "engine/MemoryStore.h"
#include "protocol/Limits.h"
#include "protocol/Names.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Failures are thrown inside the engine (by it and by the store) and handed
// back at its edge.

[[noreturn]] void refuseProtocol(const std::string& message) {
    throw Failure{FailureKind::Refused, message};
}

[[noreturn]] void refuseLimit(const std::string& message) {
    throw Failure{FailureKind::Limit, message};
}

const std::string& requiredHeader(const RequestHeaders& headers, const char* name) {
    auto found = headers.find(name);
    if (found == headers.end()) {
        refuseProtocol(std::string("The request has no \"") + name + "\" header.");
    }
    return found->second;
}

// Whether the eight bytes at p are all from 0x20 to 0x7F, each of which
// stands for itself in UTF-8 and fits an XML document (0x7F is allowed too).
bool isPrintableAscii8(const uint8_t* p) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    const std::uint64_t kHigh = 0x8080808080808080ULL;
    const std::uint64_t kSpaces = 0x2020202020202020ULL;
    // A byte below 0x20 borrows into its high bit when 0x20 is taken from it
    // (the borrow of a lower byte can only add false alarms, never hide one);
    // a byte from 0x80 has its high bit set already.
    return ((word | (word - kSpaces)) & kHigh) == 0;
}

// Identifiers and events are written into XML documents, which every client
// parses; one that XML 1.0 cannot carry would spoil the documents of every client
// of the server. Allowed: UTF-8 of the characters tab, line feed, carriage
// return, U+0020 to U+D7FF, U+E000 to U+FFFD and U+10000 to U+10FFFF; no other
// control character, no U+FFFE or U+FFFF, no surrogate or overlong form, not
// even as a reference.
bool fitsXmlDocument(const std::string& text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const int64_t length = static_cast<int64_t>(text.size());
    for (int64_t i = 0; i < length;) {
        if (i + 8 <= length && isPrintableAscii8(bytes + i)) {
            i += 8;  // the common case, eight bytes at a time
            continue;
        }
        UChar32 c;
        U8_NEXT(bytes, i, length, c);  // negative for anything but well-formed UTF-8
        if (c < 0x20 ? c != '\t' && c != '\n' && c != '\r' : c == 0xFFFE || c == 0xFFFF) {
            return false;
        }
    }
    return true;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// Runs one step of the engine, handing a failure back at its edge.
template <typename Step>
bool run(Step step, Failure& failure) {
    try {
        step();
        return true;
    } catch (const Failure& thrown) {
        failure = thrown;
    } catch (const std::bad_alloc&) {
        failure.kind = FailureKind::Limit;
        failure.message = outOfMemoryMessage();
    }
    return false;
}

// "Server-ID" and "Client-ID", quoted, for the refusals that name both.
std::string identifierFields() {
    return quoted(Protocol::kServerIdField) + " and " + quoted(Protocol::kClientIdField);
}

// The wait a request asks for: Wait-Milliseconds, decimal 0 to INT32_MAX
// (absent: none), on a getEvents only.
std::chrono::milliseconds requestedWait(const RequestHeaders& headers, bool getEvents,
                                        const std::string& operation) {
    const auto found = headers.find(Protocol::kWaitMillisecondsField);
    if (found == headers.end()) {
        return std::chrono::milliseconds(0);
    }
    const std::string& text = found->second;
    const std::string field = quoted(Protocol::kWaitMillisecondsField);
    if (!getEvents) {
        refuseProtocol("The " + field + " header field goes with getEvents only, not " +
                       quoted(operation) + ".");
    }
    std::int64_t value = 0;
    const bool valid = Protocol::parseWaitMilliseconds(text, value);
    if (!valid) {
        refuseProtocol("The " + field + " header field takes 0 to " +
                       std::to_string(Protocol::kMostWaitMilliseconds) + " milliseconds, not " +
                       quoted(text) + ".");
    }
    return std::chrono::milliseconds(value);
}

// About what an answer's markup adds around one event or one shared client.
constexpr std::size_t kEventMarkupBytes = 64;

std::string sharedClientDocument(const ClientList& clients) {
    SharedClientsDocument document;
    for (const std::string& client : clients) {
        document.add(client);
    }
    return document.finish();
}

}  // namespace

ServiceEngine::ServiceEngine(const ServiceLimits& limits)
    : store(std::make_unique<MemoryStore>(limits)) {}

ServiceEngine::ServiceEngine(std::unique_ptr<Store> store) : store(std::move(store)) {}

ServiceEngine::~ServiceEngine() = default;

bool ServiceEngine::handle(const RequestHeaders& headers, const std::string& body,
                           std::string& response, Failure& failure) {
    ExchangeResult result;
    const auto server = headers.find(Protocol::kServerIdField);
    if (headers.count(Protocol::kWaitMillisecondsField) == 0 || server == headers.end()) {
        return run([&] { response = dispatch(headers, body, ExchangeOptions(), true, result); },
                   failure);
    }
    // Watching from before the first look, so that no post after it is missed.
    return run(
        [&] {
            PostSignal::Watch watch(signal, server->second);
            PostSignal::Clock::time_point deadline{};
            for (bool first = true;; first = false) {
                const std::uint64_t seen = watch.posts();
                response = dispatch(headers, body, ExchangeOptions(), true, result);
                if (first) {
                    deadline = PostSignal::Clock::now() + result.wait;
                }
                if (result.lastSequence != 0 || !watch.waitPast(seen, deadline)) {
                    return;
                }
            }
        },
        failure);
}

bool ServiceEngine::exchange(const RequestHeaders& headers, const std::string& body,
                             const ExchangeOptions& options, std::string& response,
                             Failure& failure, ExchangeResult& result) {
    result = ExchangeResult();
    return run([&] { response = dispatch(headers, body, options, false, result); }, failure);
}

bool ServiceEngine::exchangeLater(const RequestHeaders& headers, const std::string& body,
                                  const ExchangeOptions& options, ExchangeDone done) {
    const auto operation = headers.find(Protocol::kOperationNameField);
    if (operation == headers.end()) {
        return false;
    }
    const bool posting = operation->second == Protocol::kPutEvents && store->postsLater();
    const bool reading = operation->second == Protocol::kGetEvents && store->readsLater();
    if (!posting && !reading) {
        return false;
    }
    LaterWork later;
    ExchangeResult result;
    Failure failure;
    if (!run([&] { dispatch(headers, body, options, false, result, &later); }, failure)) {
        done(false, std::string(), failure, result);
        return true;
    }
    if (!later.taken) {
        return false;
    }
    const auto settle = [done](const std::function<std::string(ExchangeResult&)>& answer,
                               ExchangeResult& result) {
        std::string response;
        Failure failed;
        if (run([&] { response = answer(result); }, failed)) {
            done(true, std::move(response), failed, result);
        } else {
            done(false, std::string(), failed, result);
        }
    };
    const bool queued = run(
        [&] {
            if (posting) {
                store->postLater(
                    later.serverId, later.clientId, body, options.postId,
                    [this, serverId = later.serverId, done, settle](const ClientList* clients,
                                                                    const Failure* refused) {
                        ExchangeResult none;
                        if (refused != nullptr) {
                            done(false, std::string(), *refused, none);
                            return;
                        }
                        posted(serverId);
                        settle([&](ExchangeResult&) { return sharedClientDocument(*clients); },
                               none);
                    });
                return;
            }
            store->readLater(
                later.serverId, later.clientId, options.ack, options.clientsToo,
                [this, done, settle, wait = result.wait, clientsToo = options.clientsToo](
                    std::vector<StoredEvent>* events, const ClientList* clients,
                    std::uint64_t logEnd, const Failure* refused) {
                    ExchangeResult read;
                    read.wait = wait;
                    if (refused != nullptr) {
                        done(false, std::string(), *refused, read);
                        return;
                    }
                    read.logEnd = logEnd;
                    const ClientList none;
                    settle(
                        [&](ExchangeResult& result) {
                            return eventsAnswer(*events, clients != nullptr ? *clients : none,
                                                clientsToo, result);
                        },
                        read);
                });
        },
        failure);
    if (!queued) {
        done(false, std::string(), failure, result);
    }
    return true;
}

bool ServiceEngine::acknowledge(const std::string& serverId, const std::string& clientId,
                                std::uint64_t upTo, Failure& failure) {
    return run([&] { store->acknowledge(serverId, clientId, upTo); }, failure);
}

std::string ServiceEngine::dispatch(const RequestHeaders& headers, const std::string& body,
                                    const ExchangeOptions& options, bool ackAnswer,
                                    ExchangeResult& result, LaterWork* later) {
    const std::string& serviceName = requiredHeader(headers, Protocol::kServiceNameField);
    const bool admin = serviceName == Protocol::kAdminServiceName;
    if (serviceName != Protocol::kServiceName && !admin) {
        refuseProtocol("Unknown " + quoted(Protocol::kServiceNameField) + " " +
                       quoted(serviceName) + "; expected " + quoted(Protocol::kServiceName) + ".");
    }
    const std::string& operation = requiredHeader(headers, Protocol::kOperationNameField);
    const std::chrono::milliseconds wait =
        requestedWait(headers, !admin && operation == Protocol::kGetEvents, operation);
    const std::size_t maxBodyBytes = limits().maxBodyBytes;
    if (body.size() > maxBodyBytes) {
        refuseLimit("The request body of " + std::to_string(body.size()) +
                    " bytes exceeds the limit of " + std::to_string(maxBodyBytes) + " bytes.");
    }
    if (admin) {
        return administer(operation, headers);
    }
    if (operation == Protocol::kGetStatus) {
        return body;
    }
    const bool known = operation == Protocol::kRegisterClient ||
                       operation == Protocol::kUnregisterClient ||
                       operation == Protocol::kPutEvents || operation == Protocol::kGetEvents ||
                       operation == Protocol::kGetSharedClients;
    if (!known) {
        refuseProtocol("Unknown " + quoted(Protocol::kOperationNameField) + " " +
                       quoted(operation) + ".");
    }
    const std::string& serverId = requiredHeader(headers, Protocol::kServerIdField);
    const std::string& clientId = requiredHeader(headers, Protocol::kClientIdField);

    if (operation == Protocol::kRegisterClient) {
        return registerClient(serverId, clientId);
    }
    if (operation == Protocol::kUnregisterClient) {
        return unregisterClient(serverId, clientId);
    }
    if (operation == Protocol::kPutEvents) {
        return putEvents(serverId, clientId, body, options.postId, later);
    }
    if (operation == Protocol::kGetEvents) {
        result.wait = wait;
        if (later != nullptr) {
            *later = LaterWork{true, serverId, clientId};
            return std::string();
        }
        return getEvents(serverId, clientId, options, ackAnswer, result);
    }
    return getSharedClients(serverId);
}

std::string ServiceEngine::registerClient(const std::string& serverId,
                                          const std::string& clientId) {
    if (serverId.empty() || clientId.empty()) {
        refuseProtocol("Cannot register client " + quoted(clientId) + " with server " +
                       quoted(serverId) + ": " + identifierFields() + " must not be empty.");
    }
    if (!fitsXmlDocument(serverId) || !fitsXmlDocument(clientId)) {
        refuseProtocol(
            "Cannot register the client: " + identifierFields() +
            " must not hold control characters, U+FFFE, U+FFFF or bytes that are not UTF-8.");
    }
    ClientList clients;
    store->registerClient(serverId, clientId, clients);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::unregisterClient(const std::string& serverId,
                                            const std::string& clientId) {
    ClientList remaining;
    store->unregisterClient(serverId, clientId, remaining);
    return sharedClientDocument(remaining);
}

std::string ServiceEngine::putEvents(const std::string& serverId, const std::string& clientId,
                                     const std::string& body, const std::string& postId,
                                     LaterWork* later) {
    if (!fitsXmlDocument(body)) {
        if (later != nullptr) {
            return std::string();  // not taken: the refusal looks at the store first
        }
        // A sender that is not registered hears that first, as it would had
        // its event been fine.
        ClientList clients;
        store->clients(serverId, clients);
        if (std::find(clients.begin(), clients.end(), clientId) == clients.end()) {
            refuseProtocol(notRegisteredMessage(serverId, clientId));
        }
        refuseProtocol("The event of client " + quoted(clientId) +
                       " holds control characters, U+FFFE, U+FFFF or bytes that are not "
                       "UTF-8, which an XML document cannot carry.");
    }
    if (later != nullptr) {
        *later = LaterWork{true, serverId, clientId};
        return std::string();
    }
    ClientList clients;
    store->post(serverId, clientId, body, postId, clients);
    posted(serverId);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::getEvents(const std::string& serverId, const std::string& clientId,
                                     const ExchangeOptions& options, bool ackAnswer,
                                     ExchangeResult& result) {
    std::vector<StoredEvent> events;
    ClientList clients;
    if (options.clientsToo) {
        store->readWithClients(serverId, clientId, options.ack, events, clients, result.logEnd);
    } else {
        store->read(serverId, clientId, options.ack, events);
    }
    std::string answer = eventsAnswer(events, clients, options.clientsToo, result);
    if (ackAnswer && result.lastSequence != 0) {
        // Should this fail, nothing is answered and the events come again.
        store->acknowledge(serverId, clientId, result.lastSequence);
    }
    return answer;
}

std::string ServiceEngine::eventsFromNews(const PostNews& news, const std::string& clientId,
                                          std::uint64_t logEnd, ExchangeResult& result) {
    std::vector<StoredEvent> events;
    for (const StoredEvent& event : news.events) {
        if (event.sequence > logEnd && event.sender != clientId) {
            events.push_back(event);
        }
    }
    return eventsAnswer(events, news.clients, true, result);
}

std::string ServiceEngine::eventsAnswer(const std::vector<StoredEvent>& events,
                                        const ClientList& clients, bool clientsToo,
                                        ExchangeResult& result) {
    EventsDocument document;
    // Room for the events unescaped with their markup, and for the shared
    // clients the carrier appends to the answer.
    std::size_t room = 64;
    for (const StoredEvent& event : events) {
        room += event.text->size() + event.sender.size() + kEventMarkupBytes;
    }
    for (const std::string& client : clients) {
        room += client.size() + kEventMarkupBytes;
    }
    document.reserve(room);
    for (const StoredEvent& event : events) {
        document.add(event.sender, event.sequence, *event.text);
    }
    std::string answer = document.finish();
    result.lastSequence = events.empty() ? 0 : events.back().sequence;
    if (clientsToo && !(events.empty() && result.wait.count() > 0)) {
        result.clients = sharedClientDocument(clients);
    }
    return answer;
}

std::string ServiceEngine::getSharedClients(const std::string& serverId) {
    ClientList clients;
    store->clients(serverId, clients);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::administer(const std::string& operation, const RequestHeaders& headers) {
    if (operation == Protocol::kListClients) {
        auto server = headers.find(Protocol::kServerIdField);
        std::vector<ClientInfo> clients;
        store->listClients(server == headers.end() ? std::string() : server->second, clients);
        ClientsDocument document;
        for (const ClientInfo& client : clients) {
            document.add(client);
        }
        return document.finish();
    }
    if (operation != Protocol::kEvictClient) {
        refuseProtocol("Unknown " + quoted(Protocol::kOperationNameField) + " " +
                       quoted(operation) + " of " + quoted(Protocol::kServiceNameField) + " " +
                       quoted(Protocol::kAdminServiceName) + ".");
    }
    const std::string& serverId = requiredHeader(headers, Protocol::kServerIdField);
    const std::string& clientId = requiredHeader(headers, Protocol::kClientIdField);
    ClientList clients;
    store->clients(serverId, clients);
    if (std::find(clients.begin(), clients.end(), clientId) == clients.end()) {
        refuseProtocol(notRegisteredMessage(serverId, clientId));
    }
    // Should the client leave meanwhile, unregistering it again is no error.
    return unregisterClient(serverId, clientId);
}

void ServiceEngine::setPostListener(PostListener newListener) {
    bool watchStore = false;
    {
        std::lock_guard<std::mutex> lock(listenerMutex);
        listener = std::move(newListener);
        watchStore = !storeWatched;
        storeWatched = true;
    }
    // Once: the store calls posted(), which reads whatever listener is current.
    if (watchStore) {
        store->watchPosts(
            [this](const std::string& serverId, const std::shared_ptr<const PostNews>& news) {
                posted(serverId, news);
            });
    }
}

void ServiceEngine::posted(const std::string& serverId,
                           const std::shared_ptr<const PostNews>& news) noexcept {
    signal.notify(serverId);
    std::lock_guard<std::mutex> lock(listenerMutex);
    if (listener) {
        try {
            listener(serverId, news);
        } catch (...) {
            // The post is made; a listener that fails costs its waiters their wake
            // only (they look again when their wait ends).
        }
    }
}

void ServiceEngine::expireIdleClients(std::chrono::milliseconds idle,
                                      std::vector<ClientInfo>& expired) {
    store->expireIdleClients(epochMilliseconds() - idle.count(), expired);
}

bool ServiceEngine::ready(std::string& cause) {
    try {
        store->ping();
        return true;
    } catch (const Failure& failure) {
        cause = failure.message;
    } catch (const std::bad_alloc&) {
        cause = outOfMemoryMessage();
    }
    return false;
}

std::string ServiceEngine::describeStore() const {
    return store->describe();
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
