// The process guard's pieces where the real command cannot reach them: every way a child can
// end, the signal set-up, the child's process group, and the lock file itself. The guard's
// messages and exit codes on the real command are in kiv_front_e2e_test.
#include "front/kiv_guard.hpp"

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
        int status;
        int code;
        const char *message;
    };
    const Row rows[] = {
        {W_EXITCODE(14, 0), 14, ""},
        {W_EXITCODE(255, 0), 255, ""},
        {W_EXITCODE(0, SIGHUP), 64, "child terminated by signal #1\n"},
        {W_EXITCODE(0, SIGABRT) | WCOREFLAG, 69, "child terminated by signal #6\n"},
        {W_EXITCODE(0, 64), 127, "child terminated by signal #64\n"},
        {W_EXITCODE(0, 126), 63, "child terminated by unknown signal #126\n"},
        {0xffff, 13, "child terminated for some unknown reason\n"}, // continued
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.status);
        FdCapture err(2);
        EXPECT_EQ(kiv_exit_code_of(r.status), r.code);
        EXPECT_EQ(err.text(), r.message);
    }
}

// The role a note names; the real command shows the parent's and the child's, but a signal
// between the guard's set-up and the fork is a narrow window to hit from outside.
TEST(KivGuard, SignalNoteNamesTheRole) {
    const std::pair<int, const char *> rows[] = {
        {KIV_ROLE_UNKNOWN, "yet unknown if child: Got signal #15\n"},
        {KIV_ROLE_PARENT, "parent: Got signal #15\n"},
        {KIV_ROLE_CHILD, "child: Got signal #15\n"},
    };
    for (const auto &[role, message] : rows) {
        kiv_role = role;
        FdCapture err(2);
        kiv_signal_handler(SIGTERM);
        EXPECT_EQ(err.text(), message);
    }
    kiv_role = KIV_ROLE_UNKNOWN;
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

// SA_RESTART: a parent's wait() cut short by a noted signal would end the run with 12.
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
    }
    return 0;
}

TEST(KivGuard, SignalSetUpBlocksAllButTheSixCaughtOnes) {
    EXPECT_EQ(in_child(signal_setup_checks), 0);
}

int process_group_checks() {
    return kiv_own_process_group() == 1 && ::getpgrp() == ::getpid() ? 0 : 1;
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
        qx_strlcpy(options_.lockfile, path().c_str(), sizeof options_.lockfile);
        kiv_lock_fd = -1;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string path() const { return dir_ + "/kiv.lock"; }
    bool exists() const { return ::access(path().c_str(), F_OK) == 0; }

    std::string dir_;
    kiv_options options_{};
};

TEST_F(KivLock, HeldFromLockToUnlockThenRemoved) {
    FdCapture err(2);
    ASSERT_EQ(kiv_lock(&options_), 1);
    struct stat st;
    ASSERT_EQ(::stat(path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 0);
    // Another open file description cannot take it meanwhile.
    int other = ::open(path().c_str(), O_RDONLY);
    EXPECT_NE(::flock(other, LOCK_EX | LOCK_NB), 0);
    ::close(other);

    kiv_unlock(&options_);
    EXPECT_EQ(kiv_lock_fd, -1);
    EXPECT_FALSE(exists());
    EXPECT_EQ(err.text(), "");
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
