#include <vlk/containers/worklist.hpp>

#include <gtest/gtest.h>

#include <string>

#include <vlk/system/mmap.hpp>

namespace {

using vlk::mmap_stats;
using vlk::base::worklist;

// Counts the live elements.
struct element {
    static inline int live = 0;
    element() { ++live; }
    explicit element(std::string v) : value(std::move(v)) { ++live; }
    element(const element& other) : value(other.value) { ++live; }
    element(element&& other) noexcept : value(std::move(other.value)) { ++live; }
    element& operator=(const element&) = default;
    element& operator=(element&&) noexcept = default;
    ~element() { --live; }
    std::string value;
};

// Arrays of 64 KiB or more are mapped: of these 32-byte elements, the 2048
// and 4096 arrays, not the 1024 one.
TEST(Worklist, AppendsConstructEveryCapacitySlotKeepOrderAndMapLargeArrays) {
    static_assert(sizeof(element) == 32);
    const std::uint64_t mapped = mmap_stats::mappedCount(), unmapped = mmap_stats::unmappedCount();
    {
        worklist<element> list;
        EXPECT_EQ(list.data, nullptr);
        const struct {
            unsigned long appends, capacity;
        } steps[] = {{1, 8}, {8, 8}, {9, 16}, {16, 16}, {17, 32}};
        unsigned long appended = 0;
        for (const auto& s : steps) {
            while (appended < s.appends) {
                list.append(element(std::to_string(appended++)));
            }
            EXPECT_EQ(list.count, s.appends);
            EXPECT_EQ(list.capacity, s.capacity);
            EXPECT_EQ(element::live, int(s.capacity));  // all slots, no old array
        }
        for (unsigned long i = 0; i < list.count; ++i) {
            EXPECT_EQ(list[i].value, std::to_string(i));
        }
        EXPECT_TRUE(list[list.count].value.empty());  // a default past `count`
        while (list.count < 32) {
            list.append(list[0]);
        }
        list.append(list[3]);  // an element of the list itself, across a growth
        EXPECT_EQ(list.capacity, 64u);
        EXPECT_EQ(list[32].value, "3");
        while (list.count <= 2048) {
            list.append(element());
        }
        EXPECT_EQ(mmap_stats::mappedCount(), mapped + 2);
        EXPECT_EQ(mmap_stats::unmappedCount(), unmapped + 1);  // the 2048 array
    }
    EXPECT_EQ(element::live, 0);
    EXPECT_EQ(mmap_stats::unmappedCount(), unmapped + 2);
}

}  // namespace
