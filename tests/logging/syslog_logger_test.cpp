// The syslog target: its keys, read on the target object, and what a real
// syslog daemon receives from it.
//
// glibc's syslog() always sends to "/dev/log". The delivery test starts
// Debian's rsyslogd in the foreground on a configuration of its own in a
// fresh directory under /tmp, listening on <dir>/log.sock and writing each
// record's priority, facility, severity, tag and message to <dir>/out.log.
// The target runs in a forked child (one thread) that enters a private mount
// namespace, bind-mounts the real /dev onto <dir>/dev, mounts a tmpfs over
// /dev and links every entry back except "log", which points at the daemon's
// socket. The host's /dev is never written and the mounts die with the
// child. Without CAP_SYS_ADMIN the test skips.
#include <vlk/logging/syslog_logger.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <vlk/system/host.hpp>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vlk::error_id;
using vlk::target_config;

TEST(SyslogLogger, CountsOnlyAcceptedLinesWhoseLevelByteIsNotOneLevel) {
    vlk::error_manager::init();
    // Such lines are dropped before syslog(), so this test sends nothing.
    target_config config{{"Level", {"info"}}, {"ExcludeErrors", {"01-0002"}}};
    auto target = vlk::syslog_logger::factory(config);
    target->log(error_id{0x18, 0x01, 1}, "abcde", 5);  // info and warning: accepted
    target->log(error_id{0x03, 0x01, 1}, "xx", 2);     // developer and trace: refused
    target->log(error_id{0x30, 0x01, 2}, "yyy", 3);    // an excluded row
    target->rotate();
    target->flush();
    target->log(error_id{0xFF, 0x01, 3}, "0123456", 7);
    vlk::syslog_logging_info info;
    ASSERT_TRUE(target->getSyslogLoggerInfo(info));
    EXPECT_EQ(info.bytesWritten, 12u);
}

// rsyslogd in a directory of its own (under /tmp, not TMPDIR: a socket path
// has at most 107 bytes). The destructor kills and reaps it and removes the
// directory, whatever the test did.
struct private_daemon {
    private_daemon() {
        char pattern[] = "/tmp/vlk-syslog-XXXXXX";
        dir = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~private_daemon() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        // rmdir first: should /dev still be mounted there, it is not empty,
        // and nothing below it is removed.
        std::error_code ignored;
        if (!dir.empty() && (fs::remove(dir / "dev", ignored), !fs::exists(dir / "dev", ignored))) {
            fs::remove_all(dir, ignored);
        }
    }

    // Starts the daemon, whose messages go to the test's own output, and
    // waits until it listens; empty, or why not.
    std::string start() {
        static const char daemon[] = "/usr/sbin/rsyslogd";
        if (dir.empty() || access(daemon, X_OK) != 0) {
            return "no directory, or no rsyslogd: run scripts/install-deps.sh";
        }
        std::ofstream(dir / "rsyslog.conf")
            << "global(workDirectory=\"" << dir.string() << "\")\n"
            << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
            << "input(type=\"imuxsock\" Socket=\"" << socket().string() << "\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%pri%|%syslogfacility%|"
               "%syslogseverity%|%syslogtag%|%msg%\\n\")\n"
            << "*.* action(type=\"omfile\" file=\"" << (dir / "out.log").string()
            << "\" template=\"fields\")\n";
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // dies with the test even if it is killed
            execl(daemon, "rsyslogd", "-n", "-f", (dir / "rsyslog.conf").c_str(), "-i",
                  (dir / "rsyslogd.pid").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 1000 && !fs::exists(socket()); ++i) {
            std::this_thread::sleep_for(10ms);
        }
        return fs::exists(socket()) ? "" : "rsyslogd did not open its socket within 10 s";
    }

    // The complete lines written so far, without the daemon's own, once
    // `count` are there or 10 s have passed.
    std::vector<std::string> waitForRecords(std::size_t count) const {
        std::vector<std::string> records;
        for (int i = 0; i < 1000 && records.size() < count; ++i) {
            std::this_thread::sleep_for(10ms);
            std::ifstream lines(dir / "out.log");
            records.clear();
            for (std::string line; std::getline(lines, line) && !lines.eof();) {  // whole lines
                if (line.find("|rsyslogd") == std::string::npos) {
                    records.push_back(line);
                }
            }
        }
        return records;
    }

    fs::path socket() const { return dir / "log.sock"; }
    fs::path dir;
    pid_t pid = -1;
};

constexpr int no_namespace = 77;  // the child's exit status that skips the test

// In the child: points /dev/log at the daemon's socket, for this process
// only. Returns 0 or the child's exit status.
int redirectDevLog(const private_daemon& daemon) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("private mount namespace");
        return no_namespace;
    }
    // A failure below shows as records missing at the daemon.
    std::error_code ignored;
    const fs::path hostDev = daemon.dir / "dev";
    fs::create_directory(hostDev, ignored);
    if (mount("/dev", hostDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        std::perror("mount over /dev");
        return 1;
    }
    for (const auto& entry : fs::directory_iterator(hostDev, ignored)) {
        if (entry.path().filename() != "log") {
            fs::create_symlink(entry.path(), "/dev" / entry.path().filename(), ignored);
        }
    }
    fs::create_symlink(daemon.socket(), "/dev/log", ignored);
    return 0;
}

// Every level a row can have, and level none, which only a row named in
// "IncludeErrors" brings through the filter; each with its severity.
constexpr struct {
    std::uint8_t level;
    const char* text;
    int severity;
} every_level[] = {
    {0x00, "level none\n", 7},  {0x01, "level developer\n", 7}, {0x02, "level trace\n", 7},
    {0x04, "level stats\n", 6}, {0x08, "level info\n", 6},      {0x10, "level warning\n", 4},
    {0x20, "level error\n", 3}, {0x40, "level critical\n", 2},  {0x80, "level emergency\n", 0},
};

// In the child: a target with the default identity, options and facility
// logs every level, and does not count what it hands to syslog(); then one
// with its own identity, no LOG_PID and a local facility logs above warning.
// Names match exactly: with a blank or in lower case they are unknown, and
// unknown ones fall back silently. Returns 0 or the child's exit status.
int logThroughTwoTargets() {
    target_config defaults{
        {"Level", {"developer"}}, {"IncludeErrors", {"01-0001"}}, {"Facility", {"LOG_LOCAL3 "}}};
    auto first = vlk::syslog_logger::factory(defaults);
    first->init();
    for (const auto& line : every_level) {
        first->log(error_id{line.level, 0x01, 1}, line.text, std::strlen(line.text));
    }
    vlk::syslog_logging_info info;
    first->getSyslogLoggerInfo(info);
    first->shutdown();

    target_config local{{"Ident", {"vlk-probe"}},
                        {"Options", {"LOG_NDELAY, LOG_PID,log_pid"}},
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
    return info.bytesWritten == 0 ? 0 : 1;
}

// "priority|facility|severity|tag|message" for a child's lines: the daemon
// drops a trailing line feed and keeps the blank behind the tag's colon.
TEST(SyslogLogger, ADaemonReceivesPriorityFacilityIdentityAndTextAsLogged) {
    vlk::error_manager::init();
    private_daemon daemon;
    ASSERT_EQ(daemon.start(), "");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int status = redirectDevLog(daemon);
        // Not exit: the test's destructors would stop the daemon.
        _exit(status != 0 ? status : logThroughTwoTargets());
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == no_namespace) {
        GTEST_SKIP() << "no private mount namespace (needs CAP_SYS_ADMIN)";
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "child wait status " << status << " (see its stderr)";

    const std::string tag = vlk::system::programName() + "[" + std::to_string(child) + "]:";
    std::vector<std::string> expected;
    for (const auto& line : every_level) {
        expected.push_back(std::to_string(8 + line.severity) + "|1|" +
                           std::to_string(line.severity) + "|" + tag + "| " +
                           std::string(line.text, std::strlen(line.text) - 1));
    }
    expected.push_back("154|19|2|vlk-probe:| as it stands: %s %n 100%");
    expected.push_back("155|19|3|vlk-probe:| error");
    EXPECT_EQ(daemon.waitForRecords(expected.size()), expected);
}

}  // namespace
