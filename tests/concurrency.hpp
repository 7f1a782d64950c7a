// The concurrency tests' common harness: threads released together so that
// their first operations overlap, and a workload scale that keeps
// ThreadSanitizer runs, about ten times slower, within their time.
#pragma once

#include <latch>
#include <thread>
#include <vector>

namespace vlk_test {

#if defined(__SANITIZE_THREAD__)
inline constexpr unsigned long stress_scale = 1;
#else
inline constexpr unsigned long stress_scale = 10;
#endif

// Runs body(i) for i in [0, count) on threads of their own that start
// together, and returns once all have ended.
template <typename Body>
void onThreads(unsigned count, Body body) {
    std::latch start(count);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            body(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace vlk_test
