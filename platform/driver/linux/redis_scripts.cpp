#include "platform/driver/linux/redis_scripts.h"

namespace qv {
namespace {

using Type = RedisReply::Type;

// Whether `part` consists of pairs of a text and something of the type `second`.
bool is_pairs(const RedisReply& part, Type second) {
    bool sound = part.is(Type::kArray) && part.elements.size() % 2 == 0;
    for (size_t n = 0; sound && n < part.elements.size(); n++) {
        sound = part.elements[n].is(n % 2 == 0 ? Type::kString : second);
    }
    return sound;
}

bool is_list(const RedisReply& part) {
    bool sound = part.is(Type::kArray);
    for (size_t n = 0; sound && n < part.elements.size(); n++) {
        sound = part.elements[n].is(Type::kString);
    }
    return sound;
}

}  // namespace

bool is_scan_page(const RedisReply& reply) {
    return reply.elements.size() == 4 && reply.elements[0].is(Type::kString) &&
           is_pairs(reply.elements[1], Type::kString) && is_list(reply.elements[2]) &&
           is_pairs(reply.elements[3], Type::kInteger);
}

}  // namespace qv
