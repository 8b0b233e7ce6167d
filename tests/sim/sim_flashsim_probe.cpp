// sim_flashsim_probe: runs kiv-flashsim on its own, without the sandbox, in a
// private mount namespace, and runs one command against it.
//
//   sim_flashsim_probe FLASHSIM IMAGES_DIR EVENTS [FLASHSIM_OPTION]... -- COMMAND [ARGS]...
//
// "@MNT@" in COMMAND's arguments is replaced by the mount point.  Exits with
// COMMAND's status; the simulator is stopped with SIGTERM afterwards, and its
// exit status must be 0 (a clean unmount) or the probe exits 99.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void die(const char *what) {
    std::fprintf(stderr, "sim_flashsim_probe: %s: %s\n", what, std::strerror(errno));
    std::exit(98);
}

} // namespace

int main(int argc, char **argv) {
    int sep = 0;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--") == 0) {
            sep = i;
            break;
        }
    if (argc < 6 || sep < 4 || sep == argc - 1) {
        std::fprintf(stderr,
                     "usage: sim_flashsim_probe FLASHSIM IMAGES EVENTS [OPT]... -- CMD...\n");
        return 2;
    }
    alarm(20); // never outlive a broken simulator
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("mount namespace");
    char mnt[] = "/tmp/kiv-probe-XXXXXX";
    if (!mkdtemp(mnt)) die("mkdtemp");

    int ready[2];
    if (pipe(ready) != 0) die("pipe");
    pid_t sim = fork();
    if (sim == 0) {
        close(ready[0]);
        std::vector<std::string> args{argv[1],
                                      "--images",
                                      argv[2],
                                      "--events",
                                      argv[3],
                                      "--ready-fd",
                                      std::to_string(ready[1])};
        for (int i = 4; i < sep; ++i)
            args.emplace_back(argv[i]);
        args.emplace_back(mnt);
        std::vector<char *> av;
        for (auto &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        execv(av[0], av.data());
        _exit(97);
    }
    close(ready[1]);
    char c;
    if (read(ready[0], &c, 1) != 1) {
        std::fprintf(stderr, "sim_flashsim_probe: the simulator did not start\n");
        waitpid(sim, nullptr, 0);
        rmdir(mnt);
        return 96;
    }

    pid_t cmd = fork();
    if (cmd == 0) {
        std::vector<std::string> args;
        for (int i = sep + 1; i < argc; ++i) {
            std::string a = argv[i];
            for (std::size_t p; (p = a.find("@MNT@")) != std::string::npos;)
                a.replace(p, 5, mnt);
            args.push_back(a);
        }
        std::vector<char *> av;
        for (auto &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        execvp(av[0], av.data());
        _exit(127);
    }
    int st = 0;
    waitpid(cmd, &st, 0);
    kill(sim, SIGTERM);
    int sim_st = 0;
    waitpid(sim, &sim_st, 0);
    rmdir(mnt);
    if (!WIFEXITED(sim_st) || WEXITSTATUS(sim_st) != 0) return 99;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
