// Heap calls of the toolkit.
//
// `allocate`, `callocate`, `reallocate` and `deallocate` are the C heap under
// the toolkit's names, so that every heap use can be found and, if need be,
// redirected in one place. They are thread-safe and report failure as null.
//
// `memory::aligned::allocate<Alignment>(size)` gives storage on an
// `Alignment`-byte boundary for objects that must own their cache lines. It
// never returns null: a heap that cannot give the memory ends the process
// through `system::abort`. The raw pointer stands in the 8 bytes before the
// result; free the block with `memory::aligned::deallocate(result)`, which
// hands that raw pointer to `vlk::deallocate`.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vlk {

void* allocate(unsigned long size);
void* callocate(unsigned long size);
void* reallocate(void* block, unsigned long size);
void deallocate(void* block);

namespace memory::aligned {

// Rounds `raw + Alignment` down to a multiple of `Alignment` and keeps `raw`
// in the word before the result. Since the result is at least 8 bytes past
// `raw`, the stored word always lies inside the block.
template <std::size_t Alignment>
inline void* align(void* raw) {
    static_assert(Alignment >= 16 && (Alignment & (Alignment - 1)) == 0);
    auto address = reinterpret_cast<std::uintptr_t>(raw) + Alignment;
    auto* aligned = reinterpret_cast<void**>(address & ~std::uintptr_t{Alignment - 1});
    aligned[-1] = raw;
    return aligned;
}

// The raw pointer that `align` stored before `aligned`.
inline void* rawPointer(void* aligned) {
    return static_cast<void**>(aligned)[-1];
}

// Both take the size without the alignment slack and add it, ending the
// process when the sum does not fit.
void* allocateOrAbort(unsigned long size, unsigned long slack);
void* callocateOrAbort(unsigned long size, unsigned long slack);

template <std::size_t Alignment>
inline void* allocate(unsigned long size) {
    return align<Alignment>(allocateOrAbort(size, Alignment));
}

// As `allocate`, with the whole block zeroed. Large blocks come from fresh
// mappings that the kernel zeroes, so this costs no more than the pages used.
template <std::size_t Alignment>
inline void* callocate(unsigned long size) {
    return align<Alignment>(callocateOrAbort(size, Alignment));
}

inline void deallocate(void* aligned) {
    if (aligned != nullptr) {
        vlk::deallocate(rawPointer(aligned));
    }
}

}  // namespace memory::aligned
}  // namespace vlk

// The same heap calls under plain names, for code that links by C names.
extern "C" {
void* vlk_allocate(unsigned long size);
void* vlk_callocate(unsigned long size);
void* vlk_reallocate(void* block, unsigned long size);
void vlk_deallocate(void* block);
}
