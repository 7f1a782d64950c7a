// The heap that velkmsg's static initialisers allocate from (startup_heap.cpp).
#pragma once

namespace velkmsg {

#if VLK_STARTUP_HEAP
// Sends every later `operator new` to the C heap. main calls it first.
void endStartupHeap();
#else
// Builds without the start-up heap (the sanitizer builds) allocate from the
// C heap throughout.
inline void endStartupHeap() {}
#endif

}  // namespace velkmsg
