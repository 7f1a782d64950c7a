// One thread allocates blocks and hands them through a ring to another
// thread, which frees them: the path of log text from a producer to the
// logging thread. log_stream_allocator against glibc malloc/free, jemalloc
// (mallocx/dallocx) and mimalloc (mi_malloc/mi_free), in the same run.
//
// Both baselines export malloc itself as well, so linking them would replace
// the process's malloc; they are loaded with dlopen(RTLD_LOCAL) and called
// by their own names only. Debian's jemalloc needs static TLS that a
// dlopen'ed library only gets when the loader reserves it: run with
//   GLIBC_TUNABLES=glibc.rtld.optional_static_tls=16384
// or its benchmarks are skipped with that note.
//
// Arguments: the block size, or 0 for a mix of log-line sizes (every 512th
// block 64 KiB).
#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include <vlk/memory/log_stream_allocator.hpp>

namespace {

// Bounded single-producer single-consumer ring with cached indices, the
// same for every allocator measured.
class ring {
  public:
    void push(void* block) {
        while (_tail - _cachedHead == kSlots) {
            _cachedHead = _head.load(std::memory_order_acquire);  // pairs with pop's release
        }
        _slots[_tail % kSlots] = block;
        _tail.store(_tail + 1, std::memory_order_release);  // pairs with pop's acquire
    }
    void* pop() {
        const std::uint64_t head = _head.load(std::memory_order_relaxed);
        while (_cachedTail == head) {
            _cachedTail = _tail.load(std::memory_order_acquire);
        }
        void* block = _slots[head % kSlots];
        _head.store(head + 1, std::memory_order_release);
        return block;
    }

  private:
    static constexpr std::uint64_t kSlots = 1024;
    void* _slots[kSlots] = {};
    alignas(128) std::atomic<std::uint64_t> _tail{0};
    std::uint64_t _cachedHead = 0;
    alignas(128) std::atomic<std::uint64_t> _head{0};
    std::uint64_t _cachedTail = 0;
};

std::uint64_t mixedSize(std::uint64_t i) {
    static constexpr std::uint64_t sizes[] = {64, 120, 200, 80, 500, 96, 1500, 150};
    return (i & 511) == 511 ? 65536 : sizes[i & 7];
}

struct vlk_slab {
    static const char* missing() { return nullptr; }
    static void* allocate(std::size_t size) { return vlk::log_stream_allocator::allocate(size); }
    static void deallocate(void* block) { vlk::log_stream_allocator::deallocate(block); }
};

struct glibc {
    static const char* missing() { return nullptr; }
    static void* allocate(std::size_t size) { return std::malloc(size); }
    static void deallocate(void* block) { std::free(block); }
};

// A library loaded once, privately; null functions when it is not there.
template <typename Allocate, typename Free>
struct loaded {
    Allocate allocate = nullptr;
    Free deallocate = nullptr;
    std::string error;
    loaded(const char* path, const char* allocateName, const char* freeName) {
        void* handle = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            error = std::string(::dlerror()) +
                    " (run with GLIBC_TUNABLES=glibc.rtld.optional_static_tls=16384)";
            return;
        }
        allocate = reinterpret_cast<Allocate>(::dlsym(handle, allocateName));
        deallocate = reinterpret_cast<Free>(::dlsym(handle, freeName));
        if (allocate == nullptr || deallocate == nullptr) {
            error = std::string("no ") + allocateName + " in " + path;
        }
    }
};

using je_loaded = loaded<void* (*)(std::size_t, int), void (*)(void*, int)>;
const je_loaded& jeLibrary() {
    static const je_loaded library(VLK_JEMALLOC_PATH, "mallocx", "dallocx");
    return library;
}
struct jemalloc {
    static const char* missing() {
        return jeLibrary().error.empty() ? nullptr : jeLibrary().error.c_str();
    }
    static void* allocate(std::size_t size) { return jeLibrary().allocate(size, 0); }
    static void deallocate(void* block) { jeLibrary().deallocate(block, 0); }
};

using mi_loaded = loaded<void* (*)(std::size_t), void (*)(void*)>;
const mi_loaded& miLibrary() {
    static const mi_loaded library(VLK_MIMALLOC_PATH, "mi_malloc", "mi_free");
    return library;
}
struct mimalloc {
    static const char* missing() {
        return miLibrary().error.empty() ? nullptr : miLibrary().error.c_str();
    }
    static void* allocate(std::size_t size) { return miLibrary().allocate(size); }
    static void deallocate(void* block) { miLibrary().deallocate(block); }
};

// Per iteration one block: allocated and touched here, freed on the
// consumer thread. The consumer runs for the whole measurement.
template <typename Allocator>
void producerConsumer(benchmark::State& state) {
    if (const char* why = Allocator::missing()) {
        state.SkipWithError(why);
        return;
    }
    vlk::log_stream_allocator::init();
    const auto fixed = static_cast<std::uint64_t>(state.range(0));
    ring handoff;
    std::thread consumer([&handoff] {
        while (void* block = handoff.pop()) {
            Allocator::deallocate(block);
        }
    });
    std::uint64_t i = 0;
    for (auto _ : state) {
        const std::uint64_t size = fixed != 0 ? fixed : mixedSize(i++);
        auto* block = static_cast<char*>(Allocator::allocate(size));
        block[0] = 1;
        block[size - 1] = 1;
        handoff.push(block);
    }
    handoff.push(nullptr);
    consumer.join();
    state.SetItemsProcessed(state.iterations());
}

#define VLK_ALLOCATOR_BENCH(allocator) \
    BENCHMARK_TEMPLATE(producerConsumer, allocator)->Arg(64)->Arg(0)->UseRealTime()

VLK_ALLOCATOR_BENCH(vlk_slab);
VLK_ALLOCATOR_BENCH(glibc);
VLK_ALLOCATOR_BENCH(jemalloc);
VLK_ALLOCATOR_BENCH(mimalloc);

}  // namespace
