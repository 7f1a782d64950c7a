#include <vlk/containers/intrusive_pointer.hpp>

#include <gtest/gtest.h>

#include <atomic>

#include "../concurrency.hpp"

namespace {

using vlk::base::intrusive_pointer;
using vlk::base::intrusive_pointer_traits;

std::atomic<int> g_deaths{0};

struct atomic_counted {
    std::atomic<std::int32_t> _refCount{0};
    ~atomic_counted() { g_deaths.fetch_add(1); }
};

// A count kept as a plain word is changed through std::atomic_ref.
struct plain_counted {
    std::int32_t _refCount = 0;
    ~plain_counted() { g_deaths.fetch_add(1); }
};

template <typename T>
class IntrusivePointer : public testing::Test {};
using counted_types = testing::Types<atomic_counted, plain_counted>;
TYPED_TEST_SUITE(IntrusivePointer, counted_types);

TYPED_TEST(IntrusivePointer, CountStartsAtZeroAndTheLastHolderDeletesOnceOnAnyThread) {
    using traits = intrusive_pointer_traits<TypeParam>;
    g_deaths.store(0);
    auto* object = new TypeParam;
    EXPECT_EQ(traits::references(object), 0);
    intrusive_pointer<TypeParam> first(object);
    intrusive_pointer<TypeParam> second(first);
    intrusive_pointer<TypeParam> third(std::move(second));  // leaves `second` null
    third = first;  // the same object: one share given up, one taken
    EXPECT_EQ(traits::references(object), 2);
    first.release();
    first.release();  // now null: releases nothing
    EXPECT_EQ(traits::references(object), 1);
    EXPECT_EQ(g_deaths.load(), 0);
    third.release();
    EXPECT_EQ(g_deaths.load(), 1);
    // Copies made and released on many threads at once.
    intrusive_pointer<TypeParam> owner(new TypeParam);
    vlk_test::onThreads(4, [&](unsigned) {
        for (int i = 0; i < 50000; ++i) {
            intrusive_pointer<TypeParam> copy(owner);
            intrusive_pointer<TypeParam> other(copy);
        }
    });
    EXPECT_EQ(intrusive_pointer_traits<TypeParam>::references(owner.get()), 1);
    owner.release();
    EXPECT_EQ(g_deaths.load(), 2);
}

}  // namespace
