/// @file
/// The results of the transport's C interface (transport/AvQvlBinding.h), for
/// C and C++ alike: reply codes, the end of a response, and the failure codes
/// that the client library maps to its exception classes. Plain constants,
/// nothing to link.
#ifndef AVQVL_PROTOCOL_RESULTCODES_H
#define AVQVL_PROTOCOL_RESULTCODES_H

/// Results with a meaning of their own. AvQvl_Receive answers the end of the
// header block or body with a reply code, then hands the response out in pieces
// of at most AVQVL_RECEIVE_BUFFER_BYTES bytes (their number is the result) and
// ends it with AVQVL_END_OF_RESPONSE. Failures are negative codes below -1; the
// client library maps every code it knows to an exception class.
enum {
    AVQVL_SEND_BODY = 19,                ///< the service asks for the body
    AVQVL_REQUEST_COMPLETE = 20,         ///< the request is complete; the response follows
    AVQVL_END_OF_RESPONSE = -1,          ///< the whole response has been received
    AVQVL_RECEIVE_BUFFER_BYTES = 16384,  ///< the most bytes one AvQvl_Receive writes

    AVQVL_OTHER_ANSWER = -3099,     ///< the service answered something unforeseen
    AVQVL_REFUSED = -3017,          ///< the service refused the request, or a call out of turn
    AVQVL_LIMIT = -3016,            ///< a limit of the service or the transport
    AVQVL_UNREACHABLE = -2999,      ///< the service cannot be reached, or not started
    AVQVL_TIMED_OUT = -2998,        ///< no answer in time
    AVQVL_CONNECTION_LOST = -2997,  ///< the connection broke during the exchange
    AVQVL_TOKEN_REFUSED = -2996     ///< the service refused the access token (or its absence)
};

/// Codes this transport never returns but another one behind the same eight
/// calls may; the client library still gives each its exception class. The
// positive ones matter only as results of AvQvl_Init.
enum {
    AVQVL_FOREIGN_PROTOCOL_FAILURE = -751,   ///< read as a protocol failure
    AVQVL_FOREIGN_CONNECT_FAILURE = -3001,   ///< read as a connection failure
    AVQVL_FOREIGN_RUNTIME_FAILURE = -3009,   ///< read as a runtime failure
    AVQVL_FOREIGN_RESOURCE_FAILURE = -3010,  ///< read as a runtime failure
    AVQVL_INIT_CONNECTION_FAILURE = 1001,    ///< AvQvl_Init: read as a connection failure
    AVQVL_INIT_PROTOCOL_FAILURE = 1002,      ///< AvQvl_Init: read as a protocol failure
    AVQVL_INIT_RUNTIME_FAILURE = 1003        ///< AvQvl_Init: read as a runtime failure
};

#endif  // AVQVL_PROTOCOL_RESULTCODES_H
