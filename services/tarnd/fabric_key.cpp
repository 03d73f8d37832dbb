#include "services/tarnd/fabric_key.h"

#include <exception>

#include "services/tarnd/identity.h"

namespace qv::tarnd {

bool FabricKey::follow(const std::string& path) {
    refusal_.clear();
    try {
        const Key key = path.empty() ? own_ : read_key(path);
        const bool changed = key != key_;
        key_ = key;
        return changed;
    } catch (const std::exception& error) {
        refusal_ = error.what();
        return false;
    }
}

}  // namespace qv::tarnd
