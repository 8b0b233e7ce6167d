// sim_mtdtool: drives an MTD device the way a flash client does, one step per
// command, printing one result line per step (flushed at once, so a test can
// tell exactly which steps completed before a power cut).
//
//   sim_mtdtool DEVICE CMD [ARGS] [+ CMD [ARGS]]...
//
//   info                    size=.. erasesize=.. writesize=.. oobsize=.. type=.. flags=..
//   erase START LENGTH      MEMERASE
//   write OFFSET BYTE COUNT write COUNT copies of BYTE (hex) at OFFSET
//   read OFFSET COUNT       hex of what read returns
//   islocked [START LENGTH] MEMISLOCKED result (region defaults to the whole device)
//   lock                    MEMLOCK (not supported by the simulator)
//   truncopen               fopen(DEVICE, "w") + fclose
//   size                    fstat size and lseek(SEEK_END)
//   reopen                  close and open again read-write
//
// A failing step prints "STEP ERRNO_NAME".  Exit status: 0 if every step
// succeeded, 1 otherwise.
// mtd-user.h needs the _IO* macros first.
#include <sys/ioctl.h>

#include <mtd/mtd-user.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

unsigned long num(const char *s) {
    return std::strtoul(s, nullptr, 0);
}

void say(const std::string &line) {
    std::string l = line + "\n";
    ssize_t w = write(STDOUT_FILENO, l.data(), l.size());
    (void)w;
}

bool failed(const char *step) {
    say(std::string(step) + " " + strerrorname_np(errno));
    return false;
}

int open_dev(const char *dev) {
    return open(dev, O_RDWR);
}

bool run_step(const char *dev, int &fd, const std::vector<const char *> &a) {
    const std::string cmd = a[0];
    auto need = [&](std::size_t n) {
        if (a.size() != n + 1) {
            say(cmd + " usage");
            std::exit(2);
        }
    };
    if (cmd == "info") {
        need(0);
        mtd_info_user info{};
        if (ioctl(fd, MEMGETINFO, &info) != 0) return failed("info");
        say("size=" + std::to_string(info.size) + " erasesize=" + std::to_string(info.erasesize) +
            " writesize=" + std::to_string(info.writesize) +
            " oobsize=" + std::to_string(info.oobsize) + " type=" + std::to_string(info.type) +
            " flags=" + std::to_string(info.flags));
        return true;
    }
    if (cmd == "erase") {
        need(2);
        erase_info_user ei{static_cast<__u32>(num(a[1])), static_cast<__u32>(num(a[2]))};
        if (ioctl(fd, MEMERASE, &ei) != 0) return failed("erase");
        say("erase ok");
        return true;
    }
    if (cmd == "write") {
        need(3);
        std::vector<unsigned char> buf(num(a[3]),
                                       static_cast<unsigned char>(std::strtoul(a[2], nullptr, 16)));
        ssize_t n = pwrite(fd, buf.data(), buf.size(), static_cast<off_t>(num(a[1])));
        if (n < 0) return failed("write");
        say("write " + std::to_string(n));
        return static_cast<std::size_t>(n) == buf.size();
    }
    if (cmd == "read") {
        need(2);
        std::vector<unsigned char> buf(num(a[2]));
        ssize_t n = pread(fd, buf.data(), buf.size(), static_cast<off_t>(num(a[1])));
        if (n < 0) return failed("read");
        std::string hex;
        char h[4];
        for (ssize_t i = 0; i < n; ++i) {
            std::snprintf(h, sizeof h, "%02x", buf[static_cast<std::size_t>(i)]);
            hex += h;
        }
        say("read " + std::to_string(n) + " " + hex);
        return true;
    }
    if (cmd == "islocked") {
        erase_info_user ei{};
        if (a.size() == 3) {
            ei.start = static_cast<__u32>(num(a[1]));
            ei.length = static_cast<__u32>(num(a[2]));
        } else {
            need(0);
            mtd_info_user info{};
            if (ioctl(fd, MEMGETINFO, &info) != 0) return failed("islocked");
            ei.length = info.size;
        }
        int r = ioctl(fd, MEMISLOCKED, &ei);
        if (r < 0) return failed("islocked");
        say("islocked " + std::to_string(r));
        return true;
    }
    if (cmd == "lock") {
        need(0);
        erase_info_user ei{0, 65536};
        if (ioctl(fd, MEMLOCK, &ei) != 0) return failed("lock");
        say("lock ok");
        return true;
    }
    if (cmd == "truncopen") {
        need(0);
        FILE *f = std::fopen(dev, "w");
        if (!f) return failed("truncopen");
        std::fclose(f);
        say("truncopen ok");
        return true;
    }
    if (cmd == "size") {
        need(0);
        struct stat st {};
        if (fstat(fd, &st) != 0) return failed("size");
        off_t end = lseek(fd, 0, SEEK_END);
        say("size " + std::to_string(st.st_size) + " " + std::to_string(end));
        return true;
    }
    if (cmd == "reopen") {
        need(0);
        close(fd);
        fd = open_dev(dev);
        if (fd < 0) return failed("reopen");
        say("reopen ok");
        return true;
    }
    say("unknown step " + cmd);
    std::exit(2);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: sim_mtdtool DEVICE CMD [ARGS] [+ CMD [ARGS]]...\n");
        return 2;
    }
    const char *dev = argv[1];
    int fd = open_dev(dev);
    if (fd < 0) {
        failed("open");
        return 1;
    }
    bool ok = true;
    std::vector<const char *> step;
    for (int i = 2; i <= argc; ++i) {
        if (i == argc || std::strcmp(argv[i], "+") == 0) {
            if (!step.empty()) ok = run_step(dev, fd, step) && ok;
            step.clear();
        } else {
            step.push_back(argv[i]);
        }
    }
    return ok ? 0 : 1;
}
