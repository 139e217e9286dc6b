#include "util/XmlText.h"

#include <limits>
#include <locale>
#include <sstream>
#include <type_traits>

#include "protocol/XmlEscape.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

namespace {

using Protocol::kXmlReferences;
using Protocol::XmlReference;

// True when `name` occurs in `text` at `pos`; the end of the text counts as a
// difference, so nothing past it is read.
bool matchesAt(const std::string& text, std::string::size_type pos, const char* name) {
    for (; *name != '\0'; ++name, ++pos) {
        if (pos >= text.size() || text[pos] != *name) {
            return false;
        }
    }
    return true;
}

// Every conversion below keeps its own classic locale, built on first use. A
// function-local static is initialised exactly once even when the first calls
// come from several threads at once, and is only read afterwards.
std::locale makeClassicLocale() {
    return std::locale("C");
}

std::string formatFloating(double value, const std::locale& classic) {
    std::ostringstream stream;
    stream.imbue(classic);
    stream.precision(17);
    stream.setf(std::ios_base::scientific, std::ios_base::floatfield);
    stream << value;
    return stream.str();
}

// Reads the longest numeric prefix. Text that holds no number at its start
// gives zero, and so does an integer the type cannot hold. A floating-point
// number beyond the type's range gives the largest finite value with its sign,
// which is what the extraction stores when it overflows.
template <typename T>
T parseNumber(const std::string& text, const std::locale& classic) {
    if (text.empty()) {
        return T();
    }
    std::istringstream stream(text);
    stream.imbue(classic);
    T value = T();
    if (stream >> value) {
        return value;
    }
    const T largest = std::numeric_limits<T>::max();
    if (std::is_floating_point<T>::value && (value == largest || value == -largest)) {
        return value;
    }
    return T();
}

}  // namespace

std::string escapeXml(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    // One pass over the input: inserted references are never looked at again.
    for (char c : text) {
        const char* name = Protocol::xmlReferenceName(c);
        if (name == nullptr) {
            result += c;
        } else {
            result += '&';
            result += name;
        }
    }
    return result;
}

std::string unescapeXml(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    // One pass over the input: a replacement is never read again as the start
    // of a reference, and an unknown or incomplete reference is kept as it is.
    std::string::size_type i = 0;
    while (i < text.size()) {
        char c = text[i];
        std::string::size_type consumed = 1;
        if (c == '&') {
            for (const XmlReference& reference : kXmlReferences) {
                if (matchesAt(text, i + 1, reference.name)) {
                    c = reference.character;
                    consumed += std::char_traits<char>::length(reference.name);
                    break;
                }
            }
        }
        result += c;
        i += consumed;
    }
    return result;
}

std::string toString(const bool& value) {
    return value ? "1" : "0";
}

std::string toString(const std::string& value) {
    return value;
}

std::string toString(const double& value) {
    static const std::locale classic = makeClassicLocale();
    return formatFloating(value, classic);
}

std::string toString(const float& value) {
    static const std::locale classic = makeClassicLocale();
    return formatFloating(static_cast<double>(value), classic);
}

// Integers are pinned to the classic locale as well: a global locale with digit
// grouping must never put separators into integer text, and so never into the
// namespace prefixes the writer stream numbers with it.
std::string toString(const int& value) {
    static const std::locale classic = makeClassicLocale();
    std::ostringstream stream;
    stream.imbue(classic);
    stream << value;
    return stream.str();
}

bool parseBool(const std::string& text) {
    return text == "true" || text == "1";
}

double parseDouble(const std::string& text) {
    static const std::locale classic = makeClassicLocale();
    return parseNumber<double>(text, classic);
}

float parseFloat(const std::string& text) {
    static const std::locale classic = makeClassicLocale();
    return parseNumber<float>(text, classic);
}

// Classic locale for the same reason as toString(int): grouped text from a
// global locale is neither produced nor accepted.
int parseInt(const std::string& text) {
    static const std::locale classic = makeClassicLocale();
    return parseNumber<int>(text, classic);
}

// Works on raw text and assumes a well-formed document. Whatever it cannot
// settle -- no "<", no root after the declaration, no blank or an early ">" in
// the root start tag, no matching declaration, an unterminated URI -- gives "".
std::string getRootNamespace(const std::string& xml) {
    const std::string::size_type npos = std::string::npos;
    std::string::size_type open = xml.find('<');
    if (open == npos) {
        return "";
    }
    if (xml.compare(open, 5, "<?xml") == 0) {
        open = xml.find('<', open + 1);
        if (open == npos) {
            return "";
        }
    }
    const std::string::size_type nameStart = open + 1;
    // A missing character is farther than any found one: npos is the largest.
    const std::string::size_type close = xml.find('>', nameStart);
    const std::string::size_type blank = xml.find(' ', nameStart);
    if (blank == npos || close < blank) {
        return "";
    }
    const std::string name = xml.substr(nameStart, blank - nameStart);
    const std::string::size_type colon = name.find(':');
    const std::string pattern =
        colon == npos ? std::string("xmlns=\"") : "xmlns:" + name.substr(0, colon) + "=\"";
    const std::string::size_type found = xml.find(pattern, nameStart);
    if (found == npos) {
        return "";
    }
    const std::string::size_type uriStart = found + pattern.size();
    const std::string::size_type uriEnd = xml.find('"', uriStart);
    if (uriEnd == npos) {
        return "";
    }
    return xml.substr(uriStart, uriEnd - uriStart);
}

namespace {

// The prefix declared for the URI found at `uriPos`, read back from the "=" two
// bytes before it to the nearest preceding "xmlns". False when the URI has no
// room for `="` before it or no "xmlns" precedes it.
bool findDeclaredPrefix(const std::string& xml, std::string::size_type uriPos,
                        std::string& prefix) {
    if (uriPos < 2 + 5) {
        return false;
    }
    const std::string::size_type equals = uriPos - 2;
    for (std::string::size_type at = equals - 5;; --at) {
        if (xml.compare(at, 5, "xmlns") == 0) {
            const std::string::size_type start =
                xml.compare(at, 6, "xmlns:") == 0 ? at + 6 : at + 5;
            prefix = start < equals ? xml.substr(start, equals - start) : std::string();
            return true;
        }
        if (at == 0) {
            return false;
        }
    }
}

}  // namespace

// Unsettled cases: a name without "^" is a local name with no URI; an empty URI
// and a URI that no "xmlns" declaration precedes both search the tag without a
// prefix; a tag that does not occur gives std::string::npos.
std::uint64_t findTagPosition(const std::string& xml, const std::string& qualifiedName,
                              bool opening) {
    const std::string::size_type npos = std::string::npos;
    const std::string::size_type caret = qualifiedName.find('^');
    const std::string uri = caret == npos ? std::string() : qualifiedName.substr(0, caret);
    const std::string localName = caret == npos ? qualifiedName : qualifiedName.substr(caret + 1);

    std::string tag = opening ? "<" : "</";
    std::string prefix;
    const std::string::size_type uriPos = uri.empty() ? npos : xml.find(uri);
    if (uriPos != npos && findDeclaredPrefix(xml, uriPos, prefix) && !prefix.empty()) {
        tag += prefix + ":";
    }
    tag += localName;

    const std::string::size_type position = xml.find(tag);
    if (position == npos) {
        return npos;
    }
    return opening ? position + tag.size() : position;
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
