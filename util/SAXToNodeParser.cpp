#include "util/SAXToNodeParser.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <cstring>
#include <iostream>
#include <memory>
#include <utility>

#include "util/internal/ReaderMemory.h"
#include "util/internal/ReadingSettings.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

using xercesc::XMLPlatformUtils;
using xercesc::XMLString;

namespace {
const char* const kStringBufferId = "From-String";
const char* const kStringDocumentName = "From String";

// Bounds on what a document may expand to through entities it declares itself:
// at most this many expansions, each at most this many characters of replacement
// text, so no document grows beyond about ten million characters however its
// entities nest or repeat. Attribute defaults it declares may add as much again
// to its elements. Documents without a DOCTYPE never reach any of these.
const XMLSize_t kMaxEntityExpansions = 10000;
const XMLSize_t kMaxEntityValueLength = 1024;
const XMLSize_t kMaxDefaultedCharacters = kMaxEntityExpansions * kMaxEntityValueLength;

// Shared by every reader of the process; readers only read it.
xercesc::SecurityManager& entityExpansionGuard() {
    static xercesc::SecurityManager* const guard = [] {
        static xercesc::SecurityManager manager;
        manager.setEntityExpansionLimit(kMaxEntityExpansions);
        return &manager;
    }();
    return *guard;
}

std::atomic<unsigned long> settingChanges{0};
}  // namespace

unsigned long subCharSettingChanges() {
    return settingChanges.load();
}

std::atomic<bool> SAXToNodeParser::replaceSubChars{false};

SAXToNodeParser::SAXToNodeParser()
    : root(nullptr),
      current(nullptr),
      reader(nullptr),
      asciiKept(false),
      parsing(false),
      depth(0),
      lastUri(nullptr),
      defaultedCharacters(0) {}

SAXToNodeParser::~SAXToNodeParser() {
    delete reader;
    delete root;
}

void SAXToNodeParser::setReplaceSubChars(bool replace) {
    replaceSubChars.store(replace);
    ++settingChanges;
}

std::string SAXToNodeParser::transcodeThroughLibrary(const XMLCh* text, bool replace) {
    if (text == nullptr) {
        return std::string();
    }
    char* converted = XMLString::transcode(text, XMLPlatformUtils::fgMemoryManager);
    if (converted == nullptr) {
        return std::string();
    }
    if (replace) {
        for (char* p = converted; *p != '\0'; ++p) {
            if (*p == '\x1A') {
                *p = '?';
            }
        }
    }
    std::string result(converted);
    XMLString::release(&converted, XMLPlatformUtils::fgMemoryManager);
    return result;
}

// Every name and text of a document passes through here, and nearly all of them
// are ASCII. Where the library's converter keeps ASCII as it is, such text is
// copied straight into the result, which is the library's result byte for byte:
// the same bytes, and the same SUB replacement since 0x1A is ASCII too.
std::string SAXToNodeParser::transcodeToString(const XMLCh* text, bool replace) const {
    if (text == nullptr || !asciiKept) {
        return transcodeThroughLibrary(text, replace);
    }
    const XMLCh* end = text;
    while (*end != 0 && *end < 0x80) {
        ++end;
    }
    if (*end != 0) {
        return transcodeThroughLibrary(text, replace);
    }
    const std::size_t length = static_cast<std::size_t>(end - text);
    std::string result(length, '\0');
    char* const out = &result[0];
    for (std::size_t i = 0; i < length; ++i) {
        out[i] = static_cast<char>(text[i]);  // each character becomes the byte of its value
    }
    if (replace) {
        for (std::size_t i = 0; i < length; ++i) {
            if (out[i] == '\x1A') {
                out[i] = '?';
            }
        }
    }
    return result;
}

// The library opens its converter when it is initialised and keeps it until it is
// terminated, and it stays initialised for the whole of a parse, so one probe at
// the start of a parse holds for all of it. The probe goes through the library's
// own conversion: the whole ASCII range, converted in one piece, must come back
// as the same bytes. Every converter that passes (UTF-8, the ISO-8859 and Windows
// code pages, ASCII itself, ...) converts each ASCII character on its own, so
// any ASCII text comes back unchanged; EBCDIC, UTF-16 and UTF-32, UTF-7 and the
// like fail it and keep the library's path. Probing anew for each parse keeps it
// right when the library is terminated and started again with another code page.
bool SAXToNodeParser::libraryKeepsAscii() {
    XMLCh probe[0x80];
    char expected[0x80];
    for (int c = 1; c < 0x80; ++c) {
        probe[c - 1] = static_cast<XMLCh>(c);
        expected[c - 1] = static_cast<char>(c);
    }
    probe[0x7F] = 0;
    expected[0x7F] = '\0';
    char* converted = XMLString::transcode(probe, XMLPlatformUtils::fgMemoryManager);
    if (converted == nullptr) {
        return false;
    }
    const bool kept = std::strcmp(converted, expected) == 0;
    XMLString::release(&converted, XMLPlatformUtils::fgMemoryManager);
    return kept;
}

void SAXToNodeParser::discardTree() {
    delete root;
    root = nullptr;
    current = nullptr;
    depth = 0;
}

// The reader runs with the XML library's defaults except where those let a
// response reach beyond itself: nothing external is loaded (no external DTD,
// external entity or schema, whether a local file or a network resource; each
// such reference ends the parse with a fatal error, or for schemas is ignored),
// and entity expansion is bounded (kMaxEntityExpansions, internalEntityDecl), as
// is the text that declared attribute defaults add (attributeDecl).
// A document without a DOCTYPE or schema location parses exactly as with the
// defaults.
void SAXToNodeParser::createReader() {
    delete reader;
    reader = nullptr;
    if (readerMemory == nullptr) {
        readerMemory.reset(new ReaderMemory());
    } else {
        readerMemory->reset();
    }
    reader = xercesc::XMLReaderFactory::createXMLReader(readerMemory.get(), 0);
    reader->setFeature(xercesc::XMLUni::fgXercesDisableDefaultEntityResolution, true);
    reader->setFeature(xercesc::XMLUni::fgXercesLoadSchema, false);
    reader->setProperty(xercesc::XMLUni::fgXercesSecurityManager, &entityExpansionGuard());
    reader->setContentHandler(this);
    reader->setErrorHandler(this);
    reader->setDeclarationHandler(this);
}

void SAXToNodeParser::startParse() {
    discardTree();
    createReader();
    asciiKept = libraryKeepsAscii();
    parsing = true;
}

// What holds only during a parse is dropped on every way out of it, so that
// callbacks driven from outside a parse never see it.
void SAXToNodeParser::endParse() {
    parsing = false;
    asciiKept = false;
    lastUri = nullptr;
    declaredDefaults.clear();
    defaultedCharacters = 0;
}

XMLNode* SAXToNodeParser::parseString(const std::string& xml) {
    startParse();
    documentName = kStringDocumentName;
    try {
        // The terminating NUL goes to the reader as the last byte of the buffer.
        const XMLSize_t byteCount = std::strlen(xml.c_str()) + 1;
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(xml.c_str()), byteCount,
                                          kStringBufferId, false,
                                          XMLPlatformUtils::fgMemoryManager);
        reader->parse(source);
    } catch (...) {
        endParse();
        throw;
    }
    endParse();
    return root;
}

XMLNode* SAXToNodeParser::parseFile(const std::string& name) {
    startParse();
    documentName = name;
    try {
        reader->parse(name.c_str());
    } catch (...) {
        endParse();
        throw;
    }
    endParse();
    return root;
}

XMLNode* SAXToNodeParser::getRoot() {
    if (root == nullptr) {
        root = new XMLNode();
    }
    return root;
}

void SAXToNodeParser::characters(const XMLCh* chars, const XMLSize_t /*length*/) {
    if (current == nullptr) {
        return;  // nowhere to keep it; the conversion has no other effect
    }
    if (current->text.empty()) {
        current->text = transcodeToString(chars, replaceSubChars);
    } else {
        current->text += transcodeToString(chars, replaceSubChars);
    }
}

void SAXToNodeParser::endDocument() {}

void SAXToNodeParser::endElement(const XMLCh* /*uri*/, const XMLCh* /*localname*/,
                                 const XMLCh* /*qname*/) {
    if (current != nullptr) {
        current = current->parent;
        --depth;
    } else {
        std::cerr << "End element called when not inside one!" << std::endl;
    }
}

void SAXToNodeParser::ignorableWhitespace(const XMLCh* /*chars*/, const XMLSize_t /*length*/) {}

void SAXToNodeParser::processingInstruction(const XMLCh* /*target*/, const XMLCh* /*data*/) {}

void SAXToNodeParser::startDocument() {}

void SAXToNodeParser::startElement(const XMLCh* uri, const XMLCh* localname, const XMLCh* qname,
                                   const xercesc::Attributes& attrs) {
    if (!declaredDefaults.empty()) {
        countDeclaredDefaults(qname);
    }
    std::string name = transcodeToString(localname, false);
    // A second top-level element: the reader reports it as a fatal error first, so
    // this only happens when a caller drives the callbacks itself. There is no open
    // element to append to, and replacing the root would lose the tree read so far,
    // so the event is refused; the tree stays with the parser as it was.
    if (root != nullptr && current == nullptr) {
        throw DomException("Start tag of element '" + name +
                           "' arrived after the root element was closed");
    }

    if (depth == kMaxElementDepth) {
        throw DomException("Element '" + name + "' of XML Document '" + documentName +
                           "' is nested more than " + std::to_string(kMaxElementDepth) +
                           " levels deep.\n");
    }

    std::unique_ptr<XMLNode> node(new XMLNode());
    node->localName = std::move(name);
    // Nearly every element of a document shares its namespace with the one before.
    if (!parsing || uri == nullptr || uri != lastUri) {
        lastUriText = transcodeToString(uri, false);
        lastUri = uri;
    }
    node->uri = lastUriText;
    const XMLSize_t count = attrs.getLength();
    for (XMLSize_t i = 0; i < count; ++i) {
        std::string value = transcodeToString(attrs.getValue(i), replaceSubChars);
        node->attributes[transcodeToString(attrs.getLocalName(i), false)] = std::move(value);
    }

    if (root == nullptr) {
        root = node.release();
        current = root;
    } else {
        node->parent = current;
        current->children.push_back(node.get());
        current = node.release();
    }
    ++depth;
}

void SAXToNodeParser::internalEntityDecl(const XMLCh* name, const XMLCh* value) {
    const XMLSize_t length = value != nullptr ? XMLString::stringLen(value) : 0;
    if (length > kMaxEntityValueLength) {
        throw DomException("Entity '" + transcodeToString(name, true) + "' of XML Document '" +
                           documentName + "' has " + std::to_string(length) +
                           " characters of replacement text; at most " +
                           std::to_string(kMaxEntityValueLength) + " are allowed.\n");
    }
}

// A declared default goes into every element of its type that leaves the
// attribute out, which lets a short document fill memory with a few long
// defaults and many empty elements. Each element is charged with every default
// declared for its type, given or not, so the count never falls short.
void SAXToNodeParser::attributeDecl(const XMLCh* eName, const XMLCh* /*aName*/,
                                    const XMLCh* /*type*/, const XMLCh* /*mode*/,
                                    const XMLCh* value) {
    if (eName != nullptr && value != nullptr) {
        declaredDefaults[eName] += XMLString::stringLen(value);
    }
}

void SAXToNodeParser::countDeclaredDefaults(const XMLCh* qname) {
    if (qname == nullptr) {
        return;
    }
    auto found = declaredDefaults.find(qname);
    if (found == declaredDefaults.end()) {
        return;
    }
    defaultedCharacters += found->second;
    if (defaultedCharacters > kMaxDefaultedCharacters) {
        throw DomException("Attribute defaults of XML Document '" + documentName +
                           "' add more than " + std::to_string(kMaxDefaultedCharacters) +
                           " characters to its elements.\n");
    }
}

void SAXToNodeParser::warning(const xercesc::SAXParseException& /*exc*/) {}

void SAXToNodeParser::error(const xercesc::SAXParseException& exc) {
    throwParseError("Error: parsing: ", exc);
}

void SAXToNodeParser::fatalError(const xercesc::SAXParseException& exc) {
    throwParseError("Fatal Error: parsing: ", exc);
}

void SAXToNodeParser::throwParseError(const char* prefix,
                                      const xercesc::SAXParseException& exc) const {
    const std::string systemId = transcodeToString(exc.getSystemId(), true);
    std::string text;
    if (systemId.empty()) {
        text = "XML Document '" + documentName + "' does not exist.\n";
    } else {
        text = prefix + systemId + ": line " + std::to_string(exc.getLineNumber()) + ", char " +
               std::to_string(exc.getColumnNumber()) + "\n";
        const std::string message = transcodeToString(exc.getMessage(), true);
        if (!message.empty()) {
            text += "Message: " + message + "\n";
        }
    }
    throw DomException(text);
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
