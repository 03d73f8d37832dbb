// Records of a list that are also found by a number without walking the list.
//
// The list stays the owner and the order; the index only answers "which is the first record of the
// list with this number". It makes the records, always at the front of their list, so every bucket
// holds its records in the order of the list: the first match of a bucket is the first of the list,
// also when two have the same number. A record is one heap block, its place in the index behind it:
// nothing but that block can run out of memory. The number is the one that the record was made with
// and does not change. The caller locks as for the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "lda_list.h"

template <class Record>
struct storm_index {
    static constexpr size_t BUCKETS = 4096;  // as many as there are ports on the largest switch

    struct block {
        Record record;  // first: the record's address is the block's
        block* next;
        uint32_t number;
    };

    // Forgets all records without freeing them, as lda_list_init does.
    void init() {
        for (block*& bucket : buckets) {
            bucket = nullptr;
        }
    }

    // The first record of the list with this number, or null.
    Record* find(uint32_t number) const {
        for (block* here = buckets[number % BUCKETS]; here != nullptr; here = here->next) {
            if (here->number == number) {
                return &here->record;
            }
        }
        return nullptr;
    }

    // A zero-filled record at the front of the list, or null without memory.
    Record* add(lda_list_t* head, uint32_t number) {
        auto* made = static_cast<block*>(calloc(1, sizeof(block)));
        if (made == nullptr) {
            return nullptr;
        }
        block*& bucket = buckets[number % BUCKETS];
        made->number = number;
        made->next = bucket;
        bucket = made;
        lda_list_add_head(head, &made->record.links);
        return &made->record;
    }

    // Takes a record that add() has made out of its list and frees it.
    void drop(Record* record) {
        auto* gone = reinterpret_cast<block*>(record);
        block** place = &buckets[gone->number % BUCKETS];
        while (*place != gone) {
            place = &(*place)->next;
        }
        *place = gone->next;
        lda_list_unlink(&record->links);
        free(gone);
    }

    block* buckets[BUCKETS];
};
