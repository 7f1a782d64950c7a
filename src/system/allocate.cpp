#include <vlk/system/allocate.hpp>

#include <cstdlib>

#include <vlk/system/abort.hpp>

namespace vlk {

void* allocate(unsigned long size) {
    return std::malloc(size);
}
void* callocate(unsigned long size) {
    return std::calloc(1, size);
}
void* reallocate(void* block, unsigned long size) {
    return std::realloc(block, size);
}
void deallocate(void* block) {
    std::free(block);
}

namespace memory::aligned {

namespace {

template <typename Allocate>
void* orAbort(unsigned long size, unsigned long slack, Allocate allocate) {
    void* raw = size <= ~0ul - slack ? allocate(size + slack) : nullptr;
    if (raw == nullptr) {
        system::abort("allocate failed: out of memory");
    }
    return raw;
}

}  // namespace

void* allocateOrAbort(unsigned long size, unsigned long slack) {
    return orAbort(size, slack, vlk::allocate);
}

void* callocateOrAbort(unsigned long size, unsigned long slack) {
    return orAbort(size, slack, vlk::callocate);
}

}  // namespace memory::aligned
}  // namespace vlk

extern "C" {
void* vlk_allocate(unsigned long size) {
    return vlk::allocate(size);
}
void* vlk_callocate(unsigned long size) {
    return vlk::callocate(size);
}
void* vlk_reallocate(void* block, unsigned long size) {
    return vlk::reallocate(block, size);
}
void vlk_deallocate(void* block) {
    vlk::deallocate(block);
}
}
