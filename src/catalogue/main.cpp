// velkmsg: prints the catalogue rows whose identifier matches a regular
// expression, then how many it found.
#include <cstdlib>
#include <iostream>
#include <string>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/report.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/regex/regex_manager.hpp>

namespace {

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

// Brings the hexadecimal letters a-f to the case of the identifiers. Only
// those six letters: it is no general upper-casing, and escapes such as \d
// are folded too, on purpose.
void foldHexLetters(std::string& text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'f') {
            c = static_cast<char>(c - 0x20);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        printUsage(argc > 0 && argv[0] != nullptr ? argv[0] : "");
        std::exit(1);
    }
    vlk::velk_logger::init();
    velk::velk_regex_manager::init();
    vlk::error_manager::init();

    std::string pattern(argv[1]);
    foldHexLetters(pattern);

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
