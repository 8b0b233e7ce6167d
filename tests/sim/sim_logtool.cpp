// sim_logtool: sends messages to /dev/log through glibc's syslog().
//
//   sim_logtool IDENT FACILITY.SEVERITY TEXT [COUNT]
//       logs TEXT (COUNT times, numbered " #i" when COUNT is given)
//   sim_logtool --child-first IDENT FACILITY.SEVERITY TEXT
//       a child logs "child: TEXT" and exits; then the parent logs
//       "parent: TEXT" right before it exits itself
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

int main(int argc, char **argv) {
    bool child_first = argc > 1 && std::strcmp(argv[1], "--child-first") == 0;
    if (child_first) {
        --argc;
        ++argv;
    }
    if (argc < 4) {
        std::fprintf(stderr, "usage: sim_logtool [--child-first] IDENT FAC.SEV TEXT [COUNT]\n");
        return 2;
    }
    const char *ident = argv[1];
    int facility = std::atoi(argv[2]);
    const char *dot = std::strchr(argv[2], '.');
    int severity = dot ? std::atoi(dot + 1) : LOG_NOTICE;
    const char *text = argv[3];
    int count = argc > 4 ? std::atoi(argv[4]) : 0;
    int pri = LOG_MAKEPRI(facility << 3, severity);

    openlog(ident, LOG_PID, facility << 3);
    if (child_first) {
        pid_t pid = fork();
        if (pid == 0) {
            syslog(pri, "child: %s", text);
            _exit(0);
        }
        int st = 0;
        waitpid(pid, &st, 0);
        syslog(pri, "parent: %s", text);
        return 0;
    }
    if (count == 0) {
        syslog(pri, "%s", text);
    } else {
        for (int i = 0; i < count; ++i)
            syslog(pri, "%s #%d", text, i);
    }
    closelog();
    return 0;
}
