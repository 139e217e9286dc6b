// Turns whatever an operation threw into one printable description: the
// exception's class, its type code (when it has one) and its message.
#ifndef AVQVL_TOOLS_FAILURE_H
#define AVQVL_TOOLS_FAILURE_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Arvant::Net::AvQuorvel::Tools {

// Exit codes of the tool, shown in --help.
enum ExitCode {
    kExitOk = 0,
    kExitServiceFailure = 1,  // the library or the service reported a failure
    kExitUsage = 2,           // bad command line, or input the local code page cannot read
    kExitInternal = 3,        // anything else (out of memory, input or output failed)
};

// A failure of the tool's own (usage, input, output), thrown to the command's
// handler with the exit code it stands for. className names it in the JSON
// output: "UsageError", "InputError" or "IOError".
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const char* className, const std::string& message)
        : std::runtime_error(message), code(code), className(className) {}
    ExitCode code;
    const char* className;
};

struct Failure {
    std::string className;  // "AvQVLProtocolException", "DomException", ...
    bool hasType = false;   // DomException and foreign exceptions carry no type code
    int32_t type = 0;
    std::string message;
    // What the transport knows of the cause, when the message does not carry it
    // (a failed status check says only "AvQVL Connection failed").
    std::string cause;
    ExitCode exitCode = kExitInternal;
    bool fromTool = false;  // a ToolError: the text shows the message alone

    // The one form every command prints after "error: ":
    // "AvQVLProtocolException (type -2): Client not Registered with Quorvel",
    // then " (cause: ...)" when there is a cause; the message alone for the
    // tool's own failures, whose class adds nothing for a reader.
    std::string describe() const;
};

// Call only inside a catch block: rethrows the exception in flight and
// describes it. Exceptions thrown as pointers (getSharedClients does that) are
// recognised too and deleted.
Failure describeCurrentException();

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_FAILURE_H
