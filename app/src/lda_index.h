// An index that finds the records of a list by a number, without walking the list.
//
// The list still owns and orders the records; the index only finds the first record of the list
// with a number. A record and its place in the index are one heap block, so once the block exists
// nothing can fail: linking, finding and removing allocate nothing. A record keeps the number it
// was made with.
//
// A bucket holds its records in the order of the list. For that, records are added at one end of a
// list only, always with add() or always with add_tail(). The lock of the list guards the index
// too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "lda_list.h"

// Record: a plain structure that begins with its links. An index of zeros is empty.
template <class Record>
struct lda_index {
    static constexpr size_t BUCKETS = 4096;  // as many as there are ports on the largest switch

    struct block {
        Record record;  // first: the record's address is the block's
        block* next;    // in the bucket
        uint32_t number;
    };

    // Makes a zero-filled record that is in no list yet, or null without memory. free() frees it.
    static Record* make(uint32_t number) {
        auto* made = static_cast<block*>(calloc(1, sizeof(block)));
        if (made == nullptr) {
            return nullptr;
        }
        made->number = number;
        return &made->record;
    }

    // Makes a record at the front of the list. Null without memory, and nothing has changed.
    Record* add(lda_list_t* head, uint32_t number) {
        Record* record = make(number);
        if (record == nullptr) {
            return nullptr;
        }
        block*& bucket = buckets[number % BUCKETS];
        block_of(record)->next = bucket;
        bucket = block_of(record);
        lda_list_add_head(head, links_of(record));
        return record;
    }

    // Links a record from make() at the end of the list.
    void add_tail(lda_list_t* head, Record* record) {
        block* added = block_of(record);
        added->next = nullptr;
        *place_of(nullptr, added->number) = added;
        lda_list_add_tail(head, links_of(record));
    }

    // Returns the first record of the list with this number, or null.
    Record* find(uint32_t number) const {
        for (block* here = buckets[number % BUCKETS]; here != nullptr; here = here->next) {
            if (here->number == number) {
                return &here->record;
            }
        }
        return nullptr;
    }

    // Removes a linked record from its list. The caller owns it afterwards.
    void remove(Record* record) {
        block* removed = block_of(record);
        *place_of(removed, removed->number) = removed->next;
        lda_list_unlink(links_of(record));
    }

    // The same, and frees it.
    void drop(Record* record) {
        remove(record);
        free(record);
    }

    // Drops all records without freeing them, as lda_list_init does.
    void init() {
        for (block*& bucket : buckets) {
            bucket = nullptr;
        }
    }

    block* buckets[BUCKETS];

 private:
    static block* block_of(Record* record) { return reinterpret_cast<block*>(record); }
    static lda_list_t* links_of(Record* record) { return reinterpret_cast<lda_list_t*>(record); }

    // The pointer to `wanted` in the bucket of `number`; for null, the pointer at its end.
    block** place_of(const block* wanted, uint32_t number) {
        block** place = &buckets[number % BUCKETS];
        while (*place != wanted) {
            place = &(*place)->next;
        }
        return place;
    }
};
