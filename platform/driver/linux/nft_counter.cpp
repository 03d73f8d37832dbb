#include "platform/driver/linux/nft_counter.h"

#include <memory>

#include <libnftnl/object.h>

namespace qv {
namespace {

struct FreeObject {
    void operator()(nftnl_obj* object) const { nftnl_obj_free(object); }
};

}  // namespace

std::optional<NamedCounter> parse_counter(const nlmsghdr* header) {
    const std::unique_ptr<nftnl_obj, FreeObject> object(nftnl_obj_alloc());
    if (!object || nftnl_obj_nlmsg_parse(header, object.get()) < 0 ||
        !nftnl_obj_is_set(object.get(), NFTNL_OBJ_NAME)) {
        return std::nullopt;
    }
    return NamedCounter{nftnl_obj_get_str(object.get(), NFTNL_OBJ_NAME),
                        {nftnl_obj_get_u64(object.get(), NFTNL_OBJ_CTR_PKTS),
                         nftnl_obj_get_u64(object.get(), NFTNL_OBJ_CTR_BYTES)}};
}

}  // namespace qv
