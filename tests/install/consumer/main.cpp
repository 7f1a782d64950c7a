// Uses the installed toolkit as an outside program would: looks up row
// 01-0001 and exits 0 only when exactly that row is found, with its texts.
// Building a gzip target, which opens nothing, puts zlib into the link.
#include <cstdio>
#include <string>

#include <vlk/vlk.hpp>

int main() {
    vlk::error_manager::init();

    vlk::target_config gzip{{"FileName", {"unused.log.gz"}}};
    vlk::file_logging_info gzipInfo;
    if (!vlk::gzip_logger::factory(gzip)->getFileLoggerInfo(gzipInfo) ||
        gzipInfo.fileNamePattern != "unused.log.gz") {
        std::fprintf(stderr, "gzip target: no file pattern\n");
        return 1;
    }

    vlk::error_map found;
    vlk::error_manager::findErrors("01-0001", found);
    if (found.size() != 1) {
        std::fprintf(stderr, "01-0001: %llu rows found, expected 1\n",
                     static_cast<unsigned long long>(found.size()));
        return 1;
    }
    for (const auto& row : found) {
        std::string id;
        vlk::appendErrorId(id, row.key);
        const vlk::error_description info = vlk::error_manager::errorInfo(row.key);
        std::printf("%s: %s\n", id.c_str(), info.description.c_str());
        if (id != "01-0001" || info.description.empty() ||
            info.description != row.value.description) {
            std::fprintf(stderr, "01-0001: wrong row or texts\n");
            return 1;
        }
    }
    return 0;
}
