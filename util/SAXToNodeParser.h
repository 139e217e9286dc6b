/// @file
/// Builds an XMLNode tree from one document with the XML library's SAX2 reader.
/// The XML library must be initialised for the whole parse. The returned root
/// stays owned by the parser until it is destroyed or parses again.
#ifndef AVQVL_UTIL_SAXTONODEPARSER_H
#define AVQVL_UTIL_SAXTONODEPARSER_H

#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "util/Export.h"
#include "util/XMLNode.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

class ReaderMemory;

/// The deepest nesting of elements a document may have (the root is level 1).
/// A deeper one ends in DomException naming the bound, as soon as its first
/// element past the bound starts. The bound is what keeps a parse's time in
/// proportion to the document's size: the XML library resolves each element's
/// namespace by looking through every element open around it, so an element
/// costs up to kMaxElementDepth steps.
constexpr std::size_t kMaxElementDepth = 10000;

/// Builds the tree of one document at a time, and owns it. Parses of distinct
/// parsers may run on distinct threads at once; one parser is used by one
/// thread at a time.
class AVQVL_EXPORT SAXToNodeParser : public xercesc::DefaultHandler {
public:
    SAXToNodeParser();
    ~SAXToNodeParser() override;
    SAXToNodeParser(const SAXToNodeParser&) = delete;
    SAXToNodeParser& operator=(const SAXToNodeParser&) = delete;

    /// Throw DomException on an error or fatal error of the reader.
    XMLNode* parseString(const std::string& xml);
    /// As parseString, for the document in the file `name`.
    XMLNode* parseFile(const std::string& name);
    /// The root; creates an empty one when there is none.
    XMLNode* getRoot();
    /// Process-wide: replace the SUB byte 0x1A by "?" in text and attribute values.
    static void setReplaceSubChars(bool replace);

    // Callbacks of the XML library's reader during a parse; not for applications.
    /// Appends character data to the current element.
    void characters(const XMLCh* chars, const XMLSize_t length) override;
    /// Nothing to do at the end of the document.
    void endDocument() override;
    /// Closes the current element.
    void endElement(const XMLCh* uri, const XMLCh* localname, const XMLCh* qname) override;
    /// Ignores whitespace the grammar allows.
    void ignorableWhitespace(const XMLCh* chars, const XMLSize_t length) override;
    /// Ignores processing instructions.
    void processingInstruction(const XMLCh* target, const XMLCh* data) override;
    /// Nothing to do at the start: the tree is reset before each parse.
    void startDocument() override;
    /// Opens a child of the current element, with its attributes.
    void startElement(const XMLCh* uri, const XMLCh* localname, const XMLCh* qname,
                      const xercesc::Attributes& attrs) override;
    /// Ignores the reader's warnings.
    void warning(const xercesc::SAXParseException& exc) override;
    /// Throws DomException naming the error and its place.
    void error(const xercesc::SAXParseException& exc) override;
    /// Throws DomException naming the error and its place.
    void fatalError(const xercesc::SAXParseException& exc) override;

private:
    // A response may declare entities of its own. Their replacement texts are
    // bounded so that, with the reader's cap on the number of expansions, no
    // document can expand beyond a bounded size (see SAXToNodeParser.cpp).
    void internalEntityDecl(const XMLCh* name, const XMLCh* value) override;
    // Declared attribute defaults are copied into every element of their type,
    // so what they add to the tree is bounded as well.
    void attributeDecl(const XMLCh* eName, const XMLCh* aName, const XMLCh* type, const XMLCh* mode,
                       const XMLCh* value) override;
    void countDeclaredDefaults(const XMLCh* qname);
    // Creates the reader of one parse, refusing everything external.
    void createReader();

    // Converts text of the XML library to the local code page; with replace set,
    // every SUB byte (0x1A, what the converter leaves for an unmappable character)
    // becomes "?". Pure ASCII text is copied directly when asciiKept says the
    // library's converter keeps ASCII as it is; the result is the same.
    std::string transcodeToString(const XMLCh* text, bool replace) const;
    // The library's own conversion, which transcodeToString stands in for.
    static std::string transcodeThroughLibrary(const XMLCh* text, bool replace);
    // Whether the XML library's local code-page converter turns every ASCII
    // character into the byte of the same value. Asked once per parse.
    static bool libraryKeepsAscii();
    void startParse();
    void endParse();
    void discardTree();
    // Shared by error and fatalError: composes the text and throws DomException.
    [[noreturn]] void throwParseError(const char* prefix,
                                      const xercesc::SAXParseException& exc) const;

    // Read by every parse on every thread; only setReplaceSubChars writes it.
    static std::atomic<bool> replaceSubChars;

    XMLNode* root;
    XMLNode* current;
    xercesc::SAX2XMLReader* reader;
    // What the reader allocates from; made with the first reader and outlives each.
    std::unique_ptr<ReaderMemory> readerMemory;
    std::string documentName;
    // Set at the start of each parse from libraryKeepsAscii(); false outside one.
    bool asciiKept;
    bool parsing;
    // Elements open in the tree being built: the length of the chain from
    // current up to the root.
    std::size_t depth;
    // The namespace URI of the last start tag and its conversion. The reader hands
    // out each URI from its string pool, at one address for the whole parse.
    const XMLCh* lastUri;
    std::string lastUriText;
    // Characters of declared attribute defaults per element type (qualified
    // name) in the current parse, and how many the elements so far may have had.
    std::map<std::basic_string<XMLCh>, XMLSize_t> declaredDefaults;
    XMLSize_t defaultedCharacters;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_SAXTONODEPARSER_H
