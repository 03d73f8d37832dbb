// What a common client does a little differently from the standard, put right before the request is
// parsed.
#pragma once

#include <string>

namespace netconf {

// - RFC 5277 has <filter> of <create-subscription> in the namespace of notifications. ncclient
// sends
//   it in that of the base protocol, where nothing of this name is known. Such a filter is moved.
// - RFC 6241 has the attribute "operation" of an edit in the namespace of the base protocol. Many
//   write it without one; the parser would drop it silently, and a delete would become a merge. It
//   is taken as it is meant.
//
// Every other message, also one that is no XML, stays as it is. Any thread.
void adapt_message(std::string& text);

}  // namespace netconf
