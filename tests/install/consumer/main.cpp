// Uses the installed toolkit as an outside program would: exits 0 only when
// row 01-0001 is found alone, with its texts. Building a gzip target, which
// opens nothing, puts zlib into the link. The build says which version it
// found (VLK_EXPECTED_VERSION); the generated header must agree.
#include <cstdio>
#include <cstring>
#include <string>

#include <vlk/vlk.hpp>

int main() {
    if (std::strcmp(VLK_VERSION_STRING, VLK_EXPECTED_VERSION) != 0) {
        std::fprintf(stderr, "header version %s, package version %s\n", VLK_VERSION_STRING,
                     VLK_EXPECTED_VERSION);
        return 1;
    }
    vlk::error_manager::init();
    vlk::target_config gzip{{"FileName", {"unused.log.gz"}}};
    vlk::file_logging_info gzipInfo;
    vlk::error_map found;
    vlk::error_manager::findErrors("01-0001", found);
    if (!vlk::gzip_logger::factory(gzip)->getFileLoggerInfo(gzipInfo) ||
        gzipInfo.fileNamePattern != "unused.log.gz" || found.size() != 1) {
        std::fprintf(stderr, "no gzip file pattern, or not exactly one row for 01-0001\n");
        return 1;
    }
    const auto& row = *found.begin();
    std::string id;
    vlk::appendErrorId(id, row.key);
    const vlk::error_description info = vlk::error_manager::errorInfo(row.key);
    std::printf("%s: %s\n", id.c_str(), info.description.c_str());
    const bool same = id == "01-0001" && info.description == row.value.description;
    return same && !info.description.empty() ? 0 : 1;
}
