// sim_mtdtool: drives an MTD device the way a flash client does, one step per
// command, printing one result line per step unbuffered, so that a test can
// tell exactly which steps completed before a power cut.
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
#include <sys/ioctl.h> // before mtd-user.h, which needs the _IO* macros

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

bool failed(const std::string &step) {
    std::printf("%s %s\n", step.c_str(), strerrorname_np(errno));
    return false;
}

bool run_step(const char *dev, int &fd, const std::vector<const char *> &a) {
    const std::string cmd = a[0];
    mtd_info_user info{};
    erase_info_user ei{};
    if (a.size() > 2) ei = {static_cast<__u32>(num(a[1])), static_cast<__u32>(num(a[2]))};
    if (cmd == "info") {
        if (ioctl(fd, MEMGETINFO, &info) != 0) return failed(cmd);
        std::printf("size=%u erasesize=%u writesize=%u oobsize=%u type=%u flags=%u\n", info.size,
                    info.erasesize, info.writesize, info.oobsize, info.type, info.flags);
    } else if (cmd == "erase") {
        if (ioctl(fd, MEMERASE, &ei) != 0) return failed(cmd);
        std::printf("erase ok\n");
    } else if (cmd == "write") {
        std::vector<unsigned char> buf(num(a[3]),
                                       static_cast<unsigned char>(std::strtoul(a[2], nullptr, 16)));
        ssize_t n = pwrite(fd, buf.data(), buf.size(), static_cast<off_t>(num(a[1])));
        if (n < 0) return failed(cmd);
        std::printf("write %zd\n", n);
        return static_cast<std::size_t>(n) == buf.size();
    } else if (cmd == "read") {
        std::vector<unsigned char> buf(num(a[2]));
        ssize_t n = pread(fd, buf.data(), buf.size(), static_cast<off_t>(num(a[1])));
        if (n < 0) return failed(cmd);
        std::string hex;
        for (ssize_t i = 0; i < n; ++i) {
            char h[3];
            std::snprintf(h, sizeof h, "%02x", buf[static_cast<std::size_t>(i)]);
            hex += h;
        }
        std::printf("read %zd %s\n", n, hex.c_str());
    } else if (cmd == "islocked") {
        if (a.size() == 1) {
            if (ioctl(fd, MEMGETINFO, &info) != 0) return failed(cmd);
            ei.length = info.size;
        }
        int r = ioctl(fd, MEMISLOCKED, &ei);
        if (r < 0) return failed(cmd);
        std::printf("islocked %d\n", r);
    } else if (cmd == "lock") {
        ei = {0, 65536};
        if (ioctl(fd, MEMLOCK, &ei) != 0) return failed(cmd);
        std::printf("lock ok\n");
    } else if (cmd == "truncopen") {
        FILE *f = std::fopen(dev, "w");
        if (!f) return failed(cmd);
        std::fclose(f);
        std::printf("truncopen ok\n");
    } else if (cmd == "size") {
        struct stat st {};
        if (fstat(fd, &st) != 0) return failed(cmd);
        std::printf("size %lld %lld\n", static_cast<long long>(st.st_size),
                    static_cast<long long>(lseek(fd, 0, SEEK_END)));
    } else if (cmd == "reopen") {
        close(fd);
        if ((fd = open(dev, O_RDWR)) < 0) return failed(cmd);
        std::printf("reopen ok\n");
    } else {
        std::printf("unknown step %s\n", cmd.c_str());
        std::exit(2);
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: sim_mtdtool DEVICE CMD [ARGS] [+ CMD [ARGS]]...\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    int fd = open(argv[1], O_RDWR);
    if (fd < 0 && !failed("open")) return 1;
    bool ok = true;
    std::vector<const char *> step;
    for (int i = 2; i <= argc; ++i) {
        if (i < argc && std::strcmp(argv[i], "+") != 0) {
            step.push_back(argv[i]);
        } else if (!step.empty()) {
            ok = run_step(argv[1], fd, step) && ok;
            step.clear();
        }
    }
    return ok ? 0 : 1;
}
