// The ADC frame list: order, emptiness, and that clearing frees nodes and buffers alike
// (the sanitizer builds report any leak).
#include <gtest/gtest.h>

#include "io/data_cache_list.h"

using polybus::cache_list;
using polybus::data_cache_list;

TEST(AdcFrameList, FirstInFirstOutAndClear) {
    data_cache_list list;
    EXPECT_TRUE(list.is_empty());
    EXPECT_EQ(list.post(), nullptr);
    const unsigned char a[4] = {1, 2, 3, 4}, b[2] = {9, 8};
    list.add(cache_list::make(a, 4, 8));
    list.add(cache_list::make(b, 2, 8));
    list.add(cache_list::make(a, 4, 8));
    EXPECT_EQ(list.length(), 3);

    cache_list* first = list.post();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->len, 4u);
    EXPECT_EQ(first->capacity, 8u);
    EXPECT_EQ(first->data[3], 4);
    cache_list::destroy(first);
    cache_list* second = list.post();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->len, 2u);
    EXPECT_EQ(second->data[0], 9);
    cache_list::destroy(second);
    EXPECT_EQ(list.length(), 1);

    list.add(cache_list::make(b, 2, 2));
    list.clear();
    EXPECT_TRUE(list.is_empty());
    EXPECT_EQ(list.length(), 0);
    // Usable again after a clear.
    list.add(cache_list::make(b, 2, 2));
    EXPECT_EQ(list.length(), 1);
}  // the destructor frees what is left

TEST(AdcFrameList, NodeNeverHoldsMoreThanItsRoom) {
    const unsigned char big[16] = {};
    cache_list* n = cache_list::make(big, 16, 10);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->len, 10u) << "a frame longer than its room is cut to it";
    cache_list::destroy(n);
    cache_list* empty = cache_list::make(nullptr, 0, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->len, 0u);
    cache_list::destroy(empty);
}
