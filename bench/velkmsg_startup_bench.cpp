// A whole velkmsg run, from spawn to reap, side by side with two baselines:
// `grep -A4 01-0001` over a text dump of `velkmsg .` (the same answer from a
// file), and a fully static C++ hello (the floor of a process start).
//
// Every iteration spawns one process and times it with the wall clock, and
// counts its page faults from wait4's usage. The programs' repetitions are
// interleaved in random order, so that a change in the machine's load falls
// on all of them alike; the medians of the repetitions are compared, and the
// program ends with a table of ratios. Standard output goes to a regular
// file for every program: grep stops at its first match when it writes to
// /dev/null, which would flatter it.
//
// Defaults (any can be overridden on the command line): 40 repetitions of
// 0.05 s each, interleaved, aggregates only. `--also=<label>=<path>` adds
// `<path> 01-0001` as velkmsg[<label>], to compare other builds of velkmsg
// in the same run; it may be repeated.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

struct command {
    std::string name;
    std::vector<std::string> arguments;  // the first is the program
    int status;                          // the exit status it must end with
};

struct outcome {
    bool ok;
    int status;
    long faults;
    double cpu;  // user and system seconds of the child
};

// Runs `arguments` with standard output truncated into `output` and standard
// error discarded, and waits for it.
outcome spawnAndWait(const std::vector<std::string>& arguments, const std::string& output) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        return {false, -1, 0, 0};
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status)) {
        return {false, -1, 0, 0};
    }
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return {true, WEXITSTATUS(status), usage.ru_minflt + usage.ru_majflt,
            seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

std::string g_output;

void BM_Process(benchmark::State& state, const command& run) {
    long faults = 0;
    double cpu = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const outcome result = spawnAndWait(run.arguments, g_output);
        const auto stop = std::chrono::steady_clock::now();
        if (!result.ok || result.status != run.status) {
            state.SkipWithError("the program failed or ended with an unexpected status");
            break;
        }
        faults += result.faults;
        cpu += result.cpu;
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    }
    state.counters["faults"] =
        benchmark::Counter(static_cast<double>(faults), benchmark::Counter::kAvgIterations);
    state.counters["cpu_us"] = benchmark::Counter(cpu * 1e6, benchmark::Counter::kAvgIterations);
}

// Prints what the console reporter prints, keeps the medians, and at the end
// divides each velkmsg median by each baseline's.
class ratio_reporter : public benchmark::ConsoleReporter {
  public:
    ratio_reporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                _medians[run.run_name.function_name] = run.GetAdjustedRealTime();
                const auto cpu = run.counters.find("cpu_us");
                if (cpu != run.counters.end()) {
                    _cpuMedians[run.run_name.function_name] = cpu->second.value;
                }
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        _printRatios("median ratios (velkmsg / baseline)", _medians);
        // The children's own processor time (user and system, from wait4)
        // is less sensitive than wall time to a machine loaded by others.
        _printRatios("median CPU-time ratios (velkmsg / baseline)", _cpuMedians);
    }

  private:
    static void _printRatios(const char* title, const std::map<std::string, double>& medians) {
        const char* const baselines[] = {"grep_-A4_01-0001", "static_hello"};
        std::printf("\n%s:\n%-28s", title, "");
        for (const char* baseline : baselines) {
            std::printf(" %18s", baseline);
        }
        std::printf("\n");
        for (const auto& [name, median] : medians) {
            if (!name.starts_with("velkmsg")) {
                continue;
            }
            std::printf("%-28s", name.c_str());
            for (const char* baseline : baselines) {
                const auto found = medians.find(baseline);
                if (found == medians.end() || found->second <= 0) {
                    std::printf(" %18s", "-");
                } else {
                    std::printf(" %18.3f", median / found->second);
                }
            }
            std::printf("\n");
        }
    }

    std::map<std::string, double> _medians;
    std::map<std::string, double> _cpuMedians;
};

}  // namespace

int main(int argc, char** argv) {
    // Defaults go first, so that the caller's flags override them.
    std::vector<char*> arguments{argv[0]};
    const char* defaults[] = {"--benchmark_repetitions=40", "--benchmark_min_time=0.05",
                              "--benchmark_enable_random_interleaving=true",
                              "--benchmark_report_aggregates_only=true"};
    for (const char* flag : defaults) {
        arguments.push_back(const_cast<char*>(flag));
    }
    std::vector<command> commands;
    const std::string_view also = "--also=";
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const auto equals = argument.find('=', also.size());
        if (!argument.starts_with(also) || equals == std::string_view::npos) {
            arguments.push_back(argv[i]);
            continue;
        }
        const std::string label(argument.substr(also.size(), equals - also.size()));
        const std::string path(argument.substr(equals + 1));
        commands.push_back({"velkmsg[" + label + "]_01-0001", {path, "01-0001"}, 0});
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }

    char directory[] = "/tmp/velkmsg_startup_bench.XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    g_output = std::string(directory) + "/out";
    const std::string dump = std::string(directory) + "/report.txt";
    const outcome dumped = spawnAndWait({VLK_VELKMSG_PATH, "."}, dump);
    if (!dumped.ok || dumped.status != 0) {
        std::fprintf(stderr, "could not write the report dump with %s\n", VLK_VELKMSG_PATH);
        return 1;
    }

    commands.insert(commands.end(), {
                                        {"velkmsg_01-0001", {VLK_VELKMSG_PATH, "01-0001"}, 0},
                                        {"velkmsg_.", {VLK_VELKMSG_PATH, "."}, 0},
                                        {"velkmsg_zz", {VLK_VELKMSG_PATH, "zz"}, 1},
                                        {"grep_-A4_01-0001", {"grep", "-A4", "01-0001", dump}, 0},
                                        {"static_hello", {VLK_STATIC_HELLO_PATH}, 0},
                                    });
    for (const command& run : commands) {
        benchmark::RegisterBenchmark(run.name.c_str(), BM_Process, run)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::remove(g_output.c_str());
    std::remove(dump.c_str());
    rmdir(directory);
    return 0;
}
