// Process guard: harmless termination signals, a supervising parent, the child's own
// process group, and the lock that serialises runs on one device.
#pragma once

#include <csignal>

#include "front/kiv_options.hpp"

// Exit codes decided by the guard itself (the actions' codes pass through unchanged).
inline constexpr int KIV_EXIT_FORK_FAILED = 1;
inline constexpr int KIV_EXIT_LOCK_FAILED = 1;
inline constexpr int KIV_EXIT_NO_PROCESS_GROUP = 3;
inline constexpr int KIV_EXIT_SIGNAL_SETUP = 4;
inline constexpr int KIV_EXIT_WAIT_FAILED = 12;
inline constexpr int KIV_EXIT_CHILD_UNKNOWN_END = 13;
inline constexpr int KIV_EXIT_SIGNAL_BASE = 63; // 63 + N for a child ended by signal N
inline constexpr int KIV_MAX_KNOWN_SIGNAL = 64;

// -1 until the fork, then 0 in the parent and 1 in the child. Read by the signal handler only.
inline constexpr int KIV_ROLE_UNKNOWN = -1;
inline constexpr int KIV_ROLE_PARENT = 0;
inline constexpr int KIV_ROLE_CHILD = 1;
extern volatile std::sig_atomic_t kiv_role;
// Descriptor of the lock file while the child holds the lock, else -1.
extern int kiv_lock_fd;

// Installs action for signal and adds it to unblock. Returns 1, or 0 after
// "Could not catch signal #%d\n".
int kiv_catch_signal(int signal, const struct sigaction *action, sigset_t *unblock);
// Logs "%s: Got signal #%i\n" with the process's role; nothing else.
void kiv_signal_handler(int signal);
// Blocks every signal, catches 1, 2, 3, 15, 10, 12 with kiv_signal_handler and unblocks
// exactly those. Returns 1, or 0 when a handler could not be installed.
int kiv_guard_signals();

// Parent side after the fork: waits for the child. Returns the exit code of the command.
int kiv_supervise();
// Turns a wait status into the command's exit code, logging how an abnormal child ended.
// Returns the child's exit status, 63 + N for signal N (1..64), 63 above, 13 otherwise.
int kiv_exit_code_of(int status);
// Child side after the fork: makes the child the leader of its own process group.
// Returns 1, or 0 after its message (the child's result is then KIV_EXIT_NO_PROCESS_GROUP).
int kiv_own_process_group();

// Opens options->lockfile (created 0600) and takes a non-blocking exclusive flock.
// Returns 1 with the lock held, or 0 after "Could not acquire kiv lock\n".
int kiv_lock(const kiv_options *options);
// Releases the lock, closes and removes the lock file; a failure is only a warning.
void kiv_unlock(const kiv_options *options);
