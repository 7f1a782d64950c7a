// velkmsg: prints the catalogue rows whose identifier matches a regular
// expression, then how many it found.
#include <malloc.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/report.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/regex/regex_manager.hpp>

#include "startup_heap.hpp"

namespace {

// Hash tables are mapped blocks. When glibc unmaps a freed mapped block it
// raises its mapping threshold above that block's size, so a later table of
// that size would come from the heap, where calloc has to clear it: some 30
// pages written for a result map of which a run like `velkmsg 01-0001` uses
// one bucket. Pinning the threshold at its default keeps every table
// mapped, and fresh mapped pages are zero without being touched. Priority
// 101 runs this before any static initialiser that allocates.
[[gnu::constructor(101)]] void pinMappingThreshold() {
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
}

void printUsage(const char* program) {
    std::cerr << "Usage:\n\t" << program << " <error>\n";
    std::cerr << "\nWhere:\n";
    std::cerr << "\t<error> - the error code to lookup.\n";
    std::cerr << "\t          (This can also be a regular expression.)\n\n";
    std::cerr << "\nExample:\n";
    std::cerr << "\t" << program << " 01-0001\n";
    std::cerr << "\t\tReturns the extended information for error code '01-0001'.\n\n";
    std::cerr << "\t" << program << " 00-\n";
    std::cerr << "\t\tReturns all errors with prefix 00-.\n\n";
    std::cerr << "\t" << program << " .\n";
    std::cerr << "\t\tReturns all errors.\n\n";
}

}  // namespace

int main(int argc, char** argv) {
    velkmsg::endStartupHeap();
    if (argc != 2) {
        printUsage(argc > 0 && argv[0] != nullptr ? argv[0] : "");
        std::exit(1);
    }
    vlk::velk_logger::init();
    velk::velk_regex_manager::init();
    vlk::error_manager::init();

    std::string pattern(argv[1]);
    vlk::foldHexLetters(pattern);

    vlk::error_map found;
    vlk::error_manager::findErrors(pattern, found);
    if (found.size() == 0) {
        std::cerr << "No errors found matching '" << pattern << "'." << std::endl;
        return 1;
    }
    for (const auto& row : found) {
        displayError(row.key, row.value);
    }
    std::cout << "Found " << found.size() << ' ' << (found.size() == 1 ? "error" : "errors")
              << " matching '" << pattern << "'." << std::endl;
    return 0;
}
