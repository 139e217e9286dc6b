// Turns whatever an operation threw into one printable description: the
// exception's class, its type code (when it has one) and its message.
#ifndef AVQVL_TOOLS_FAILURE_H
#define AVQVL_TOOLS_FAILURE_H

#include <cstdint>
#include <string>

namespace Quorvel {

// Exit codes of the tool, shown in --help.
enum ExitCode {
    kExitOk = 0,
    kExitServiceFailure = 1,  // the library or the service reported a failure
    kExitUsage = 2,           // bad command line
    kExitInternal = 3,        // anything else (out of memory, unreadable input)
};

struct Failure {
    std::string className;  // "AvQVLProtocolException", "DomException", ...
    bool hasType = false;   // DomException and foreign exceptions carry no type code
    int32_t type = 0;
    std::string message;
    bool fromLibrary = false;  // false: not an exception of the library's own

    // "AvQVLProtocolException (type -2): Client not Registered with Quorvel"
    std::string describe() const;
    // {"class":"...","type":-2,"message":"..."}; type is null when absent.
    std::string toJson() const;
    ExitCode exitCode() const { return fromLibrary ? kExitServiceFailure : kExitInternal; }
};

// Call only inside a catch block: rethrows the exception in flight and
// describes it. Exceptions thrown as pointers (getSharedClients does that) are
// recognised too and deleted.
Failure describeCurrentException();

}  // namespace Quorvel

#endif  // AVQVL_TOOLS_FAILURE_H
