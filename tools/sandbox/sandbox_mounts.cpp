// kiv-sandbox: the device the command sees.  The sandbox runs in a mount
// namespace of its own, where it replaces /dev (the usual nodes, the host's
// pts, a /dev/log and the simulated flash at /dev/mtdN), /tmp, /mnt and
// /mnt/appl, and binds back the paths under them that must stay reachable.
// Nothing mounted here shows up on the host; it all goes away with the
// namespace when the sandbox exits.

#include "sandbox.hpp"

#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kiv::sandbox {

namespace {

bool under(const std::string &path, const std::string &dir) {
    return path == dir || (path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
                           path[dir.size()] == '/');
}

void do_mount(const char *src, const char *target, const char *type, unsigned long flags,
              const char *data = nullptr) {
    if (mount(src, target, type, flags, data) != 0)
        fail(std::string("mount ") + (type ? type : src) + " on " + target + ": " +
             std::strerror(errno));
}

// Host nodes, opened before /dev is replaced, for when nodes cannot be made.
std::vector<std::pair<std::string, int>> g_host_nodes;

void make_node(const char *name, mode_t mode, unsigned maj, unsigned min) {
    std::string path = std::string("/dev/") + name;
    if (mknod(path.c_str(), S_IFCHR | mode, makedev(maj, min)) == 0) {
        chmod(path.c_str(), mode); // not subject to the umask
        return;
    }
    // Where device nodes cannot be created (a container without CAP_MKNOD),
    // the host's node is bound in instead.
    int saved = errno;
    for (const auto &[n, fd] : g_host_nodes) {
        if (n != name || fd < 0) continue;
        int f = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode);
        if (f >= 0) close(f);
        std::string src = "/proc/self/fd/" + std::to_string(fd);
        if (mount(src.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0) return;
        saved = errno;
    }
    errno = saved;
    fail_errno("mknod " + path);
}

} // namespace

void enter_mount_namespace() {
    if (unshare(CLONE_NEWNS) != 0) fail_errno("unshare(CLONE_NEWNS)");
    // Nothing mounted from here on may show up on the host.
    do_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE);
}

std::vector<KeepMount> open_kept_paths(const Options &o, const std::string &exe,
                                       const std::string &rundir, const std::string &cwd) {
    // Paths that must stay reachable under the directories we replace.  Each
    // is opened now, while the host's view is still in place, and bound back
    // later at the same path.
    std::vector<std::string> wanted{dirname_of(exe), dirname_of(real(exe)), rundir, cwd};
    for (const auto &k : o.keeps) {
        if (access(k.c_str(), F_OK) != 0) fail_errno("--keep " + k);
        wanted.push_back(real(k));
        wanted.push_back(absolute(k));
    }
    std::sort(wanted.begin(), wanted.end());
    wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
    std::vector<KeepMount> keeps;
    for (const auto &w : wanted) {
        // /tmp and /mnt themselves are always fresh: keeping them would undo
        // the point (and a recursive bind of /tmp would bring the new tmpfs
        // along, hiding what it was meant to keep).
        if ((!under(w, "/tmp") && !under(w, "/mnt")) || w == "/tmp" || w == "/mnt") continue;
        // A parent already bound brings everything below it along.
        bool covered = false;
        for (const auto &k : keeps)
            covered = covered || under(w, k.target);
        if (covered) continue;
        KeepMount k;
        k.target = w;
        k.fd = open(w.c_str(), O_PATH | O_CLOEXEC);
        if (k.fd < 0) fail_errno(w);
        struct stat st {};
        if (fstat(k.fd, &st) != 0) fail_errno(w);
        k.is_dir = S_ISDIR(st.st_mode);
        keeps.push_back(k);
    }
    return keeps;
}

void open_host_nodes() {
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "fuse"}) {
        int fd = open((std::string("/dev/") + name).c_str(), O_PATH | O_CLOEXEC);
        g_host_nodes.emplace_back(name, fd);
    }
}

void populate_dev(int pts_fd) {
    do_mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755,size=1m");
    make_node("null", 0666, 1, 3);
    make_node("zero", 0666, 1, 5);
    make_node("full", 0666, 1, 7);
    make_node("random", 0666, 1, 8);
    make_node("urandom", 0666, 1, 9);
    make_node("tty", 0666, 5, 0);
    make_node("fuse", 0600, 10, 229);
    for (auto [name, target] : {std::pair{"fd", "/proc/self/fd"},
                                {"stdin", "/proc/self/fd/0"},
                                {"stdout", "/proc/self/fd/1"},
                                {"stderr", "/proc/self/fd/2"},
                                {"ptmx", "pts/ptmx"}}) {
        if (symlink(target, (std::string("/dev/") + name).c_str()) != 0)
            fail_errno(std::string("symlink /dev/") + name);
    }
    mkdir_p("/dev/pts");
    // The host's pts: a terminal inherited from outside keeps a name.
    if (pts_fd >= 0)
        do_mount(("/proc/self/fd/" + std::to_string(pts_fd)).c_str(), "/dev/pts", nullptr,
                 MS_BIND | MS_REC);
    mkdir_p("/dev/shm");
    do_mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    mkdir_p(kStage);
}

void mount_fresh_dirs(const Options &o, const std::string &hostcfg,
                      const std::vector<KeepMount> &keeps) {
    do_mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    do_mount("tmpfs", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=1m");
    mkdir_p("/mnt/appl");
    do_mount("tmpfs", "/mnt/appl", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    if (!o.hostcfg_default.empty()) write_file("/mnt/appl/hostcfg.default", hostcfg, 0644);
    for (const auto &k : keeps) {
        if (k.is_dir) {
            mkdir_p(k.target);
        } else {
            mkdir_p(dirname_of(k.target));
            write_file(k.target, "", 0644);
        }
        do_mount(("/proc/self/fd/" + std::to_string(k.fd)).c_str(), k.target.c_str(), nullptr,
                 MS_BIND | MS_REC);
        close(k.fd);
    }
}

void bind_flash(const kiv::sim::Layout &layout) {
    for (const auto &m : layout.mtds) {
        std::string name = "mtd" + std::to_string(m.index);
        std::string dev = "/dev/" + name;
        std::string src = std::string(kStage) + "/" + name;
        write_file(dev, "", 0660);
        do_mount(src.c_str(), dev.c_str(), nullptr, MS_BIND);
    }
    // The bound files keep the FUSE mount alive; its staging directory and
    // the FUSE device are of no use to the command.
    umount2(kStage, MNT_DETACH);
    rmdir(kStage);
    unlink("/dev/fuse");
}

} // namespace kiv::sandbox
