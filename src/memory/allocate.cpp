#include <vlk/memory/allocate.hpp>

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

void* allocateOrAbort(unsigned long size) {
    void* raw = vlk::allocate(size);
    if (raw == nullptr) {
        system::abort("allocate failed: out of memory");
    }
    return raw;
}

void* callocateOrAbort(unsigned long size) {
    void* raw = vlk::callocate(size);
    if (raw == nullptr) {
        system::abort("allocate failed: out of memory");
    }
    return raw;
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
