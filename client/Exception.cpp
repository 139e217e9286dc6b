#include "client/Exception.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {

Exception::Exception(const std::string& message) : type(0), message(message) {}
Exception::Exception(int32_t type, const std::string& message) : type(type), message(message) {}
Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;  // self-safe: string handles it
Exception::~Exception() = default;

const std::string& Exception::getMessage() const {
    return message;
}
int32_t Exception::getType() const {
    return type;
}

// The derived classes add no data: each forwards to its base.
#define AVQVL_DEFINE_EXCEPTION(Class, Base)                                         \
    Class::Class(const std::string& message) : Base(message) {}                     \
    Class::Class(int32_t type, const std::string& message) : Base(type, message) {} \
    Class::Class(const Class& other) = default;                                     \
    Class& Class::operator=(const Class& other) = default;                          \
    Class::~Class() = default;

AVQVL_DEFINE_EXCEPTION(AvQVLException, Exception)
AVQVL_DEFINE_EXCEPTION(AvQVLConnectionException, AvQVLException)
AVQVL_DEFINE_EXCEPTION(AvQVLProtocolException, AvQVLException)
AVQVL_DEFINE_EXCEPTION(AvQVLRuntimeException, AvQVLException)
AVQVL_DEFINE_EXCEPTION(AvQVLUnrecognisedException, AvQVLException)

#undef AVQVL_DEFINE_EXCEPTION

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
