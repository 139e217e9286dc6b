#include "tools/Failure.h"

#include <exception>
#include <sstream>

#include "client/Exception.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

using namespace Client;
using Util::DomException;

namespace {

Failure fromLibrary(const char* className, const Exception& e) {
    Failure failure;
    failure.className = className;
    failure.hasType = true;
    failure.type = e.getType();
    failure.message = e.getMessage();
    failure.exitCode = kExitServiceFailure;
    return failure;
}

// The classes have no virtual destructor, so a thrown pointer is deleted
// through its own class, never through a base.
template <typename E>
Failure fromPointer(const char* className, E* e) {
    Failure failure = fromLibrary(className, *e);
    delete e;
    return failure;
}

}  // namespace

std::string Failure::describe() const {
    std::ostringstream out;
    if (fromTool) {
        return message;
    }
    out << className;
    if (hasType) {
        out << " (type " << type << ")";
    }
    out << ": " << message;
    if (!cause.empty()) {
        out << " (cause: " << cause << ")";
    }
    return out.str();
}

Failure describeCurrentException() {
    // The classes are not polymorphic: the handler order (most derived first)
    // is what finds the class name.
    try {
        throw;
    } catch (const AvQVLConnectionException& e) {
        return fromLibrary("AvQVLConnectionException", e);
    } catch (const AvQVLProtocolException& e) {
        return fromLibrary("AvQVLProtocolException", e);
    } catch (const AvQVLRuntimeException& e) {
        return fromLibrary("AvQVLRuntimeException", e);
    } catch (const AvQVLUnrecognisedException& e) {
        return fromLibrary("AvQVLUnrecognisedException", e);
    } catch (const AvQVLException& e) {
        // Also the library's internal conversion failure, which is not exported.
        return fromLibrary("AvQVLException", e);
    } catch (const Exception& e) {
        return fromLibrary("Exception", e);
    } catch (const DomException& e) {
        Failure failure;
        failure.className = "DomException";
        failure.message = e.getMessage();
        failure.exitCode = kExitServiceFailure;
        return failure;
    } catch (AvQVLConnectionException* e) {
        return fromPointer("AvQVLConnectionException", e);
    } catch (AvQVLProtocolException* e) {
        return fromPointer("AvQVLProtocolException", e);
    } catch (AvQVLRuntimeException* e) {
        return fromPointer("AvQVLRuntimeException", e);
    } catch (AvQVLUnrecognisedException* e) {
        return fromPointer("AvQVLUnrecognisedException", e);
    } catch (AvQVLException* e) {
        return fromPointer("AvQVLException", e);
    } catch (Exception* e) {
        return fromPointer("Exception", e);
    } catch (const ToolError& e) {
        Failure failure;
        failure.className = e.className;
        failure.message = e.what();
        failure.exitCode = e.code;
        failure.fromTool = true;
        return failure;
    } catch (const std::exception& e) {
        Failure failure;
        failure.className = "std::exception";
        failure.message = e.what();
        return failure;
    } catch (...) {
        Failure failure;
        failure.className = "unknown exception";
        failure.message = "an exception of an unknown type was thrown";
        return failure;
    }
}

}  // namespace Arvant::Net::AvQuorvel::Tools
