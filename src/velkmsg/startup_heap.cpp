// velkmsg's `operator new`: a bump region for the static initialisers, the C
// heap after them.
//
// Before main the catalogue builds some 2900 strings (each row's two texts,
// copied into the catalogue, and its longer message fragments) and frees
// none of them: the rows live to the end and the catalogue is abandoned at
// exit. The C heap spends about 180 instructions on each of these blocks,
// carving it from the top chunk behind a header, a quarter of everything a
// `velkmsg 01-0001` run executes. Here each is a pointer bump in a static
// region, packed as densely as the heap would (16-byte steps).
//
// main ends the region first thing, so what the program allocates and frees
// while it runs (a report per row) is recycled by the C heap as usual. A
// block from the region is never given back: deleting it does nothing.
// Before main only one thread runs, so the bump needs no lock; after
// endStartupHeap the region is only compared against.
//
// Sanitizer builds do not compile this file: their run-times replace
// `operator new` themselves (src/CMakeLists.txt).
#include "startup_heap.hpp"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Room for what the static initialisers allocate (about 200 KiB) with a
// margin; a request that does not fit goes to the C heap. Pages of the
// region that are never reached are never touched.
constexpr std::size_t region_bytes = 512 * 1024;
constexpr std::size_t step = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

alignas(step) unsigned char g_region[region_bytes];
constinit std::size_t g_used = 0;  // written only while the region is open
// Relaxed: it changes once, in main before any thread of the program
// exists, and thread creation orders that store before every later load.
constinit std::atomic<bool> g_open{true};

bool inRegion(const void* block) {
    const auto* byte = static_cast<const unsigned char*>(block);
    return byte >= g_region && byte < g_region + region_bytes;
}

void* fromCHeap(std::size_t size) {
    for (;;) {
        if (void* block = std::malloc(size != 0 ? size : 1)) {
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

}  // namespace

namespace velkmsg {

void endStartupHeap() {
    g_open.store(false, std::memory_order_relaxed);
}

}  // namespace velkmsg

void* operator new(std::size_t size) {
    // The room left is a multiple of the step, so a size that fits still
    // fits once rounded up to it.
    if (g_open.load(std::memory_order_relaxed) && size != 0 && size <= region_bytes - g_used) {
        void* block = g_region + g_used;
        g_used += (size + step - 1) & ~(step - 1);
        return block;
    }
    return fromCHeap(size);
}

void operator delete(void* block) noexcept {
    if (!inRegion(block)) {
        std::free(block);
    }
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
