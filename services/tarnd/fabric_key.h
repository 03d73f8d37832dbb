// The key of the probes: this switch's own, or one that all switches share, from a file.
#pragma once

#include <string>

#include "services/tarnd/frame.h"

namespace qv::tarnd {

// Main thread only.
class FabricKey {
 public:
    explicit FabricKey(const Key& own) : own_(own), key_(own) {}

    // Reads the file again; an empty path means the own key. True when the key has changed. A file
    // that read_key() refuses changes nothing.
    bool follow(const std::string& path);
    const Key& key() const { return key_; }
    // Why the file was refused; empty when it was not.
    const std::string& refusal() const { return refusal_; }

 private:
    const Key own_;
    Key key_;
    std::string refusal_;
};

}  // namespace qv::tarnd
