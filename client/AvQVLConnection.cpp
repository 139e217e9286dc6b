// The connection: registration state, the standard headers, and the one
// exchange skeleton that every service operation runs with its own values.
#include "client/AvQVLConnection.h"

#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <atomic>
#include <cstdint>
#include <istream>
#include <mutex>
#include <streambuf>

#include "client/AvQVLRequest.h"
#include "client/Exception.h"
#include "protocol/Limits.h"
#include "protocol/Names.h"
#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"
#include "util/internal/ReadingSettings.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {
namespace {

using Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;
using Util::SAXToNodeParser;
using Util::XMLNode;

const char* const kNotRegistered = "Client not Registered with Quorvel";
// The bodies of the operations that send a fixed text; made once, not per call.
const std::string kStatusText = "AvQVL Status check";
const std::string kRegisterText = "AvQVL register client";
const std::string kUnregisterText = "AvQVL unregister client";
const std::string kGetEventsText = "Get Events Request";
const std::string kGetClientsText = "AvQVL getClients Operation";

// The XML library stays initialised while at least one connection, copies
// included, is alive: a single process-wide flag would end it under the feet
// of the connections that remain. Its start and end are not safe to run on two
// threads at once, and must not overlap a parse, so the count and both calls
// sit under one lock; connections may then be built and destroyed on any
// threads. A failed start leaves the count as it was.
std::mutex xmlLibraryLock;
int liveConnections = 0;  // guarded by xmlLibraryLock
// Each start may pick another local code page, which a parse converts text to.
std::atomic<unsigned long> xmlLibraryStarts{0};

void acquireXmlLibrary() {
    std::lock_guard<std::mutex> hold(xmlLibraryLock);
    if (liveConnections == 0) {
        xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale);
        ++xmlLibraryStarts;
    }
    ++liveConnections;
}

void releaseXmlLibrary() {
    std::lock_guard<std::mutex> hold(xmlLibraryLock);
    if (--liveConnections == 0) {
        xercesc::XMLPlatformUtils::Terminate();
    }
}

// Reads a text and the NUL byte that follows it in memory, in place. Nothing
// is ever written through the get area: put-back of a different character
// fails (the default pbackfail) instead of storing it.
class TerminatedTextBuffer : public std::streambuf {
public:
    explicit TerminatedTextBuffer(const std::string& text) {
        char* begin = const_cast<char*>(text.c_str());
        setg(begin, begin, begin + text.size() + 1);
    }
};

// Sends `body` and the NUL byte after it as the request body, the bytes an
// std::istringstream of body + '\0' would give without copying them twice.
std::string sendWithBody(AvQVLRequest& request, const std::string& body) {
    TerminatedTextBuffer buffer(body);
    std::istream stream(&buffer);
    request.setRequestStream(&stream);
    return request.send();
}

// The shared-client answer that every put and fetch brings is nearly always
// the same bytes as the last one, and reading it builds a reader and a tree.
// So each thread keeps its last answer read whole and the identifiers read from
// it, and an answer byte for byte the same takes them again. The reading is
// decided by the bytes, the sub-character setting and the code page the XML
// library took when it started (a connection keeps it started), so a change of
// either starts afresh. An answer that fails to read is never kept; nor is one
// over kMaxKeptClientsAnswerBytes, whose reading costs more than its
// comparison saves next to the memory a copy would hold.
constexpr std::size_t kMaxKeptClientsAnswerBytes = 64 * 1024;

struct KeptClients {
    std::string answer;
    std::vector<std::string> ids;
    unsigned long libraryStart = 0;
    unsigned long settingChanges = 0;
    bool valid = false;
};

// Appends the identifiers of a shared-client document to `sharedClients`,
// which is touched only once the whole document has been read. The tree of a
// large document takes several times its size, so nothing that is no longer
// needed lives beside it: the text goes once the tree is built, and the tree
// before the identifiers are copied out.
void appendSharedClients(std::string response, std::vector<std::string>& sharedClients) {
    thread_local KeptClients kept;
    const unsigned long libraryStart = xmlLibraryStarts.load();
    const unsigned long settingChanges = Util::subCharSettingChanges();
    if (kept.valid && kept.answer == response && kept.libraryStart == libraryStart &&
        kept.settingChanges == settingChanges) {
        sharedClients.insert(sharedClients.end(), kept.ids.begin(), kept.ids.end());
        return;
    }
    kept.valid = false;
    const bool keep = response.size() <= kMaxKeptClientsAnswerBytes;
    if (keep) {
        kept.answer = response;  // into the buffer of the last one
    }
    SharedClientIDs list;
    {
        SAXToNodeParser parser;
        XMLNode* root = parser.parseString(response);
        std::string().swap(response);
        list.parse(*root);
    }
    const std::size_t before = sharedClients.size();
    list.getSharedClients(sharedClients);
    if (keep) {
        kept.ids.assign(sharedClients.begin() + before, sharedClients.end());
        kept.libraryStart = libraryStart;
        kept.settingChanges = settingChanges;
        kept.valid = true;
    }
}

}  // namespace

AvQVLConnection::AvQVLConnection() : avQvlInitialised(false) {
    acquireXmlLibrary();
}

AvQVLConnection::AvQVLConnection(const AvQVLConnection& other)
    : serverId(other.serverId),
      clientId(other.clientId),
      avQvlInitialised(other.avQvlInitialised),
      locale(other.locale) {
    acquireXmlLibrary();
}

AvQVLConnection& AvQVLConnection::operator=(const AvQVLConnection& other) {
    serverId = other.serverId;
    clientId = other.clientId;
    avQvlInitialised = other.avQvlInitialised;
    locale = other.locale;
    return *this;
}

// The transport is left running: it belongs to the process, not the connection.
AvQVLConnection::~AvQVLConnection() {
    releaseXmlLibrary();
}

bool AvQVLConnection::isClientRegistered() const {
    return !serverId.empty();
}

void AvQVLConnection::initAvQvl() {
    if (!avQvlInitialised) {
        initTransport();
        avQvlInitialised = true;
    }
}

void AvQVLConnection::termAvQvl() {
    if (avQvlInitialised) {
        termTransport();
        avQvlInitialised = false;
    }
}

void AvQVLConnection::setRequestHeader(AvQVLRequest& request, const char* operationName,
                                       const char* logCorrelationId, bool includeClientIds) {
    initAvQvl();
    request.addHeader(Protocol::kServiceNameField, Protocol::kServiceName);
    request.addHeader(Protocol::kOperationNameField, operationName);
    request.addHeader(Protocol::kLogCorrelationIdField, logCorrelationId);
    if (!locale.empty()) {
        request.addHeader(Protocol::kLocaleField, locale.c_str());
    }
    if (includeClientIds) {
        request.addHeader(Protocol::kServerIdField, serverId.c_str());
        request.addHeader(Protocol::kClientIdField, clientId.c_str());
    }
}

std::string AvQVLConnection::exchange(Precondition precondition, const char* operationName,
                                      const char* logCorrelationId, const std::string& body,
                                      const char* wait) {
    if (precondition != Precondition::None && !isClientRegistered()) {
        if (precondition == Precondition::RegisteredThrowsPointer) {
            throw new AvQVLProtocolException(-2, kNotRegistered);  // the handler owns it
        }
        throw AvQVLProtocolException(-2, kNotRegistered);
    }
    AvQVLRequest request;
    setRequestHeader(request, operationName, logCorrelationId, true);
    if (wait != nullptr) {
        request.addHeader(Protocol::kWaitMillisecondsField, wait);
    }
    return sendWithBody(request, body);
}

int32_t AvQVLConnection::getStatus() {
    // The status check carries no client identifiers, so it works before and
    // after registration, and reports every failure of its own as one exception.
    try {
        AvQVLRequest request;
        setRequestHeader(request, Protocol::kGetStatus, "AvQVLConnection.getStatus", false);
        return sendWithBody(request, kStatusText) == kStatusText ? 0 : -2;
    } catch (const Exception&) {
        throw AvQVLConnectionException(-1, "AvQVL Connection failed");
    }
}

void AvQVLConnection::registerClient(std::string& serverId, std::string& clientId,
                                     std::string& locale, std::vector<std::string>& sharedClients) {
    // Stored first and kept on failure: the connection counts as registered.
    this->serverId = serverId;
    this->clientId = clientId;
    this->locale = locale;
    appendSharedClients(exchange(Precondition::None, Protocol::kRegisterClient,
                                 "AvQVLConnection.registerClient", kRegisterText),
                        sharedClients);
}

void AvQVLConnection::unregisterClient(std::vector<std::string>& sharedClients) {
    try {
        appendSharedClients(exchange(Precondition::None, Protocol::kUnregisterClient,
                                     "AvQVLConnection.unregisterClient", kUnregisterText),
                            sharedClients);
    } catch (const Exception& e) {
        // A failure of the client side still unregisters; the caller sees it
        // as a plain Exception (the copy drops the derived class on purpose).
        // Other failures, such as a malformed answer, leave the identifiers.
        serverId.clear();
        clientId.clear();
        throw Exception(e);
    }
    serverId.clear();
    clientId.clear();
}

void AvQVLConnection::getEvents(std::string& events, std::vector<std::string>& sharedClients,
                                std::string& logCorrelationId) {
    fetchEvents(events, sharedClients, logCorrelationId, nullptr);
}

void AvQVLConnection::waitForEvents(std::string& events, std::vector<std::string>& sharedClients,
                                    std::string& logCorrelationId, std::chrono::milliseconds wait) {
    if (wait.count() < 0) {
        throw AvQVLRuntimeException(
            "waitForEvents needs a wait of zero or more milliseconds, not " +
            std::to_string(wait.count()) + ".");
    }
    // A wait longer than the field carries is cut to its most, as the service
    // would cut it to its own limit anyway.
    const auto most = Protocol::kMostWaitMilliseconds;
    const std::string field = std::to_string(wait.count() > most ? most : wait.count());
    fetchEvents(events, sharedClients, logCorrelationId, field.c_str());
}

void AvQVLConnection::fetchEvents(std::string& events, std::vector<std::string>& sharedClients,
                                  std::string& logCorrelationId, const char* wait) {
    events = exchange(Precondition::Registered, Protocol::kGetEvents, logCorrelationId.c_str(),
                      kGetEventsText, wait);
    sharedClients.clear();
    getSharedClients(sharedClients);  // a second, complete exchange, which never waits
}

void AvQVLConnection::putEvents(std::string& events, std::vector<std::string>& sharedClients,
                                std::string& logCorrelationId) {
    appendSharedClients(
        exchange(Precondition::Registered, Protocol::kPutEvents, logCorrelationId.c_str(), events),
        sharedClients);
}

void AvQVLConnection::getSharedClients(std::vector<std::string>& sharedClients) {
    appendSharedClients(exchange(Precondition::RegisteredThrowsPointer, Protocol::kGetSharedClients,
                                 "AvQVLConnection.getSharedClients", kGetClientsText),
                        sharedClients);
}

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
