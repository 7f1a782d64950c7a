// The baseline of a process start: a C++ program that links the standard
// library and does nothing.
#include <iostream>

int main() {
    std::cout.flush();
    return 0;
}
