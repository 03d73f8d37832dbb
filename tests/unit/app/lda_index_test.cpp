// The index finds the record that a walk of the list finds.
#include "lda_index.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#include "tests/support/fake_qv/fake_qv.h"

namespace {

// While set, every `new` of this thread fails.
thread_local bool g_no_memory;

struct Record {
    lda_list_t link;
    uint32_t number;
    uint32_t value;
};

class Index : public ::testing::Test {
 protected:
    Index() { lda_list_init(&head); }
    ~Index() override {
        while (head.next != &head)
            index.drop(reinterpret_cast<Record*>(head.next));
    }

    Record* add(uint32_t number) {
        Record* record = index.add(&head, number);
        record->number = number;
        return record;
    }

    Record* add_tail(uint32_t number) {
        Record* record = lda_index<Record>::make(number);
        record->number = number;
        index.add_tail(&head, record);
        return record;
    }

    Record* walk(uint32_t number) {
        for (lda_list_t* link = head.next; link != &head; link = link->next) {
            auto* record = reinterpret_cast<Record*>(link);
            if (record->number == number)
                return record;
        }
        return nullptr;
    }

    // Few numbers, many in the same bucket, so that records collide.
    void change_and_compare(bool at_the_end) {
        std::mt19937 random(1);
        const std::vector<uint32_t> numbers = {0, 1, 2, 4096, 4097, 8192, 8193, 12288, UINT32_MAX};
        for (int n = 0; n < 5000; n++) {
            const uint32_t number = numbers[random() % numbers.size()];
            Record* found = index.find(number);
            if (random() % 2 == 0)
                at_the_end ? add_tail(number) : add(number);
            else if (found != nullptr)
                index.drop(found);
            for (const uint32_t each : numbers)
                ASSERT_EQ(index.find(each), walk(each)) << each << " after " << n << " changes";
        }
    }

    lda_list_t head;
    lda_index<Record> index = {};
};

}  // namespace

// operator new(size_t), which the linker redirects here, for tests without memory.
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size) {
    if (g_no_memory)
        throw std::bad_alloc();
    return __real__Znwm(size);
}

TEST_F(Index, NewRecordIsZeroAndAtTheFront) {
    const Record* first = index.add(&head, 7);
    const Record* second = index.add(&head, 8);
    EXPECT_EQ(head.next, &second->link);
    EXPECT_EQ(head.prev, &first->link);
    EXPECT_EQ(first->number, 0u);
    EXPECT_EQ(first->value, 0u);
}

TEST_F(Index, RecordThatIsNotAddedIsNotFound) {
    Record* record = lda_index<Record>::make(7);
    EXPECT_EQ(record->number, 0u);
    EXPECT_EQ(index.find(7), nullptr);
    EXPECT_EQ(head.next, &head);
    index.add_tail(&head, record);
    EXPECT_EQ(index.find(7), record);
    EXPECT_EQ(head.prev, &record->link);
}

TEST_F(Index, NumbersInOneBucketAreDistinguished) {
    const Record* low = add(1);
    Record* middle = add(1 + 4096);
    const Record* high = add(1 + 2 * 4096);
    EXPECT_EQ(index.find(1), low);
    EXPECT_EQ(index.find(4097), middle);
    EXPECT_EQ(index.find(8193), high);
    EXPECT_EQ(index.find(12289), nullptr);
    index.drop(middle);
    EXPECT_EQ(index.find(1), low);
    EXPECT_EQ(index.find(4097), nullptr);
    EXPECT_EQ(index.find(8193), high);
}

TEST_F(Index, FirstOfTwoRecordsWithTheSameNumberIsFound) {
    Record* behind = add(5);
    Record* front = add(5);
    EXPECT_EQ(index.find(5), front);
    index.drop(behind);
    EXPECT_EQ(index.find(5), front);
    behind = front;
    front = add(5);
    index.drop(front);
    EXPECT_EQ(index.find(5), behind);
}

TEST_F(Index, OlderOfTwoRecordsAddedAtTheEndIsFound) {
    Record* older = add_tail(5);
    Record* newer = add_tail(5);
    EXPECT_EQ(index.find(5), older);
    index.drop(older);
    EXPECT_EQ(index.find(5), newer);
}

TEST_F(Index, RemovedRecordBelongsToTheCaller) {
    Record* record = add_tail(5);
    record->value = 9;
    index.remove(record);
    EXPECT_EQ(index.find(5), nullptr);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(record->value, 9u);
    free(record);
}

TEST_F(Index, WithoutMemoryNothingChanges) {
    add(5);
    fake::fail_calloc(1);
    EXPECT_EQ(index.add(&head, 6), nullptr);
    EXPECT_EQ(index.find(6), nullptr);
    EXPECT_EQ(head.next, head.prev);
    fake::fail_calloc(1);
    EXPECT_EQ(lda_index<Record>::make(6), nullptr);
}

// Once its block exists, a record can be linked, found and removed without any memory.
TEST_F(Index, LinkedRecordNeedsNoFurtherMemory) {
    Record* record = lda_index<Record>::make(7);
    fake::fail_calloc(1);
    g_no_memory = true;
    index.add_tail(&head, record);
    const Record* found = index.find(7);
    index.remove(record);
    g_no_memory = false;
    EXPECT_EQ(found, record);
    EXPECT_EQ(calloc(1, 1), nullptr) << "the failure was used up";
    free(record);
}

TEST_F(Index, InitEmptiesTheIndex) {
    Record* record = add(5);
    index.init();
    EXPECT_EQ(index.find(5), nullptr);
    lda_list_init(&head);
    free(record);
}

TEST_F(Index, AgreesWithAWalkThroughThousandsOfChanges) {
    change_and_compare(false);
}

TEST_F(Index, AgreesWithAWalkWhenRecordsAreAddedAtTheEnd) {
    change_and_compare(true);
}
