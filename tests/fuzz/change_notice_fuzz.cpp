// Records of other programs in the object database: notices, valid or not, and stored records that
// a scan finds. They go through the client to the agent's own handlers.
//
// The first byte of the input selects the meaning of the rest.
#include "lda_main.h"
#include "lda_msg.h"
#include "tests/fuzz/agent.h"

using namespace qv;

namespace {

struct Channel {
    uint32_t db;
    const char* type;
    const char* key;
};

constexpr Channel kChannels[] = {
    {4, "p_bridge.tarn_loop_info", "p_bridge.tarn_loop_info/ifx=1"},
    {3, "p_app.lda_nc_policy", "p_app.lda_nc_policy/"},
    {4, "p_bridge.tarn_loop_info", "p_bridge.tarn_loop_info/"},
};

constexpr unsigned kKinds = 3;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::start_agent();
    if (size == 0) {
        return 0;
    }
    const Channel& channel = kChannels[data[0] / kKinds % std::size(kChannels)];
    const Bytes bytes(data + 1, size - 1);
    switch (data[0] % kKinds) {
        case 0:
            fuzz::store().notify(channel.db, channel.type, bytes);
            break;
        case 1:
            fuzz::store().put(channel.db, channel.key, bytes);
            break;
        case 2:  // found by the scan that follows a loss
            fuzz::store().drop(channel.db);
            fuzz::store().put(channel.db, channel.key, bytes);
            fuzz::let_agent_run();
            fuzz::store().restore(channel.db);
            break;
    }
    fuzz::let_agent_run();
    fuzz::require(g_lda_loop_set->loop_num <= LDA_LOOP_MAX, "the loop table has a limit");
    fuzz::require(g_lda_loop_set->policy <= 5, "only known policies are in force");
    return 0;
}
