// Costs of the lookup: a search, building the catalogue's table, and a whole
// velkmsg run against the start of an empty C++ program.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <benchmark/benchmark.h>

#include <string>

#include <vlk/catalogue/errors.hpp>

extern char** environ;

namespace {

void BM_FindErrors(benchmark::State& state, const std::string& pattern) {
    for (auto _ : state) {
        vlk::error_map found;
        vlk::error_manager::findErrors(pattern, found);
        benchmark::DoNotOptimize(found.size());
    }
}
BENCHMARK_CAPTURE(BM_FindErrors, all_rows, std::string("."));
BENCHMARK_CAPTURE(BM_FindErrors, one_row, std::string("01-0001"));

// What the static initialisers do for the error manager: every row's texts
// copied into a fresh table, in catalogue order, growth included.
void BM_BuildCatalogueTable(benchmark::State& state) {
    for (auto _ : state) {
        vlk::error_map catalogue;
#define VLK_ROW(category, code, level, shape, description, action, ...)                            \
    catalogue.insert(vlk::error_id{static_cast<std::uint8_t>(vlk::log_level::level), 0x##category, \
                                   static_cast<std::uint16_t>(std::stoi(#code))},                  \
                     vlk::error_description{description, action});
#define VLK_BARE(category, code, level, description, action) \
    VLK_ROW(category, code, level, bare, description, action)
#include <vlk/catalogue/catalogue_rows.inc>
#undef VLK_ROW
#undef VLK_BARE
        benchmark::DoNotOptimize(catalogue.size());
    }
}
BENCHMARK(BM_BuildCatalogueTable)->Unit(benchmark::kMicrosecond);

void runProgram(benchmark::State& state, const char* path, const char* argument) {
    char* argv[] = {const_cast<char*>(path), const_cast<char*>(argument), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawn(&pid, path, &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("spawn failed");
            break;
        }
        int status;
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}

void BM_Process_velkmsg_01_0001(benchmark::State& state) {
    runProgram(state, VLK_VELKMSG_PATH, "01-0001");
}
BENCHMARK(BM_Process_velkmsg_01_0001)->Unit(benchmark::kMicrosecond);

void BM_Process_empty_cpp_program(benchmark::State& state) {
    runProgram(state, VLK_EMPTY_PROGRAM_PATH, "01-0001");
}
BENCHMARK(BM_Process_empty_cpp_program)->Unit(benchmark::kMicrosecond);

}  // namespace
