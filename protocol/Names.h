/// @file
/// The names an exchange is made of: the services, their operations, the header
/// fields, and the namespace of the documents the service answers with. One
/// home for the client library, the service and everything between them;
/// constants only, nothing to link.
#ifndef AVQVL_PROTOCOL_NAMES_H
#define AVQVL_PROTOCOL_NAMES_H

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

/// The service of the client library's exchanges.
constexpr char kServiceName[] = "AvQVLRequest";
/// The operator's service beside it (listing and evicting clients).
constexpr char kAdminServiceName[] = "AvQVLAdmin";

/// The header field naming the service.
constexpr char kServiceNameField[] = "Service-Name";
/// The header field naming the operation.
constexpr char kOperationNameField[] = "Operation-Name";
/// The header field naming the server, the group a client belongs to.
constexpr char kServerIdField[] = "Server-ID";
/// The header field naming the client within its server.
constexpr char kClientIdField[] = "Client-ID";
/// The header field carrying the client's locale.
constexpr char kLocaleField[] = "Locale";
/// The header field carrying the caller's correlation id for the logs.
constexpr char kLogCorrelationIdField[] = "Log-Correlation-ID";
/// A getEvents that finds nothing waits this many milliseconds (decimal, 0 to
/// 2147483647; absent: 0) for an event before it answers none.
constexpr char kWaitMillisecondsField[] = "Wait-Milliseconds";

/// HTTP header lines between the HTTP backend and the daemon, beside the
/// exchange's own fields (wire/HttpWire.h says when each travels).
/// A getEvents request: the highest sequence the caller has read to its end.
constexpr char kAckHeader[] = "Quorvel-Ack";
/// A getEvents request with "1": acknowledge only, answer no events.
constexpr char kAckOnlyHeader[] = "Quorvel-Ack-Only";
/// A getEvents answer: the highest sequence it carries (absent or 0: none).
constexpr char kLastSequenceHeader[] = "Quorvel-Last-Sequence";
/// A putEvents request: the post's own id, the same on every resend of it.
constexpr char kPostIdHeader[] = "Quorvel-Post-Id";
/// A getEvents request with "1": answer the client's getSharedClients too, as
/// if it came right after (the client library asks for it next).
constexpr char kClientsTooHeader[] = "Quorvel-Clients-Too";
/// The answer to such a request, when it holds both: the first that many bytes
/// of the body answer the getEvents, the rest the getSharedClients.
constexpr char kEventsBytesHeader[] = "Quorvel-Events-Bytes";

/// Echoes the body.
constexpr char kGetStatus[] = "getStatus";
/// Adds the caller to its server.
constexpr char kRegisterClient[] = "registerClient";
/// Removes the caller from its server.
constexpr char kUnregisterClient[] = "unregisterClient";
/// Queues the body as an event for the caller's peers.
constexpr char kPutEvents[] = "putEvents";
/// Takes the caller's waiting events.
constexpr char kGetEvents[] = "getEvents";
/// Lists the caller's server's clients.
constexpr char kGetSharedClients[] = "getSharedClients";
/// Admin: lists the registered clients, of one server or of all.
constexpr char kListClients[] = "listClients";
/// Admin: unregisters a client on the operator's behalf.
constexpr char kEvictClient[] = "evictClient";

/// The namespace of every document the service answers with.
constexpr char kSchemaNamespace[] = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_NAMES_H
