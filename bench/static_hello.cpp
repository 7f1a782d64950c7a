// The floor of a process start: a C++ program linked fully statically that
// prints one line through iostreams. velkmsg_startup_bench measures velkmsg
// against it.
#include <iostream>

int main() {
    std::cout << "hello" << std::endl;
    return 0;
}
