/// @file
/// The client's failures: a plain value type with a type code and a message,
/// thrown by value and caught by reference to a base. Type codes: 0 for failures
/// that carry only a message (every transport failure), -1 for a failed status
/// check, -2 for a client that is not registered.
#ifndef AVQVL_CLIENT_EXCEPTION_H
#define AVQVL_CLIENT_EXCEPTION_H

#include <cstdint>
#include <string>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {

/// An exception owns a copy of its message; nothing here throws but
/// std::bad_alloc while copying it. Exceptions are plain values: distinct ones
/// may be used on distinct threads, and a const one read from several at once.
class AVQVL_EXPORT Exception {
public:
    /// A failure with `message` and type code 0.
    Exception(const std::string& message);
    /// A failure with a type code and a message.
    Exception(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    Exception(const Exception& other);
    /// Copies the type code and the message.
    Exception& operator=(const Exception& other);
    /// Frees the message.
    ~Exception();

    /// Valid while this exception lives.
    const std::string& getMessage() const;
    /// The type code: 0, -1 or -2 (see the top of this header).
    int32_t getType() const;

private:
    int32_t type;
    std::string message;
};

/// Common base of every service failure; never thrown by the library itself.
class AVQVL_EXPORT AvQVLException : public Exception {
public:
    /// A failure with `message` and type code 0.
    AvQVLException(const std::string& message);
    /// A failure with a type code and a message.
    AvQVLException(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    AvQVLException(const AvQVLException& other);
    /// Copies the type code and the message.
    AvQVLException& operator=(const AvQVLException& other);
    /// Frees the message.
    ~AvQVLException();
};

/// The service cannot be reached, or the status check failed (type -1).
class AVQVL_EXPORT AvQVLConnectionException : public AvQVLException {
public:
    /// A failure with `message` and type code 0.
    AvQVLConnectionException(const std::string& message);
    /// A failure with a type code and a message.
    AvQVLConnectionException(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    AvQVLConnectionException(const AvQVLConnectionException& other);
    /// Copies the type code and the message.
    AvQVLConnectionException& operator=(const AvQVLConnectionException& other);
    /// Frees the message.
    ~AvQVLConnectionException();
};

/// The exchange broke the protocol, or the client is not registered (type -2).
class AVQVL_EXPORT AvQVLProtocolException : public AvQVLException {
public:
    /// A failure with `message` and type code 0.
    AvQVLProtocolException(const std::string& message);
    /// A failure with a type code and a message.
    AvQVLProtocolException(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    AvQVLProtocolException(const AvQVLProtocolException& other);
    /// Copies the type code and the message.
    AvQVLProtocolException& operator=(const AvQVLProtocolException& other);
    /// Frees the message.
    ~AvQVLProtocolException();
};

/// The service or the library failed while running the exchange.
class AVQVL_EXPORT AvQVLRuntimeException : public AvQVLException {
public:
    /// A failure with `message` and type code 0.
    AvQVLRuntimeException(const std::string& message = "");
    /// A failure with a type code and a message.
    AvQVLRuntimeException(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    AvQVLRuntimeException(const AvQVLRuntimeException& other);
    /// Copies the type code and the message.
    AvQVLRuntimeException& operator=(const AvQVLRuntimeException& other);
    /// Frees the message.
    ~AvQVLRuntimeException();
};

/// A transport result code the library does not know.
class AVQVL_EXPORT AvQVLUnrecognisedException : public AvQVLException {
public:
    /// A failure with `message` and type code 0.
    AvQVLUnrecognisedException(const std::string& message);
    /// A failure with a type code and a message.
    AvQVLUnrecognisedException(int32_t type, const std::string& message);
    /// Copies the type code and the message.
    AvQVLUnrecognisedException(const AvQVLUnrecognisedException& other);
    /// Copies the type code and the message.
    AvQVLUnrecognisedException& operator=(const AvQVLUnrecognisedException& other);
    /// Frees the message.
    ~AvQVLUnrecognisedException();
};

/// Text could not be converted between the default code page and UTF-8. Not part
/// of the exported interface: applications catch it as AvQVLException.
class Utf8ConversionException : public AvQVLException {
public:
    /// A failure with `message` and type code 0.
    Utf8ConversionException(const std::string& message) : AvQVLException(message) {}
    /// A failure with a type code and a message.
    Utf8ConversionException(int32_t type, const std::string& message)
        : AvQVLException(type, message) {}
    /// Copies the type code and the message.
    Utf8ConversionException(const Utf8ConversionException& other) = default;
    /// Copies the type code and the message.
    Utf8ConversionException& operator=(const Utf8ConversionException& other) = default;
    ~Utf8ConversionException() = default;
};

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_CLIENT_EXCEPTION_H
