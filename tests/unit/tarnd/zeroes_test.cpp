#include "services/tarnd/zeroes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace qv::tarnd {
namespace {

struct Item {
    uint64_t number;
};

constexpr size_t kPages = 64;

size_t pages_in_memory(Zeroes<Item>& table, size_t page_bytes) {
    std::vector<unsigned char> pages(kPages);
    EXPECT_EQ(mincore(&table[0], kPages * page_bytes, pages.data()), 0);
    return static_cast<size_t>(std::count_if(pages.begin(), pages.end(),
                                             [](unsigned char page) { return (page & 1) != 0; }));
}

TEST(Zeroes, APageTakesMemoryWhenItIsWritten) {
    const auto page_bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t items = kPages * page_bytes / sizeof(Item);
    Zeroes<Item> table(items);
    EXPECT_EQ(pages_in_memory(table, page_bytes), 0u);
    table[items / 2].number = 7;
    EXPECT_EQ(pages_in_memory(table, page_bytes), 1u);
    EXPECT_EQ(table[items / 2].number, 7u);
    EXPECT_EQ(table[0].number, 0u);
    EXPECT_EQ(table[items - 1].number, 0u);
}

}  // namespace
}  // namespace qv::tarnd
