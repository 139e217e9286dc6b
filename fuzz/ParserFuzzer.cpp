// A response document through the parser and into the shared-client list, as
// the connection's operations read it. DomException is the expected way to fail.
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string xml(reinterpret_cast<const char*>(data), size);
    SAXToNodeParser parser;
    try {
        XMLNode* root = parser.parseString(xml);
        if (root != nullptr) {
            SharedClientIDs ids;
            ids.parse(*root);
            std::vector<std::string> out;
            ids.getSharedClients(out);
        }
    } catch (const DomException&) {
    }
    return 0;
}
