// The identity of this bridge in its probes, from the key file in the state folder.
#pragma once

#include <string>

#include "services/tarnd/prober.h"

namespace qv::tarnd {

// Reads a key. Throws std::runtime_error with the path and the reason: the file must have 32 bytes,
// belong to the user of this process and be accessible to nobody else.
Key read_key(const std::string& path);

// Reads `folder`/key, or makes it, and the folder, at the first start. The bridge's number and the
// source address of its probes follow from the key and the bridge's name, so that they outlive the
// process. The first sequence number is the time since the machine has booted, so that a later
// process counts on. Throws like read_key(). After sodium_init().
Prober::Identity load_identity(const std::string& folder, const std::string& bridge);

}  // namespace qv::tarnd
