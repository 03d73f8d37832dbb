#include "services/netconf/agent.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "p_app.pb-c.h"
#include "p_mng.pb-c.h"
#include "services/netconf/log.h"

namespace netconf {
namespace {

using std::chrono::steady_clock;

constexpr const char* kPolicyType = "p_app.lda_nc_policy";
constexpr const char* kAnswerType = "p_mng.ui_operate";
constexpr const char* kLoopEntryType = "p_app.lda_loop_entry";

constexpr std::chrono::seconds kAnswerLimit{2};
constexpr size_t kLongestName = 63;
const std::string kOpenEnd = "; the agent may still do what was asked";

const uint8_t* bytes_of(const std::string& packed) {
    return reinterpret_cast<const uint8_t*>(packed.data());
}

template <typename Message>
using Unpacked = std::unique_ptr<Message, void (*)(Message*)>;

Unpacked<PApp__LdaNcPolicy> unpack_policy(const std::string& packed) {
    return {p_app__lda_nc_policy__unpack(nullptr, packed.size(), bytes_of(packed)),
            [](PApp__LdaNcPolicy* message) {
                p_app__lda_nc_policy__free_unpacked(message, nullptr);
            }};
}

Unpacked<PApp__LdaLoopEntry> unpack_entry(const std::string& packed) {
    return {p_app__lda_loop_entry__unpack(nullptr, packed.size(), bytes_of(packed)),
            [](PApp__LdaLoopEntry* message) {
                p_app__lda_loop_entry__free_unpacked(message, nullptr);
            }};
}

Unpacked<PMng__UiOperate> unpack_answer(const std::string& packed) {
    return {p_mng__ui_operate__unpack(nullptr, packed.size(), bytes_of(packed)),
            [](PMng__UiOperate* message) {
                p_mng__ui_operate__free_unpacked(message, nullptr);
            }};
}

// Accepts names that the model allows and XML can carry.
bool printable(const std::string& name) {
    return !name.empty() && name.size() <= kLongestName &&
           std::all_of(name.begin(), name.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string packed_request(PolicyRequest request, uint32_t policy, std::string publisher,
                           int32_t oid) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    index.publisher = publisher.data();
    index.type = static_cast<int32_t>(request);
    index.oid = oid;
    PMng__UiOperate operation = P_MNG__UI_OPERATE__INIT;
    operation.index = &index;
    operation.src = P_MNG__OPERATE_SRC_T__NETCONF;
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = policy;
    record.rst = &operation;
    std::string packed(p_app__lda_nc_policy__get_packed_size(&record), '\0');
    p_app__lda_nc_policy__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
    return packed;
}

// Never the same twice, even after a restart under the same process number.
int32_t fresh_oid() {
    static int32_t last = static_cast<int32_t>(
        steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1) & 0x3fffffff);
    return ++last;
}

// The result in the answer with this index; nothing for any other notice.
std::optional<int32_t> result_in(const Notice& notice, PolicyRequest request,
                                 const std::string& publisher, int32_t oid) {
    constexpr uint8_t kDeleted = 1;
    const auto answer = unpack_answer(notice.record);
    if (notice.operation == kDeleted || !answer || !answer->index || !answer->rst) {
        return std::nullopt;
    }
    const PMng__UiIndex& index = *answer->index;
    const bool ours = index.publisher == publisher && index.type == static_cast<int32_t>(request) &&
                      index.oid == oid;
    return ours ? std::optional(answer->rst->result) : std::nullopt;
}

}  // namespace

std::optional<uint32_t> published_policy(Database& database) {
    const auto packed = database.get(kConfigurationDatabase, std::string(kPolicyType) + "/");
    if (!packed) {
        return std::nullopt;
    }
    const auto record = unpack_policy(*packed);
    if (!record) {
        throw DatabaseLost("the agent's policy record does not unpack");
    }
    return record->loop_policy_cli;
}

std::vector<LoopedPort> looped_ports(Database& database) {
    std::vector<LoopedPort> ports;
    for (const std::string& packed : database.values(kApplicationDatabase, kLoopEntryType)) {
        const auto entry = unpack_entry(packed);
        if (!entry || !entry->index || !printable(entry->index->name)) {
            log_line(LOG_WARNING, "an invalid loop entry of the object database is skipped");
            continue;
        }
        ports.push_back({entry->index->name, entry->policy, entry->src_port != 0});
    }
    std::sort(ports.begin(), ports.end(),
              [](const LoopedPort& a, const LoopedPort& b) { return a.name < b.name; });
    return ports;
}

void request_policy(const qv::RedisServer& server, PolicyRequest request, uint32_t policy,
                    Deadline deadline) {
    const std::string publisher = "netconf-" + std::to_string(getpid());
    const int32_t oid = fresh_oid();
    Database database(server, deadline);
    if (database.listeners(kLocalDatabase, kPolicyType) == 0) {
        throw RequestFailed("the loop-detection agent is not running; nothing was changed");
    }
    Listener answers(server, kLocalDatabase, kAnswerType, deadline);
    const auto usual = steady_clock::now() + kAnswerLimit;
    std::optional<int32_t> result;
    try {
        if (database.set(kLocalDatabase, kPolicyType,
                         packed_request(request, policy, publisher, oid)) == 0) {
            throw RequestFailed("the loop-detection agent is not running; nothing was changed");
        }
        while (!result) {
            const auto notice = answers.wait(std::min(usual, deadline));
            if (!notice) {
                throw RequestFailed(std::string("the loop-detection agent did not answer ") +
                                    (usual <= deadline ? "within 2 s" : "in time") + kOpenEnd);
            }
            result = result_in(*notice, request, publisher, oid);
        }
    } catch (const DatabaseLost& lost) {
        throw RequestFailed("the object database went away: " + std::string(lost.what()) +
                            kOpenEnd);
    }
    if (*result != 0) {
        throw RequestFailed("the loop-detection agent refused the request (result " +
                            std::to_string(*result) + "); nothing was changed");
    }
}

}  // namespace netconf
