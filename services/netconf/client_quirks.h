// Corrects requests of common clients that deviate from the standard, before they are parsed.
#pragma once

#include <string>

namespace netconf {

// RFC 5277 has <filter> of <create-subscription> in the namespace of notifications. ncclient sends
// it in that of the base protocol, which has nothing of this name. Such a filter is moved.
//
// RFC 6241 has the attribute "operation" of an edit in the namespace of the base protocol. Many
// clients write it without a namespace; the parser would drop it silently, and a delete would
// become a merge. Such an attribute is given the namespace.
//
// Every other message stays unchanged, even one that is not XML. Any thread.
void adapt_message(std::string& text);

}  // namespace netconf
