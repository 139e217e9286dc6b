// The tool's input: standard input read with its failures reported, and text
// checked against the local code page (ICU's default converter) before the
// library converts it, since the library's conversion would replace what it
// cannot read instead of refusing it. Failures throw ToolError (Failure.h).
#ifndef AVQVL_TOOLS_INPUT_H
#define AVQVL_TOOLS_INPUT_H

#include <cstdint>
#include <string>

namespace Arvant::Net::AvQuorvel::Tools {

// All of standard input. A read failure throws ToolError (kExitInternal) with
// the system's message.
std::string readStandardInput();

// Standard input one line at a time, as it arrives (a pipe from a log is
// posted line by line, not once it ends).
class LineReader {
public:
    // The next line without its '\n' (and a '\r' before it); false at the end.
    // A read failure throws ToolError (kExitInternal).
    bool next(std::string& line);
    // Bytes of standard input before the line next() returned last.
    std::uint64_t lineOffset() const { return offset; }
    // The number of that line, counted from 1.
    std::uint64_t lineNumber() const { return number; }

private:
    std::string pending;
    std::uint64_t offset = 0;
    std::uint64_t number = 0;
    std::uint64_t consumed = 0;  // bytes handed out so far, newlines included
    bool ended = false;
};

// Throws ToolError (kExitUsage) naming `what` and the byte offset (counted
// from `base`) of the first byte the local code page cannot read, or of a NUL
// byte, which the library cannot pass on. `codePage` null means the local code
// page, the one the library converts from (ICU's default converter).
void checkLocalText(const std::string& text, const char* what, std::uint64_t base = 0,
                    const char* codePage = nullptr);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_INPUT_H
