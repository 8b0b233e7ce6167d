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

pid_t spawn(std::vector<std::string> args) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    std::vector<char *> av;
    for (auto &a : args)
        av.push_back(a.data());
    av.push_back(nullptr);
    execvp(av[0], av.data());
    _exit(127);
}

} // namespace

int main(int argc, char **argv) {
    int sep = 4;
    while (sep < argc && std::strcmp(argv[sep], "--") != 0)
        ++sep;
    if (sep >= argc - 1) {
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
    std::vector<std::string> sim_args{
        argv[1], "--images", argv[2], "--events", argv[3], "--ready-fd", std::to_string(ready[1])};
    sim_args.insert(sim_args.end(), argv + 4, argv + sep);
    sim_args.emplace_back(mnt);
    pid_t sim = spawn(sim_args);
    close(ready[1]);
    char c;
    if (read(ready[0], &c, 1) != 1) {
        std::fprintf(stderr, "sim_flashsim_probe: the simulator did not start\n");
        waitpid(sim, nullptr, 0);
        rmdir(mnt);
        return 96;
    }

    std::vector<std::string> cmd_args(argv + sep + 1, argv + argc);
    for (auto &a : cmd_args)
        for (std::size_t p; (p = a.find("@MNT@")) != std::string::npos;)
            a.replace(p, 5, mnt);
    int st = 0, sim_st = 0;
    waitpid(spawn(cmd_args), &st, 0);
    kill(sim, SIGTERM);
    waitpid(sim, &sim_st, 0);
    rmdir(mnt);
    if (!WIFEXITED(sim_st) || WEXITSTATUS(sim_st) != 0) return 99;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
