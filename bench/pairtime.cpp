// Times two commands run in turn, pair by pair, as whole processes: started with
// posix_spawn from this small process (a fork of a large shell would be timed with each
// command), standard output and error thrown away, wall time from start to reaping.
//
// Usage: pairtime [--fixed] PAIRS A1 [A2 ...] -- B1 [B2 ...]
//   Each command is one word list split at blanks. A run of A takes the next of A1, A2, ...
//   in turn (likewise B), so that A1/A2 can be two releases installed by turns. One warm-up
//   of each comes first. The order within a pair swaps every round, unless --fixed keeps
//   B before A (A then depends on what B just did).
// Prints: A's median ms, B's median ms, the median of the per-pair ratios A/B, A's fastest
// ms, B's fastest ms, and the 0-based index of the A command run last.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace {

using Command = std::vector<std::string>;

Command split(const char *text) {
    Command words;
    std::string word;
    for (const char *p = text;; ++p) {
        if (*p == ' ' || *p == '\0') {
            if (!word.empty()) words.push_back(word);
            word.clear();
            if (*p == '\0') break;
        } else {
            word += *p;
        }
    }
    return words;
}

double now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// Runs one command to its end; returns its wall time in ms, or a negative value when it
// could not be started or did not exit with 0.
double run(const Command &cmd) {
    std::vector<char *> argv;
    for (const auto &w : cmd)
        argv.push_back(const_cast<char *>(w.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const double start = now_ms();
    pid_t pid = -1;
    const int r = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (r != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    const double took = now_ms() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "pairtime: %s ended with status %d\n", argv[0], status);
        return -1;
    }
    return took;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

} // namespace

int main(int argc, char **argv) {
    int i = 1;
    bool fixed = false;
    if (i < argc && std::strcmp(argv[i], "--fixed") == 0) {
        fixed = true;
        ++i;
    }
    if (i >= argc) return 2;
    const long pairs = std::strtol(argv[i++], nullptr, 10);
    std::vector<Command> as, bs;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        as.push_back(split(argv[i]));
    for (++i; i < argc; ++i)
        bs.push_back(split(argv[i]));
    if (pairs < 1 || as.empty() || bs.empty()) {
        std::fprintf(stderr, "usage: pairtime [--fixed] PAIRS A1 [A2 ...] -- B1 [B2 ...]\n");
        return 2;
    }
    std::size_t next_a = 0, next_b = 0, last_a = 0;
    auto run_a = [&] {
        last_a = next_a;
        return run(as[next_a++ % as.size()]);
    };
    auto run_b = [&] { return run(bs[next_b++ % bs.size()]); };

    std::vector<double> ta, tb, ratios;
    for (long k = -1; k < pairs; ++k) { // k = -1: the warm-up
        double a = 0, b = 0;
        if (fixed || k % 2 != 0) {
            b = run_b();
            a = run_a();
        } else {
            a = run_a();
            b = run_b();
        }
        if (a < 0 || b < 0) return 1;
        if (k < 0) continue;
        ta.push_back(a);
        tb.push_back(b);
        ratios.push_back(a / b);
    }
    std::printf("%.3f %.3f %.4f %.3f %.3f %zu\n", median(ta), median(tb), median(ratios),
                *std::min_element(ta.begin(), ta.end()), *std::min_element(tb.begin(), tb.end()),
                last_a % as.size());
    return 0;
}
