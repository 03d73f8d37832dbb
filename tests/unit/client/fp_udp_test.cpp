// The forwarding-plane ACL service over a scripted plane.
#include "qv/fp_udp.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "platform/driver/forwarding_driver.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

std::string shown(const ForwardingRule& rule) {
    std::string text = rule.unknown_destination ? " unknown" : "";
    if (rule.ethertype) {
        text += " etype=" + std::to_string(*rule.ethertype);
    }
    if (rule.meter) {
        text += " meter=" + std::to_string(rule.meter->rate_pps) + "/" +
                std::to_string(rule.meter->burst);
    }
    return text + (rule.counted ? " counted" : "");
}

// Records requests. Answers at once unless it is held; failures are scripted.
class ScriptedPlane final : public ForwardingDriver {
 public:
    void start(ForwardingSink& to) override {
        sink = &to;
        ++starts;
    }
    void reserve(ForwardingId id, Table table) override {
        requests.push_back(std::string(table == Table::kAcl ? "acl " : "entry ") +
                           std::to_string(id));
        answer(id, table == Table::kAcl ? acl_error : entry_error);
    }
    void install(ForwardingId id, std::optional<uint32_t> phyid,
                 const ForwardingRule& rule) override {
        requests.push_back("install " + std::to_string(id) + " " +
                           (phyid ? "port " + std::to_string(*phyid) : "switch") + shown(rule));
        answer(id, apply_error);
    }
    void remove(ForwardingId id) override { requests.push_back("remove " + std::to_string(id)); }
    void remove_leftovers() override { requests.push_back("leftovers"); }

    Lines take_requests() { return std::exchange(requests, {}); }

    ForwardingSink* sink = nullptr;
    int starts = 0;
    bool held = false;  // the test answers
    int acl_error = 0;
    int entry_error = 0;
    int apply_error = 0;
    Lines requests;

 private:
    void answer(ForwardingId id, int error) {
        if (held) {
            return;
        }
        if (error == 0) {
            sink->done(id);
        } else {
            sink->failed(id, error);
        }
    }
};

constexpr char kApp[] = "test_app";

// Handlers take no argument of ours.
Lines* g_events = nullptr;
qv_mom_client* const g_client = reinterpret_cast<qv_mom_client*>(&g_events);

void note(const char* what, qv_mom_client* context, const fp_acl_key* key,
          const std::string& rest = "") {
    g_events->push_back(std::string(what) + " " + key->app + " " + std::to_string(key->acl_id) +
                        rest + (context == g_client ? "" : " wrong context"));
}

fp_udp_acl_handler test_handlers() {
    fp_udp_acl_handler handlers{};
    handlers.acl_success = [](auto* c, auto* key) {
        note("acl ok", c, key);
    };
    handlers.acl_failed = [](auto* c, auto* key, int error) {
        note("acl failed", c, key, " " + std::to_string(error));
    };
    handlers.entry_success = [](auto* c, auto* key) {
        note("entry ok", c, key);
    };
    handlers.entry_failed = [](auto* c, auto* key, int error) {
        note("entry failed", c, key, " " + std::to_string(error));
    };
    handlers.apply_success = [](auto* c, auto* key) {
        note("apply ok", c, key);
    };
    handlers.apply_failed = [](auto* c, auto* key, int error) {
        note("apply failed", c, key, " " + std::to_string(error));
    };
    handlers.counter = [](auto* c, auto* key, void* second, auto* counts) {
        note("count", c, key,
             " " + std::to_string(counts->packets) + "/" + std::to_string(counts->bytes) +
                 (second == nullptr ? "" : " second context"));
    };
    return handlers;
}

struct FpUdp : testing::Test {
    test::TestPlatform platform;
    ScriptedPlane plane;
    Lines events;
    qv_thread_master* master = nullptr;
    const fp_udp_mgr* mgr = nullptr;

    FpUdp() {
        g_events = &events;
        platform.forwarding_plane = &plane;
        master = qv_thread_master_create();
        mgr = fp_udp_get_mgr();
    }
    ~FpUdp() override { qv_thread_master_finish(master); }

    void register_all() {
        EXPECT_EQ(fp_udp_register_app_type(kApp), 0);
        EXPECT_EQ(fp_udp_cgst_register(g_client, 8, "TEST"), 0);
        const fp_udp_acl_handler handlers = test_handlers();
        EXPECT_EQ(fp_udp_register_acl_handler(g_client, 8, &handlers), 0);
    }

    Lines take_events() {
        platform.run_ready();
        return std::exchange(events, {});
    }

    static fp_acl_key key(uint32_t acl_id, const char* app = kApp) {
        fp_acl_key made{};
        std::strncpy(made.app, app, sizeof made.app - 1);
        made.acl_id = acl_id;
        return made;
    }

    static fp_apply_point port(uint32_t phyid) {
        fp_apply_point point{};
        std::strncpy(point.app, kApp, sizeof point.app - 1);
        point.port = phyid;
        point.type = FP_APPLY_PORT;
        return point;
    }

    int create(uint32_t acl_id) {
        fp_acl_key made = key(acl_id);
        made.flags = FP_ACL_CREATE_FLAGS;
        return mgr->acl_create(g_client, &made);
    }

    template <class Target>
    static void add(Target* target, const char* name, uint32_t item_class,
                    const std::vector<uint8_t>& value) {
        fp_item item;
        ASSERT_EQ(target->build_item(&item, name, item_class, value.data(),
                                     static_cast<uint32_t>(value.size())),
                  0);
        ASSERT_EQ(target->add_item(target, &item), 0);
    }

    int add_entry(uint32_t acl_id, const char* match = "l2_da_hit",
                  const std::vector<uint8_t>& value = {0}, uint64_t control = 1,
                  uint32_t item_class = FP_ITEM_MATCH) {
        fp_entry* entry = mgr->entry_alloc();
        entry->control = control;
        add(entry, match, item_class, value);
        const fp_acl_key acl = key(acl_id);
        const int result = mgr->entry_add(g_client, &acl, entry);
        mgr->entry_free(entry);
        return result;
    }

    static std::vector<uint8_t> meter(uint64_t rate, uint32_t burst) {
        std::vector<uint8_t> value(48);
        std::memcpy(value.data(), &rate, sizeof rate);
        std::memcpy(value.data() + 24, &burst, sizeof burst);
        return value;
    }

    int apply(uint32_t acl_id, const fp_apply_point& point, uint32_t rate = 100) {
        const fp_acl_key acl = key(acl_id);
        fp_apply* made = mgr->apply_alloc(&acl);
        add(made, "meter", FP_ITEM_ACTION, meter(rate, 32));
        add(made, "counter", FP_ITEM_ACTION, {0, 0, 0, 0});
        add(made, "fwd", FP_ITEM_ACTION, {0, 6, 0xff});
        const int result = mgr->apply_add(g_client, &point, FP_APPLY_PRIORITY, made);
        mgr->apply_free(made);
        return result;
    }

    // ACL 5 with its entry, applied to port 5: ids 1, 2 and 3.
    void install_port_5() {
        register_all();
        create(5);
        add_entry(5);
        apply(5, port(5));
        take_events();
        plane.take_requests();
    }
};

TEST_F(FpUdp, ManagerIsStaticAndHasItsOperationsInTheirSlots) {
    ASSERT_NE(mgr, nullptr);
    EXPECT_EQ(fp_udp_get_mgr(), mgr);
    void (*slot[20])(void);
    std::memcpy(slot, mgr, sizeof slot);
    for (const int used : {0, 1, 2, 6, 7, 8, 10, 11, 14, 15, 16, 18, 19}) {
        EXPECT_NE(slot[used], nullptr) << used;
    }
}

TEST_F(FpUdp, RuleIsBuiltFromEntryAndApply) {
    register_all();
    EXPECT_EQ(create(5), 0);
    EXPECT_EQ(add_entry(5), 0);
    EXPECT_EQ(apply(5, port(7)), 0);
    EXPECT_EQ(plane.take_requests(),
              (Lines{"acl 1", "entry 2", "install 3 port 7 unknown meter=100/32 counted"}));
    EXPECT_EQ(plane.starts, 1);
}

TEST_F(FpUdp, ResultsArriveThroughTheLoopAndNotInsideTheCall) {
    register_all();
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(events, Lines{});
    EXPECT_EQ(take_events(),
              (Lines{"acl ok test_app 5", "entry ok test_app 5", "apply ok test_app 5"}));
}

TEST_F(FpUdp, RuleOfTheWholeSwitch) {
    register_all();
    create(0);
    add_entry(0, "etype", {0x47, 0x88, 0xff, 0xff});
    fp_apply_point point = port(0);
    point.type = FP_APPLY_GLOBAL;
    const fp_acl_key acl = key(0);
    fp_apply* made = mgr->apply_alloc(&acl);
    EXPECT_EQ(mgr->apply_add(g_client, &point, FP_APPLY_PRIORITY, made), 0);
    mgr->apply_free(made);
    EXPECT_EQ(plane.take_requests(), (Lines{"acl 1", "entry 2", "install 3 switch etype=34887"}));
}

TEST_F(FpUdp, CountersReachTheHandlerWithTheKeyOfTheirAcl) {
    install_port_5();
    plane.sink->counted(3, 10, 640);
    EXPECT_EQ(take_events(), (Lines{"count test_app 5 10/640"}));
}

TEST_F(FpUdp, ManyReportsAllArrive) {
    install_port_5();
    for (int n = 0; n < 100000; ++n) {
        plane.sink->counted(3, 1, 64);
    }
    EXPECT_EQ(take_events().size(), 100000u);
}

TEST_F(FpUdp, CountersOfRemovedObjectsAreDropped) {
    install_port_5();
    const fp_acl_key acl = key(5);
    const fp_apply_point point = port(5);
    EXPECT_EQ(mgr->apply_delete(g_client, &acl, &point), 0);
    plane.sink->counted(3, 10, 640);
    plane.sink->counted(999, 10, 640);
    EXPECT_EQ(take_events(), Lines{});
}

// ---- Failures ----

TEST_F(FpUdp, FailedAclIsReportedAndFailsItsApply) {
    register_all();
    plane.acl_error = ENOSPC;
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(plane.take_requests(), (Lines{"acl 1", "entry 2"}));
    EXPECT_EQ(take_events(), (Lines{"acl failed test_app 5 28", "entry ok test_app 5",
                                    "apply failed test_app 5 28"}));
}

TEST_F(FpUdp, FailedEntryIsReportedAndFailsTheApply) {
    register_all();
    plane.entry_error = ENOMEM;
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(plane.take_requests(), (Lines{"acl 1", "entry 2"}));
    EXPECT_EQ(take_events(), (Lines{"acl ok test_app 5", "entry failed test_app 5 12",
                                    "apply failed test_app 5 12"}));
}

TEST_F(FpUdp, FailedApplyIsReportedAndNothingOfItIsLeft) {
    register_all();
    plane.apply_error = EIO;
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(take_events(),
              (Lines{"acl ok test_app 5", "entry ok test_app 5", "apply failed test_app 5 5"}));
    const fp_acl_key acl = key(5);
    const fp_apply_point point = port(5);
    EXPECT_EQ(mgr->apply_delete(g_client, &acl, &point), ENOENT);
}

TEST_F(FpUdp, FailedAclMayBeCreatedAgain) {
    register_all();
    plane.acl_error = ENOSPC;
    create(5);
    plane.acl_error = 0;
    EXPECT_EQ(create(5), 0);
    EXPECT_EQ(take_events(), (Lines{"acl failed test_app 5 28", "acl ok test_app 5"}));
    EXPECT_EQ(plane.take_requests(), (Lines{"acl 1", "acl 1"}));
}

TEST_F(FpUdp, LateAnswersArriveWhenTheyCome) {
    register_all();
    plane.held = true;
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(take_events(), Lines{});
    plane.sink->failed(3, EIO);
    plane.sink->done(1);
    plane.sink->done(2);
    EXPECT_EQ(take_events(),
              (Lines{"apply failed test_app 5 5", "acl ok test_app 5", "entry ok test_app 5"}));
}

TEST_F(FpUdp, RuleThatThePlaneLosesLaterIsAFailedApply) {
    install_port_5();
    plane.sink->failed(3, ENODEV);
    EXPECT_EQ(take_events(), (Lines{"apply failed test_app 5 19"}));
    plane.sink->counted(3, 1, 64);
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, LateFailureOfAnAclRemovesItsRule) {
    install_port_5();
    plane.sink->failed(1, ENOSPC);
    EXPECT_EQ(plane.take_requests(), Lines{"remove 3"});
    EXPECT_EQ(take_events(), (Lines{"acl failed test_app 5 28", "apply failed test_app 5 28"}));
    plane.sink->counted(3, 1, 64);
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, LateFailureOfAnEntryRemovesItsRule) {
    install_port_5();
    add_entry(5);
    plane.take_requests();
    plane.sink->failed(4, ENOMEM);
    EXPECT_EQ(plane.take_requests(), Lines{}) << "the first entry decides";
    plane.sink->failed(2, ENOSPC);
    EXPECT_EQ(plane.take_requests(), Lines{"remove 3"});
}

TEST_F(FpUdp, LateAnswerToARemovedObjectIsDropped) {
    register_all();
    plane.held = true;
    create(5);
    add_entry(5);
    apply(5, port(5));
    const fp_acl_key acl = key(5);
    EXPECT_EQ(mgr->acl_delete(g_client, &acl), 0);
    for (const ForwardingId id : {1, 2, 3}) {
        plane.sink->failed(id, EIO);
        plane.sink->done(id);
    }
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, PendingResultIsDroppedWithItsObject) {
    register_all();
    plane.apply_error = EIO;
    create(5);
    add_entry(5);
    apply(5, port(5));
    const fp_acl_key acl = key(5);
    mgr->acl_delete(g_client, &acl);
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, LateFailureOfAReplacedApplyDoesNotTouchTheNewOne) {
    register_all();
    plane.held = true;
    create(5);
    add_entry(5);
    apply(5, port(5), 100);
    apply(5, port(5), 200);
    EXPECT_EQ(plane.take_requests(),
              (Lines{"acl 1", "entry 2", "install 3 port 5 unknown meter=100/32 counted",
                     "remove 3", "install 4 port 5 unknown meter=200/32 counted"}));
    plane.sink->failed(3, EIO);
    plane.sink->done(4);
    EXPECT_EQ(take_events(), (Lines{"apply ok test_app 5"}));
}

TEST_F(FpUdp, HandlerMayRemoveTheFailedPort) {
    register_all();
    fp_udp_acl_handler handlers = test_handlers();
    handlers.apply_failed = [](qv_mom_client* context, const fp_acl_key* failed, int) {
        const fp_apply_point point = port(5);
        g_events->push_back("failed");
        const fp_udp_mgr* operations = fp_udp_get_mgr();
        EXPECT_EQ(operations->apply_delete(context, failed, &point), ENOENT);
        EXPECT_EQ(operations->entry_delete(context, failed, 0), 0);
        EXPECT_EQ(operations->acl_delete(context, failed), 0);
    };
    fp_udp_register_acl_handler(g_client, 8, &handlers);
    plane.apply_error = EIO;
    create(5);
    add_entry(5);
    apply(5, port(5));
    EXPECT_EQ(take_events(), (Lines{"acl ok test_app 5", "entry ok test_app 5", "failed"}));
    EXPECT_EQ(create(5), 0);
}

// ---- Refusals ----

TEST_F(FpUdp, UnregisteredApplicationIsRefused) {
    EXPECT_EQ(create(5), EINVAL);
    EXPECT_EQ(add_entry(5), EINVAL);
    EXPECT_EQ(apply(5, port(5)), EINVAL);
    EXPECT_EQ(mgr->apply_expire_add(nullptr, kApp), EINVAL);
    EXPECT_EQ(plane.take_requests(), Lines{});
}

TEST_F(FpUdp, ApplicationNamesAreChecked) {
    EXPECT_EQ(fp_udp_register_app_type(nullptr), EINVAL);
    EXPECT_EQ(fp_udp_register_app_type(""), EINVAL);
    EXPECT_EQ(fp_udp_register_app_type("a_name_of_thirty_two_characters_"), EINVAL);
    EXPECT_EQ(fp_udp_register_app_type("a_name_of_thirty_one_characters"), 0);
    EXPECT_EQ(fp_udp_register_app_type("a_name_of_thirty_one_characters"), 0);
}

TEST_F(FpUdp, UnterminatedNameIsRefused) {
    register_all();
    fp_acl_key made;
    std::memset(&made, 'x', sizeof made);
    EXPECT_EQ(mgr->acl_create(g_client, &made), EINVAL);
}

TEST_F(FpUdp, RegistrationsNeedAClientAndATable) {
    const fp_udp_acl_handler handlers = test_handlers();
    EXPECT_EQ(fp_udp_cgst_register(nullptr, 8, "TEST"), EINVAL);
    EXPECT_EQ(fp_udp_cgst_register(g_client, 8, nullptr), EINVAL);
    EXPECT_EQ(fp_udp_register_acl_handler(nullptr, 8, &handlers), EINVAL);
    EXPECT_EQ(fp_udp_register_acl_handler(g_client, 8, nullptr), EINVAL);
}

TEST_F(FpUdp, MissingObjectsCannotBeUsedOrRemoved) {
    register_all();
    const fp_acl_key acl = key(5);
    const fp_apply_point point = port(5);
    EXPECT_EQ(add_entry(5), ENOENT);
    EXPECT_EQ(apply(5, point), ENOENT);
    EXPECT_EQ(mgr->acl_delete(g_client, &acl), ENOENT);
    EXPECT_EQ(mgr->entry_delete(g_client, &acl, 0), ENOENT);
    EXPECT_EQ(mgr->apply_delete(g_client, &acl, &point), ENOENT);
    create(5);
    EXPECT_EQ(mgr->entry_delete(g_client, &acl, 0), ENOENT);
    EXPECT_EQ(mgr->apply_delete(g_client, &acl, &point), ENOENT);
}

TEST_F(FpUdp, BadApplyPointIsRefused) {
    register_all();
    create(5);
    add_entry(5);
    fp_apply_point point = port(5);
    point.type = 3;
    EXPECT_EQ(apply(5, point), EINVAL);
    point = port(5);
    std::strcpy(point.app, "another");
    EXPECT_EQ(apply(5, point), EINVAL);
}

TEST_F(FpUdp, ApplyWithoutEntryFails) {
    register_all();
    create(5);
    EXPECT_EQ(apply(5, port(5)), 0);
    EXPECT_EQ(take_events(), (Lines{"acl ok test_app 5", "apply failed test_app 5 22"}));
}

struct BadMatch {
    const char* name;
    const char* match;
    std::vector<uint8_t> value;
    uint64_t control;
    uint32_t item_class;
    int error;
};

struct FpUdpMatch : FpUdp, testing::WithParamInterface<BadMatch> {};

TEST_P(FpUdpMatch, UnreadableEntryFails) {
    const BadMatch& bad = GetParam();
    register_all();
    create(5);
    EXPECT_EQ(add_entry(5, bad.match, bad.value, bad.control, bad.item_class), 0);
    EXPECT_EQ(plane.take_requests(), (Lines{"acl 1"}));
    EXPECT_EQ(take_events(),
              (Lines{"acl ok test_app 5", "entry failed test_app 5 " + std::to_string(bad.error)}));
}

const BadMatch kBadMatches[] = {
    {"Inactive", "l2_da_hit", {0}, 0, FP_ITEM_MATCH, EINVAL},
    {"AddressFound", "l2_da_hit", {1}, 1, FP_ITEM_MATCH, EOPNOTSUPP},
    {"LongAddressMatch", "l2_da_hit", {0, 0}, 1, FP_ITEM_MATCH, EINVAL},
    {"WrongClass", "l2_da_hit", {0}, 1, FP_ITEM_ACTION, EINVAL},
    {"RoutedFrames", "l3_uc", {1, 0, 0, 0, 1, 0, 0, 0}, 1, FP_ITEM_MATCH, EOPNOTSUPP},
    {"ShortRoutedMatch", "l3_uc", {1, 0, 0, 0}, 1, FP_ITEM_MATCH, EINVAL},
    {"MaskedEthertype", "etype", {0x47, 0x88, 0xff, 0x0f}, 1, FP_ITEM_MATCH, EOPNOTSUPP},
    {"ShortEthertype", "etype", {0x47, 0x88}, 1, FP_ITEM_MATCH, EINVAL},
    {"UnknownMatch", "vlan", {0, 1}, 1, FP_ITEM_MATCH, EOPNOTSUPP},
};

INSTANTIATE_TEST_SUITE_P(Matches, FpUdpMatch, testing::ValuesIn(kBadMatches),
                         [](const auto& match) { return std::string(match.param.name); });

struct BadAction {
    const char* name;
    const char* action;
    std::vector<uint8_t> value;
    uint32_t item_class;
    int error;
};

struct FpUdpAction : FpUdp, testing::WithParamInterface<BadAction> {};

TEST_P(FpUdpAction, UnreadableApplyFails) {
    const BadAction& bad = GetParam();
    register_all();
    create(5);
    add_entry(5);
    take_events();
    plane.take_requests();
    const fp_acl_key acl = key(5);
    const fp_apply_point point = port(5);
    fp_apply* made = mgr->apply_alloc(&acl);
    add(made, bad.action, bad.item_class, bad.value);
    EXPECT_EQ(mgr->apply_add(g_client, &point, FP_APPLY_PRIORITY, made), 0);
    mgr->apply_free(made);
    EXPECT_EQ(plane.take_requests(), Lines{});
    EXPECT_EQ(take_events(), (Lines{"apply failed test_app 5 " + std::to_string(bad.error)}));
}

const BadAction kBadActions[] = {
    {"ShortMeter", "meter", {1, 0, 0, 0}, FP_ITEM_ACTION, EINVAL},
    {"ShortCounter", "counter", {0}, FP_ITEM_ACTION, EINVAL},
    {"ShortForward", "fwd", {0}, FP_ITEM_ACTION, EINVAL},
    {"WrongClass", "counter", {0, 0, 0, 0}, FP_ITEM_MATCH, EINVAL},
    {"UnknownAction", "mirror", {0}, FP_ITEM_ACTION, EOPNOTSUPP},
};

INSTANTIATE_TEST_SUITE_P(Actions, FpUdpAction, testing::ValuesIn(kBadActions),
                         [](const auto& action) { return std::string(action.param.name); });

// ---- Objects ----

TEST_F(FpUdp, AclDeletionRemovesItsAppliesAndEntries) {
    install_port_5();
    apply(5, port(6));
    plane.take_requests();
    const fp_acl_key acl = key(5);
    EXPECT_EQ(mgr->acl_delete(g_client, &acl), 0);
    EXPECT_EQ(plane.take_requests(), (Lines{"remove 3", "remove 4", "remove 2", "remove 1"}));
}

TEST_F(FpUdp, EntriesAreDeletedByIndex) {
    register_all();
    create(5);
    add_entry(5);
    add_entry(5, "etype", {0x47, 0x88, 0xff, 0xff});
    plane.take_requests();
    const fp_acl_key acl = key(5);
    EXPECT_EQ(mgr->entry_delete(g_client, &acl, 2), ENOENT);
    EXPECT_EQ(mgr->entry_delete(g_client, &acl, 0), 0);
    EXPECT_EQ(plane.take_requests(), (Lines{"remove 2"}));
    apply(5, port(5));
    EXPECT_EQ(plane.take_requests(), (Lines{"install 4 port 5 etype=34887 meter=100/32 counted"}));
}

TEST_F(FpUdp, CreatingAnAclAgainIsASuccessAndKeepsItsEntries) {
    install_port_5();
    EXPECT_EQ(create(5), 0);
    EXPECT_EQ(plane.take_requests(), Lines{});
    EXPECT_EQ(take_events(), (Lines{"acl ok test_app 5"}));
    plane.sink->counted(3, 1, 64);
    EXPECT_EQ(take_events(), (Lines{"count test_app 5 1/64"}));
}

TEST_F(FpUdp, ApplicationsHaveTheirOwnAcls) {
    register_all();
    fp_udp_register_app_type("other_app");
    create(5);
    const fp_acl_key other = key(5, "other_app");
    EXPECT_EQ(mgr->acl_delete(g_client, &other), ENOENT);
    EXPECT_EQ(mgr->acl_create(g_client, &other), 0);
    EXPECT_EQ(take_events(), (Lines{"acl ok test_app 5", "acl ok other_app 5"}));
}

TEST_F(FpUdp, ObjectsTakeALimitedNumberOfItems) {
    fp_entry* entry = mgr->entry_alloc();
    EXPECT_EQ(entry->control, 0u);
    EXPECT_EQ(entry->item_num, 0u);
    fp_item item;
    EXPECT_EQ(entry->build_item(&item, "etype", FP_ITEM_MATCH, "abcd", 4), 0);
    for (int n = 0; n < 8; ++n) {
        EXPECT_EQ(entry->add_item(entry, &item), 0);
    }
    EXPECT_EQ(entry->add_item(entry, &item), ENOSPC);
    mgr->entry_free(entry);
    mgr->entry_free(nullptr);
    mgr->apply_free(nullptr);
}

TEST_F(FpUdp, ItemBuilderLaysOutNameClassLengthAndValue) {
    fp_entry* entry = mgr->entry_alloc();
    fp_item item;
    std::memset(&item, 0xee, sizeof item);
    const uint8_t value[3] = {0, 6, 0xff};
    EXPECT_EQ(entry->build_item(&item, "fwd", FP_ITEM_ACTION, value, 3), 0);
    uint8_t expected[268] = {'f', 'w', 'd'};
    expected[32] = 2;
    expected[36] = 3;
    expected[41] = 6;
    expected[42] = 0xff;
    EXPECT_EQ(std::memcmp(&item, expected, sizeof expected), 0);
    const std::vector<uint8_t> large(229);
    EXPECT_EQ(entry->build_item(&item, "fwd", 2, large.data(), 229), EINVAL);
    EXPECT_EQ(entry->build_item(&item, "a_name_of_thirty_two_characters_", 2, value, 3), EINVAL);
    mgr->entry_free(entry);
}

// ---- Registrations ----

TEST_F(FpUdp, WithoutCounterRegistrationNoHandlerIsCalled) {
    fp_udp_register_app_type(kApp);
    const fp_udp_acl_handler handlers = test_handlers();
    fp_udp_register_acl_handler(g_client, 8, &handlers);
    create(5);
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, EmptySlotsDropTheirResults) {
    fp_udp_register_app_type(kApp);
    fp_udp_cgst_register(g_client, 8, "TEST");
    const fp_udp_acl_handler handlers{};
    fp_udp_register_acl_handler(g_client, 8, &handlers);
    plane.apply_error = EIO;
    create(5);
    add_entry(5);
    apply(5, port(5));
    plane.sink->counted(3, 1, 64);
    EXPECT_EQ(take_events(), Lines{});
}

TEST_F(FpUdp, LaterTableReplacesTheEarlierOne) {
    install_port_5();
    fp_udp_acl_handler handlers{};
    handlers.counter = [](auto*, auto*, void*, auto*) {
        g_events->push_back("new");
    };
    fp_udp_register_acl_handler(g_client, 8, &handlers);
    handlers.counter = nullptr;  // the table was copied
    plane.sink->counted(3, 1, 64);
    EXPECT_EQ(take_events(), (Lines{"new"}));
}

TEST_F(FpUdp, ExpiryRemovesLeftoversOfAnEarlierProcessOnce) {
    register_all();
    EXPECT_EQ(mgr->acl_expire_add(nullptr, kApp), 0);
    EXPECT_EQ(mgr->entry_expire_add(nullptr, kApp), 0);
    EXPECT_EQ(plane.take_requests(), Lines{});
    EXPECT_EQ(mgr->apply_expire_add(nullptr, kApp), 0);
    EXPECT_EQ(plane.take_requests(), (Lines{"leftovers"}));
    EXPECT_EQ(mgr->apply_expire_add(nullptr, nullptr), EINVAL);
}

}  // namespace
}  // namespace qv
