// The syslog target: its keys, read on the target object, and what a real
// syslog daemon receives from it.
//
// How the fixed socket is redirected: glibc's syslog() always sends to
// "/dev/log". The delivery test starts Debian's rsyslogd in the foreground on
// a configuration, pid file and work directory of its own, all in a fresh
// directory under /tmp: imuxsock with the system socket switched off, one
// input socket <dir>/log.sock, and an omfile action that writes priority,
// facility, severity, tag and message of each record into <dir>/out.log.
// The target is then driven in a forked child, which has one thread and so
// may enter a mount namespace of its own: unshare(CLONE_NEWNS), then "/" is
// made recursively private so that no mount propagates back to the host; the
// real /dev is bind-mounted recursively onto <dir>/dev, a tmpfs is mounted
// over /dev, and in it each entry of the real /dev is linked back through
// <dir>/dev, except "log", which becomes a symbolic link to <dir>/log.sock.
// So the child's syslog() reaches the test's daemon, the host's /dev (with
// or without a /dev/log) is never written, and the mounts die with the child.
// Where the namespace cannot be created (not root, no CAP_SYS_ADMIN) the
// test skips.
#include <vlk/logging/syslog_logger.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vlk/system/host.hpp>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vlk::error_id;
using vlk::target_config;

vlk::syslog_logging_info infoOf(vlk::velk_logger::logger& target) {
    vlk::syslog_logging_info info;
    EXPECT_TRUE(target.getSyslogLoggerInfo(info));
    return info;
}

class SyslogLogger : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { vlk::error_manager::init(); }
};

TEST_F(SyslogLogger, NamesMatchExactlyAndUnknownOnesFallBackSilently) {
    struct row {
        const char* options;
        const char* facility;
        std::uint32_t wantOptions;
        std::uint32_t wantFacility;
    };
    const row rows[] = {
        {"", "", 0x01, 0x08},
        {"LOG_PID,LOG_NDELAY", "LOG_LOCAL0", 0x09, 0x80},
        {"LOG_PID, LOG_NDELAY", "LOG_LOCAL7", 0x01, 0xB8},  // " LOG_NDELAY" is unknown
        {"log_pid", "LOG_DAEMON", 0x00, 0x08},              // a value replaces the default LOG_PID
        {"LOG_CONS,LOG_NOWAIT,LOG_ODELAY,LOG_PERROR", "LOG_USER", 0x36, 0x08},
        {",LOG_PERROR,,", "LOG_LOCAL3 ", 0x20, 0x08},
        {"LOG_ODELAY", "log_local3", 0x04, 0x08},
    };
    for (const row& r : rows) {
        target_config config{{"Options", {r.options}}, {"Facility", {r.facility}}};
        auto target = vlk::syslog_logger::factory(config);
        const auto info = infoOf(*target.get());
        EXPECT_EQ(info.options, r.wantOptions) << '"' << r.options << '"';
        EXPECT_EQ(info.facility, r.wantFacility) << '"' << r.facility << '"';
    }
    for (unsigned local = 0; local < 8; ++local) {
        const std::string name = "LOG_LOCAL" + std::to_string(local);
        target_config config{{"Facility", {name}}};
        auto target = vlk::syslog_logger::factory(config);
        EXPECT_EQ(infoOf(*target.get()).facility, (16 + local) << 3) << name;
    }
}

TEST_F(SyslogLogger, IdentDefaultsToTheProgramNameAndEveryKeyIsLeftInTheMap) {
    // Before the host probe the program name is empty; give it one so that
    // the default is visible, and put the empty one back.
    std::string& programName = vlk::_vlk_system_detail::_programName;
    const std::string saved = std::exchange(programName, "probe-program");
    target_config empty;
    auto byDefault = vlk::syslog_logger::factory(empty);
    programName = saved;
    auto info = infoOf(*byDefault.get());
    EXPECT_EQ(info.ident, "probe-program");
    EXPECT_EQ(info.levels, "none");
    for (const char* key : {"Ident", "Options", "Facility", "Level", "Levels", "IncludeErrors",
                            "ExcludeErrors", "FatalErrors"}) {
        EXPECT_TRUE(empty.contains(key) && empty[key].text().empty()) << key;
    }

    target_config named{
        {"Ident", {"vlk-probe"}}, {"Level", {"warning"}}, {"ExcludeErrors", {"01-0001"}}};
    auto target = vlk::syslog_logger::factory(named);
    info = infoOf(*target.get());
    EXPECT_EQ(info.target, target.get());
    EXPECT_EQ(info.ident, "vlk-probe");
    EXPECT_EQ(info.levels, "warning,error,critical,emergency");
    EXPECT_EQ(info.excludeErrors, "01-0001");
    vlk::file_logging_info file;
    vlk::console_logging_info console;
    EXPECT_FALSE(target->getFileLoggerInfo(file));
    EXPECT_FALSE(target->getConsoleLoggerInfo(console));
}

TEST_F(SyslogLogger, CountsOnlyAcceptedLinesWhoseLevelByteIsNotOneLevel) {
    // Such lines are dropped before syslog(), so this test sends nothing.
    target_config config{{"Level", {"info"}}, {"ExcludeErrors", {"01-0002"}}};
    auto target = vlk::syslog_logger::factory(config);
    target->log(error_id{0x18, 0x01, 1}, "abcde", 5);  // info and warning: accepted
    target->log(error_id{0x03, 0x01, 1}, "xx", 2);     // developer and trace: refused
    target->log(error_id{0x30, 0x01, 2}, "yyy", 3);    // an excluded row
    target->rotate();
    target->flush();
    target->log(error_id{0xFF, 0x01, 3}, "0123456", 7);
    EXPECT_EQ(infoOf(*target.get()).bytesWritten, 12u);
}

// One record as the daemon wrote it.
struct record {
    int priority = 0;
    int facility = 0;
    int severity = 0;
    std::string tag;
    std::string text;
    bool operator==(const record&) const = default;
};

void PrintTo(const record& r, std::ostream* out) {
    *out << r.priority << '|' << r.facility << '|' << r.severity << '|' << r.tag << '|' << r.text;
}

// Exit statuses of the child that drives the targets.
constexpr int no_namespace = 77;
constexpr int redirect_failed = 78;
constexpr int counted_sent_lines = 79;
constexpr int child_threw = 80;

// rsyslogd on a configuration, socket and output of its own in a directory
// of its own. The destructor kills and reaps it and removes the directory,
// whatever the test did.
class private_daemon {
  public:
    private_daemon() {
        // Under /tmp, not TMPDIR: a socket's path has at most 107 bytes.
        char pattern[] = "/tmp/vlk-syslog-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            _dir = pattern;
        }
    }
    private_daemon(const private_daemon&) = delete;
    private_daemon& operator=(const private_daemon&) = delete;
    ~private_daemon() {
        stop();
        removeDirectory();
    }

    const fs::path& dir() const { return _dir; }
    fs::path socket() const { return _dir / "log.sock"; }

    // Starts the daemon and waits until it listens; empty on success,
    // otherwise why it failed.
    std::string start() {
        static const char daemon[] = "/usr/sbin/rsyslogd";
        if (_dir.empty()) {
            return "mkdtemp failed";
        }
        if (access(daemon, X_OK) != 0) {
            return std::string(daemon) + " is missing: run scripts/install-deps.sh";
        }
        writeConfiguration();
        _pid = fork();
        if (_pid < 0) {
            return "fork failed";
        }
        if (_pid == 0) {
            // Dies with the test even if the test is killed.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::freopen(path("daemon.out").c_str(), "w", stdout);
            dup2(fileno(stdout), STDERR_FILENO);
            execl(daemon, "rsyslogd", "-n", "-f", path("rsyslog.conf").c_str(), "-i",
                  path("rsyslogd.pid").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!fs::exists(socket())) {
            int status = 0;
            if (waitpid(_pid, &status, WNOHANG) == _pid) {
                _pid = -1;
                return "rsyslogd ended early: " + output();
            }
            if (std::chrono::steady_clock::now() > deadline) {
                return "rsyslogd did not open its socket within 10 s: " + output();
            }
            std::this_thread::sleep_for(10ms);
        }
        return {};
    }

    // The records written so far, once `count` of them are there or the
    // timeout has passed. The daemon's own records are left out.
    std::vector<record> waitForRecords(std::size_t count, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::vector<record> records = readRecords();
        while (records.size() < count && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(10ms);
            records = readRecords();
        }
        return records;
    }

    std::string output() const { return readFile(path("daemon.out")); }

  private:
    std::string path(const char* name) const { return (_dir / name).string(); }

    static std::string readFile(const std::string& name) {
        std::ifstream in(name);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    void writeConfiguration() const {
        const std::string dir = _dir.string();
        std::ofstream(path("rsyslog.conf"))
            << "global(workDirectory=\"" << dir << "\")\n"
            << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
            << "input(type=\"imuxsock\" Socket=\"" << socket().string() << "\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%pri%|%syslogfacility%|"
               "%syslogseverity%|%syslogtag%|%msg%\\n\")\n"
            << "*.* action(type=\"omfile\" file=\"" << dir << "/out.log\" template=\"fields\")\n";
    }

    std::vector<record> readRecords() const {
        std::vector<record> records;
        std::string text = readFile(path("out.log"));
        text.erase(text.rfind('\n') + 1);  // a line still being written waits
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            record r;
            int used = 0;
            std::sscanf(line.c_str(), "%d|%d|%d|%n", &r.priority, &r.facility, &r.severity, &used);
            const std::size_t bar = line.find('|', used);
            r.tag = line.substr(used, bar - used);
            // The blank behind the tag's colon stays in the message.
            r.text = line.substr(std::min(bar + 2, line.size()));
            if (!r.tag.starts_with("rsyslogd")) {
                records.push_back(r);
            }
        }
        return records;
    }

    void stop() {
        if (_pid <= 0) {
            return;
        }
        kill(_pid, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (waitpid(_pid, nullptr, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(_pid, SIGKILL);
                waitpid(_pid, nullptr, 0);
                break;
            }
            std::this_thread::sleep_for(10ms);
        }
        _pid = -1;
    }

    void removeDirectory() const {
        if (_dir.empty()) {
            return;
        }
        std::error_code ignored;
        // rmdir first: should /dev still be mounted there, it is not empty,
        // and nothing below it is removed.
        fs::remove(_dir / "dev", ignored);
        if (!fs::exists(_dir / "dev", ignored)) {
            fs::remove_all(_dir, ignored);
        }
    }

    fs::path _dir;
    pid_t _pid = -1;
};

// In the child: points /dev/log at the daemon's socket, for this process
// only. Returns 0 or the child's exit status.
int redirectDevLog(const fs::path& dir, const fs::path& socket) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("private mount namespace");
        return no_namespace;
    }
    const fs::path hostDev = dir / "dev";
    fs::create_directory(hostDev);
    if (mount("/dev", hostDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        std::perror("mount over /dev");
        return redirect_failed;
    }
    for (const auto& entry : fs::directory_iterator(hostDev)) {
        if (entry.path().filename() != "log") {
            fs::create_symlink(entry.path(), "/dev" / entry.path().filename());
        }
    }
    fs::create_symlink(socket, "/dev/log");
    return 0;
}

struct levelled_line {
    std::uint8_t level;
    const char* text;
};

// Every level a row can have, and level none, which only a row named in
// "IncludeErrors" brings through the filter.
constexpr levelled_line every_level[] = {
    {0x00, "level none\n"},  {0x01, "level developer\n"}, {0x02, "level trace\n"},
    {0x04, "level stats\n"}, {0x08, "level info\n"},      {0x10, "level warning\n"},
    {0x20, "level error\n"}, {0x40, "level critical\n"},  {0x80, "level emergency\n"},
};

// In the child: a target with the default identity, options and facility
// logs every level, then one with its own identity, no LOG_PID and a local
// facility logs above warning. Returns 0 or the child's exit status.
int logThroughTwoTargets() {
    target_config defaults{{"Level", {"developer"}}, {"IncludeErrors", {"01-0001"}}};
    auto first = vlk::syslog_logger::factory(defaults);
    first->init();
    for (const levelled_line& line : every_level) {
        first->log(error_id{line.level, 0x01, 1}, line.text, std::strlen(line.text));
    }
    vlk::syslog_logging_info info;
    first->getSyslogLoggerInfo(info);
    first->shutdown();
    if (info.bytesWritten != 0) {
        return counted_sent_lines;
    }

    target_config local{{"Ident", {"vlk-probe"}},
                        {"Options", {"LOG_NDELAY"}},
                        {"Facility", {"LOG_LOCAL3"}},
                        {"Level", {"warning"}}};
    auto second = vlk::syslog_logger::factory(local);
    second->init();
    // Only the first line of the buffer is the record; "%" in it is text.
    const char buffer[] = "as it stands: %s %n 100%\nbytes behind the record";
    second->log(error_id{0x40, 0x01, 1}, buffer, std::strchr(buffer, '\n') + 1 - buffer);
    second->log(error_id{0x04, 0x01, 1}, "stats, below warning\n", 21);
    second->log(error_id{0x20, 0x01, 1}, "error\n", 6);
    second->shutdown();
    return 0;
}

[[noreturn]] void driveTargetsInChild(const private_daemon& daemon) {
    int status = child_threw;
    try {
        const int redirected = redirectDevLog(daemon.dir(), daemon.socket());
        status = redirected != 0 ? redirected : logThroughTwoTargets();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "child: %s\n", failure.what());
    }
    // _exit: the child must not run the test's destructors, which would stop
    // the parent's daemon.
    _exit(status);
}

std::vector<record> expectedRecords(pid_t child) {
    constexpr int user = 1;
    constexpr int local3 = 19;
    constexpr int severities[] = {7, 7, 7, 6, 6, 4, 3, 2, 0};
    const std::string tag = vlk::system::programName() + "[" + std::to_string(child) + "]:";
    std::vector<record> records;
    for (std::size_t i = 0; i < std::size(every_level); ++i) {
        std::string text = every_level[i].text;
        text.pop_back();  // the daemon drops a trailing line feed
        records.push_back({user * 8 + severities[i], user, severities[i], tag, text});
    }
    records.push_back({local3 * 8 + 2, local3, 2, "vlk-probe:", "as it stands: %s %n 100%"});
    records.push_back({local3 * 8 + 3, local3, 3, "vlk-probe:", "error"});
    return records;
}

std::string childFailure(int status) {
    if (WIFSIGNALED(status)) {
        return "the child died of signal " + std::to_string(WTERMSIG(status));
    }
    switch (WEXITSTATUS(status)) {
        case redirect_failed:
            return "the child could not mount over /dev";
        case counted_sent_lines:
            return "lines handed to syslog() were counted in bytesWritten";
        case child_threw:
            return "the child threw (see its stderr)";
        default:
            return "the child exited with " + std::to_string(WEXITSTATUS(status));
    }
}

TEST_F(SyslogLogger, ADaemonReceivesPriorityFacilityIdentityAndTextAsLogged) {
    private_daemon daemon;
    ASSERT_EQ(daemon.start(), "");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        driveTargetsInChild(daemon);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == no_namespace) {
        GTEST_SKIP() << "no private mount namespace (needs root with CAP_SYS_ADMIN), so "
                        "/dev/log cannot be pointed at the test's own daemon";
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << childFailure(status);

    const std::vector<record> expected = expectedRecords(child);
    EXPECT_EQ(daemon.waitForRecords(expected.size(), 10s), expected) << daemon.output();
}

}  // namespace
