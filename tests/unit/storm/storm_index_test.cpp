// What the index finds is what a walk of the list finds.
#include "storm_index.h"

#include <random>
#include <vector>

#include "tests/unit/storm/storm_fixture.h"

namespace {

class StormIndex : public ::testing::Test {
 protected:
    StormIndex() { lda_list_init(&head); }
    ~StormIndex() override {
        while (head.next != &head) {
            index.drop(storm_record<storm_rate_info>(head.next));
        }
    }

    storm_rate_info* add(uint32_t ifx) {
        storm_rate_info* info = index.add(&head, ifx);
        info->ifx = ifx;
        return info;
    }

    storm_rate_info* walk(uint32_t ifx) {
        for (lda_list_t* node = head.next; node != &head; node = node->next) {
            auto* info = storm_record<storm_rate_info>(node);
            if (info->ifx == ifx) {
                return info;
            }
        }
        return nullptr;
    }

    lda_list_t head;
    storm_index<storm_rate_info> index = {};
};

TEST_F(StormIndex, NewRecordIsZeroAndAtTheFront) {
    const storm_rate_info* first = index.add(&head, 7);
    const storm_rate_info* second = index.add(&head, 8);
    EXPECT_EQ(head.next, &second->links);
    EXPECT_EQ(head.prev, &first->links);
    EXPECT_EQ(first->rate, 0u);
    EXPECT_EQ(first->burst, 0u);
    EXPECT_EQ(first->ifx, 0u);
}

TEST_F(StormIndex, NumbersOfOneBucketAreToldApart) {
    const storm_rate_info* low = add(1);
    storm_rate_info* middle = add(1 + 4096);
    const storm_rate_info* high = add(1 + 2 * 4096);
    EXPECT_EQ(index.find(1), low);
    EXPECT_EQ(index.find(4097), middle);
    EXPECT_EQ(index.find(8193), high);
    EXPECT_EQ(index.find(12289), nullptr);
    index.drop(middle);
    EXPECT_EQ(index.find(1), low);
    EXPECT_EQ(index.find(4097), nullptr);
    EXPECT_EQ(index.find(8193), high);
}

TEST_F(StormIndex, OfTwoWithTheSameNumberTheFirstOfTheListIsFound) {
    storm_rate_info* behind = add(5);
    storm_rate_info* front = add(5);
    EXPECT_EQ(index.find(5), front);
    index.drop(behind);
    EXPECT_EQ(index.find(5), front);
    behind = front;
    front = add(5);
    index.drop(front);
    EXPECT_EQ(index.find(5), behind);
}

TEST_F(StormIndex, WithoutMemoryNothingChanges) {
    add(5);
    fake::fail_calloc(1);
    EXPECT_EQ(index.add(&head, 6), nullptr);
    EXPECT_EQ(index.find(6), nullptr);
    EXPECT_EQ(head.next, head.prev);
}

TEST_F(StormIndex, EmptyAgainAfterInit) {
    storm_rate_info* info = add(5);
    index.init();
    EXPECT_EQ(index.find(5), nullptr);
    lda_list_init(&head);
    free(info);
}

TEST_F(StormIndex, FindsWhatAWalkFindsThroughThousandsOfChanges) {
    std::mt19937 random(1);
    // Few numbers, many of one bucket, so that records meet.
    const std::vector<uint32_t> numbers = {0, 1, 2, 4096, 4097, 8192, 8193, 12288, UINT32_MAX};
    for (int n = 0; n < 5000; ++n) {
        const uint32_t number = numbers[random() % numbers.size()];
        storm_rate_info* found = index.find(number);
        if (random() % 2 == 0) {
            add(number);
        } else if (found != nullptr) {
            index.drop(found);
        }
        for (const uint32_t each : numbers) {
            ASSERT_EQ(index.find(each), walk(each)) << each << " after " << n << " changes";
        }
    }
}

}  // namespace
