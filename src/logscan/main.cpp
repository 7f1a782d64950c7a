// vlk-logscan: counts the record lines of log files by catalogue row and
// explains each row as velkmsg does.
#include "logscan.hpp"

int main(int argc, char** argv) {
    return vlk::logscan::run(argc, argv);
}
