#include "util/XmlStream.h"

#include "util/XmlText.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

XmlStream::XmlStream() : nextNamespaceNumber(0), declarationsPending(true) {}

bool XmlStream::hasPendingDeclarations() const {
    return declarationsPending;
}

void XmlStream::addNamespaces(std::set<std::string> uris) {
    for (const std::string& uri : uris) {
        addNamespace(uri);
    }
}

bool XmlStream::addNamespace(const std::string& uri) {
    if (namespaces.find(uri) != namespaces.end()) {
        return false;
    }
    const int number = nextNamespaceNumber;
    std::string prefix = "ns" + toString(number);
    ++nextNamespaceNumber;
    namespaces.emplace(uri, prefix);
    return true;
}

std::string XmlStream::getPrefix(const std::string& uri) const {
    auto found = namespaces.find(uri);
    return found == namespaces.end() ? std::string() : found->second;
}

std::string XmlStream::qualifyingPrefix(const std::string& uri, const std::string& name) const {
    if (name.find(':') != std::string::npos) {
        return std::string();  // already qualified by the caller
    }
    const std::string prefix = getPrefix(uri);
    return prefix.empty() ? prefix : prefix + ":";
}

std::string XmlStream::startTag(const std::string& uri, const std::string& name) {
    std::string text = "\n<" + qualifyingPrefix(uri, name) + name;
    if (declarationsPending) {
        for (const auto& binding : namespaces) {
            text += " xmlns:" + binding.second + "=\"" + binding.first + "\"";
        }
        declarationsPending = false;
    }
    return text;
}

std::string XmlStream::attribute(const std::string& name, const std::string& value) const {
    return " " + name + "=\"" + value + "\"";
}

std::string XmlStream::endStartTag(const std::string& /*uri*/, bool empty) const {
    return empty ? "/>" : ">";
}

std::string XmlStream::startElement(
    const std::string& uri, const std::string& name,
    const std::vector<std::pair<std::string, std::string>>& attributes) {
    std::string text = startTag(uri, name);
    for (const auto& nameAndValue : attributes) {
        text += attribute(nameAndValue.first, nameAndValue.second);
    }
    return text + endStartTag(uri, false);
}

std::string XmlStream::endTag(const std::string& uri, const std::string& name) const {
    return "</" + qualifyingPrefix(uri, name) + name + ">";
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
