// The process guard's pieces: how a child's end becomes the exit code, the signal note, the
// signal set-up, the child's process group, and the lock file.
#include "front/kiv_guard.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "front/fd_capture.hpp"
#include "util/qx.hpp"

namespace {

TEST(KivGuard, ChildEndBecomesTheExitCode) {
    struct Row {
        const char *name;
        int status;
        int code;
        const char *message;
    };
    const Row rows[] = {
        {"success", W_EXITCODE(0, 0), 0, ""},
        {"action failure", W_EXITCODE(1, 0), 1, ""},
        {"action result -1", W_EXITCODE(255, 0), 255, ""},
        {"install code", W_EXITCODE(14, 0), 14, ""},
        {"signal 1", W_EXITCODE(0, SIGHUP), 64, "child terminated by signal #1\n"},
        {"assertion", W_EXITCODE(0, SIGABRT), 69, "child terminated by signal #6\n"},
        {"assertion with core", W_EXITCODE(0, SIGABRT) | WCOREFLAG, 69,
         "child terminated by signal #6\n"},
        {"killed", W_EXITCODE(0, SIGKILL), 72, "child terminated by signal #9\n"},
        {"signal 64", W_EXITCODE(0, 64), 127, "child terminated by signal #64\n"},
        {"signal 65", W_EXITCODE(0, 65), 63, "child terminated by unknown signal #65\n"},
        {"signal 126", W_EXITCODE(0, 126), 63, "child terminated by unknown signal #126\n"},
        {"stopped", W_STOPCODE(SIGSTOP), 13, "child terminated for some unknown reason\n"},
        {"continued", 0xffff, 13, "child terminated for some unknown reason\n"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        FdCapture err(2);
        EXPECT_EQ(kiv_exit_code_of(r.status), r.code);
        EXPECT_EQ(err.text(), r.message);
    }
}

TEST(KivGuard, SignalNoteNamesTheRole) {
    struct Row {
        int role;
        int signal;
        const char *message;
    };
    const Row rows[] = {
        {KIV_ROLE_UNKNOWN, SIGHUP, "yet unknown if child: Got signal #1\n"},
        {KIV_ROLE_PARENT, SIGTERM, "parent: Got signal #15\n"},
        {KIV_ROLE_CHILD, SIGINT, "child: Got signal #2\n"},
        {KIV_ROLE_CHILD, SIGUSR2, "child: Got signal #12\n"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.message);
        kiv_role = r.role;
        FdCapture err(2);
        kiv_signal_handler(r.signal);
        EXPECT_EQ(err.text(), r.message);
    }
    kiv_role = KIV_ROLE_UNKNOWN;
}

TEST(KivGuard, CatchSignalAddsToTheUnblockSetOnlyOnSuccess) {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    struct sigaction saved = {};
    ASSERT_EQ(sigaction(SIGUSR2, nullptr, &saved), 0);

    sigset_t unblock;
    sigemptyset(&unblock);
    {
        FdCapture err(2);
        EXPECT_EQ(kiv_catch_signal(SIGUSR2, &action, &unblock), 1);
        EXPECT_EQ(err.text(), "");
    }
    EXPECT_EQ(sigismember(&unblock, SIGUSR2), 1);
    ASSERT_EQ(sigaction(SIGUSR2, &saved, nullptr), 0);

    FdCapture err(2);
    EXPECT_EQ(kiv_catch_signal(SIGKILL, &action, &unblock), 0);
    EXPECT_EQ(err.text(), "Could not catch signal #9\n");
    EXPECT_EQ(sigismember(&unblock, SIGKILL), 0);
}

// Runs body in a forked child (it changes process-wide state) and returns its exit status:
// 0 when every check held, else the number of the failed check.
int in_child(int (*body)()) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status;
}

int signal_setup_checks() {
    if (kiv_guard_signals() != 1) return 1;
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int sig = 1; sig <= 64; ++sig) {
        bool caught = sig == SIGHUP || sig == SIGINT || sig == SIGQUIT || sig == SIGTERM ||
                      sig == SIGUSR1 || sig == SIGUSR2;
        // Never blockable, or reserved by the C library for its threads.
        bool unblockable = sig == SIGKILL || sig == SIGSTOP || sig == 32 || sig == 33;
        if (!unblockable && sigismember(&mask, sig) == caught) return 10;
        struct sigaction now = {};
        sigaction(sig, nullptr, &now);
        if (caught && (now.sa_handler != kiv_signal_handler || !(now.sa_flags & SA_RESTART)))
            return 11;
        if (caught) {
            for (int other = 1; other <= 64; ++other)
                if (sigismember(&now.sa_mask, other) == 1) return 12;
        }
    }
    // A caught signal is only noted: the process goes on.
    FdCapture err(2);
    ::raise(SIGTERM);
    ::raise(SIGINT);
    if (err.text() != "yet unknown if child: Got signal #15\nyet unknown if child: Got signal #2\n")
        return 13;
    return 0;
}

TEST(KivGuard, SignalSetUpBlocksAllButTheSixCaughtOnes) {
    EXPECT_EQ(in_child(signal_setup_checks), 0);
}

int process_group_checks() {
    if (kiv_own_process_group() != 1) return 1;
    if (::getpgrp() != ::getpid()) return 2;
    // Already the leader: a second attempt keeps the group and reports it.
    FdCapture err(2);
    if (kiv_own_process_group() != 0) return 3;
    if (err.text() != "No new process group created?\n") return 4;
    return 0;
}

TEST(KivGuard, ChildLeadsItsOwnProcessGroup) {
    EXPECT_EQ(in_child(process_group_checks), 0);
}

class KivLock : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kiv_lock_test_XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        options_ = {};
        qx_strlcpy(options_.lockfile, path().c_str(), sizeof options_.lockfile);
        kiv_lock_fd = -1;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string path() const { return dir_ + "/kiv.lock"; }
    bool exists() const { return ::access(path().c_str(), F_OK) == 0; }
    // Whether another open file description can take the lock now.
    bool lock_is_free() const {
        int fd = ::open(path().c_str(), O_RDONLY);
        if (fd < 0) return true;
        bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
        ::close(fd);
        return free;
    }

    std::string dir_;
    kiv_options options_{};
};

TEST_F(KivLock, HeldFromLockToUnlockThenRemoved) {
    FdCapture err(2);
    ASSERT_EQ(kiv_lock(&options_), 1);
    EXPECT_GE(kiv_lock_fd, 0);
    struct stat st;
    ASSERT_EQ(::stat(path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_FALSE(lock_is_free());

    kiv_unlock(&options_);
    EXPECT_EQ(kiv_lock_fd, -1);
    EXPECT_FALSE(exists());
    EXPECT_EQ(err.text(), "");
}

TEST_F(KivLock, SecondLockerIsRefusedAtOnce) {
    int holder = ::open(path().c_str(), O_RDONLY | O_CREAT, 0600);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);
    {
        FdCapture err(2);
        EXPECT_EQ(kiv_lock(&options_), 0);
        EXPECT_EQ(err.text(), "Could not acquire kiv lock\n");
    }
    EXPECT_EQ(kiv_lock_fd, -1);
    ::close(holder);
    EXPECT_TRUE(exists()); // the holder's file is left alone
}

TEST_F(KivLock, ExistingFileKeepsItsContents) {
    std::FILE *f = std::fopen(path().c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("left by a killed run", f);
    std::fclose(f);
    ASSERT_EQ(kiv_lock(&options_), 1);
    EXPECT_EQ(std::filesystem::file_size(path()), 20u);
    kiv_unlock(&options_);
    EXPECT_FALSE(exists());
}

TEST_F(KivLock, MissingDirectoryIsRefused) {
    qx_strlcpy(options_.lockfile, (dir_ + "/no/kiv.lock").c_str(), sizeof options_.lockfile);
    FdCapture err(2);
    EXPECT_EQ(kiv_lock(&options_), 0);
    EXPECT_EQ(err.text(), "Could not acquire kiv lock\n");
}

TEST_F(KivLock, FileRemovedDuringTheRunIsAWarning) {
    ASSERT_EQ(kiv_lock(&options_), 1);
    ASSERT_EQ(::unlink(path().c_str()), 0);
    FdCapture err(2);
    kiv_unlock(&options_);
    EXPECT_EQ(err.text(), "WARNING: kiv_unlock failed\n");
    EXPECT_EQ(kiv_lock_fd, -1);
}

TEST_F(KivLock, FailedReleaseKeepsTheFile) {
    ASSERT_EQ(kiv_lock(&options_), 1);
    FdCapture err(2);
    ::close(kiv_lock_fd); // someone closed the descriptor behind the guard's back
    kiv_unlock(&options_);
    EXPECT_EQ(err.text(), "WARNING: kiv_unlock failed\n");
    EXPECT_TRUE(exists());
}

} // namespace
