// kiv-flashsim: serves simulated NOR flash devices as files of a FUSE file
// system, so that programs written for Linux MTD character devices can run on
// a workstation.  Each device is backed by an image file that is updated
// before a request is answered, so the images always hold exactly what has
// been programmed, even if this daemon is killed.
//
// The request loop is single threaded on purpose: flash operations are then
// strictly ordered, which makes the operation count used for power cuts and
// the event log deterministic.

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include "simconfig.hpp"

// mtd-user.h needs the _IO* macros first.
#include <sys/ioctl.h>

#include <mtd/mtd-user.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

namespace {

using kiv::sim::Fault;

constexpr fuse_ino_t kRootIno = FUSE_ROOT_ID;
// Nothing about the tree ever changes, so the kernel may cache it for long.
constexpr double kCacheTimeout = 86400.0;
// Real MTD character devices report the page size as their block size; stdio
// sizes its buffers after it.
constexpr blksize_t kBlkSize = 4096;

struct Device {
    kiv::sim::MtdDef def;
    int fd = -1;
    std::string name;
};

struct Sim {
    std::vector<Device> devices; // sorted by index
    std::vector<Fault> faults;
    int events_fd = -1;
    int powercut_fd = -1;     // notification to the sandbox
    int powercut_ack_fd = -1; // the sandbox answers once the program is stopped
    std::uint64_t powercut_after = 0;
    std::uint64_t opcount = 0;
    bool power_off = false;
    std::vector<unsigned char> buf, old;
};

Sim g_sim;

void event(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void event(const char *fmt, ...) {
    if (g_sim.events_fd < 0) return;
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line - 1, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    std::size_t len = std::min<std::size_t>(static_cast<std::size_t>(n), sizeof line - 2);
    line[len++] = '\n';
    // One write per line on an O_APPEND descriptor: lines never interleave
    // with other writers and are on disk before the request is answered.
    ssize_t w = write(g_sim.events_fd, line, len);
    (void)w;
}

Device *device_of(fuse_ino_t ino) {
    if (ino < 2) return nullptr;
    auto idx = static_cast<int>(ino - 2);
    for (auto &d : g_sim.devices)
        if (d.def.index == idx) return &d;
    return nullptr;
}

fuse_ino_t ino_of(const Device &d) {
    return static_cast<fuse_ino_t>(d.def.index) + 2;
}

void fill_attr(fuse_ino_t ino, struct stat &st) {
    st = {};
    st.st_ino = ino;
    st.st_uid = getuid();
    st.st_gid = getgid();
    st.st_blksize = kBlkSize;
    if (ino == kRootIno) {
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
        return;
    }
    const Device *d = device_of(ino);
    st.st_mode = S_IFREG | 0660;
    st.st_nlink = 1;
    st.st_size = static_cast<off_t>(d->def.size);
    st.st_blocks = static_cast<blkcnt_t>((d->def.size + 511) / 512);
}

bool pread_all(int fd, unsigned char *p, std::size_t n, std::uint64_t off) {
    while (n > 0) {
        ssize_t r = pread(fd, p, n, static_cast<off_t>(off));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
        off += static_cast<std::uint64_t>(r);
    }
    return true;
}

bool pwrite_all(int fd, const unsigned char *p, std::size_t n, std::uint64_t off) {
    while (n > 0) {
        ssize_t r = pwrite(fd, p, n, static_cast<off_t>(off));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
        off += static_cast<std::uint64_t>(r);
    }
    return true;
}

// Called after every flash operation, before it is answered.  When the power
// cut point is reached the sandbox is told, and we wait until it has killed
// the program under test: the program must never see the answer to the last
// operation, exactly as if the device had lost power during it.
void count_operation() {
    ++g_sim.opcount;
    if (g_sim.powercut_after == 0 || g_sim.opcount != g_sim.powercut_after) return;
    g_sim.power_off = true;
    event("powercut %" PRIu64, g_sim.opcount);
    if (g_sim.powercut_fd >= 0) {
        char msg[32];
        int n = snprintf(msg, sizeof msg, "%" PRIu64 "\n", g_sim.opcount);
        ssize_t w;
        do
            w = write(g_sim.powercut_fd, msg, static_cast<std::size_t>(n));
        while (w < 0 && errno == EINTR);
        if (w > 0 && g_sim.powercut_ack_fd >= 0) {
            char ack;
            ssize_t r;
            do
                r = read(g_sim.powercut_ack_fd, &ack, 1);
            while (r < 0 && errno == EINTR);
        }
    }
}

const Fault *find_fault(Fault::Kind kind, int mtd, std::uint64_t start, std::uint64_t len) {
    for (const auto &f : g_sim.faults) {
        if (f.kind != kind || f.mtd != mtd) continue;
        if (f.offset >= start && f.offset < start + len) return &f;
    }
    return nullptr;
}

// ---------------------------------------------------------------- operations

void op_init(void *, struct fuse_conn_info *conn) {
    // Truncation must reach setattr (which ignores it) rather than being
    // folded into open, where the kernel would assume the file is now empty.
    conn->want &= ~static_cast<unsigned>(FUSE_CAP_ATOMIC_O_TRUNC);
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name) {
    int idx = -1;
    if (parent != kRootIno || !kiv::sim::parse_mtd_name(name, idx) ||
        std::string(name) != "mtd" + std::to_string(idx)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    fuse_ino_t ino = static_cast<fuse_ino_t>(idx) + 2;
    if (!device_of(ino)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    fuse_entry_param e{};
    e.ino = ino;
    e.attr_timeout = kCacheTimeout;
    e.entry_timeout = kCacheTimeout;
    fill_attr(ino, e.attr);
    fuse_reply_entry(req, &e);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *) {
    if (ino != kRootIno && !device_of(ino)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    struct stat st;
    fill_attr(ino, st);
    fuse_reply_attr(req, &st, kCacheTimeout);
}

// A character device cannot be resized or re-timed; opening one with O_TRUNC
// (stdio mode "w") leaves it as it is.  Accept and ignore every change.
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, struct fuse_file_info *fi) {
    op_getattr(req, ino, fi);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, struct fuse_file_info *) {
    if (ino != kRootIno) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::vector<std::pair<std::string, fuse_ino_t>> entries{{".", kRootIno}, {"..", kRootIno}};
    for (const auto &d : g_sim.devices)
        entries.emplace_back(d.name, ino_of(d));
    std::vector<char> buf(size);
    std::size_t used = 0;
    for (std::size_t i = static_cast<std::size_t>(off); i < entries.size(); ++i) {
        struct stat st {};
        st.st_ino = entries[i].second;
        st.st_mode = entries[i].second == kRootIno ? S_IFDIR : S_IFREG;
        std::size_t need =
            fuse_add_direntry(req, buf.data() + used, size - used, entries[i].first.c_str(), &st,
                              static_cast<off_t>(i + 1));
        if (need > size - used) break;
        used += need;
    }
    fuse_reply_buf(req, buf.data(), used);
}

void op_open(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi) {
    Device *d = device_of(ino);
    if (!d) {
        fuse_reply_err(req, ino == kRootIno ? EISDIR : ENOENT);
        return;
    }
    int acc = fi->flags & O_ACCMODE;
    if (acc != O_RDONLY && g_sim.power_off) {
        fuse_reply_err(req, EIO);
        return;
    }
    event("open %s %s", d->name.c_str(), acc == O_RDONLY ? "r" : acc == O_WRONLY ? "w" : "rw");
    // Reads must always show what the flash holds, never a cached copy.
    fi->direct_io = 1;
    fi->keep_cache = 0;
    fi->fh = static_cast<std::uint64_t>(acc); // later requests carry the handle, not the flags
    fuse_reply_open(req, fi);
}

void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, struct fuse_file_info *) {
    Device *d = device_of(ino);
    if (!d || off < 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    auto pos = static_cast<std::uint64_t>(off);
    if (pos >= d->def.size) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(size, d->def.size - pos));
    g_sim.buf.resize(n);
    if (!pread_all(d->fd, g_sim.buf.data(), n, pos)) {
        fuse_reply_err(req, EIO);
        return;
    }
    for (const auto &f : g_sim.faults) {
        if (f.kind == Fault::Kind::Bitflip && f.mtd == d->def.index && f.offset >= pos &&
            f.offset < pos + n) {
            g_sim.buf[f.offset - pos] ^= static_cast<unsigned char>(1U << f.bit);
            event("fault bitflip %s %" PRIu64, d->name.c_str(), f.offset);
        }
    }
    fuse_reply_buf(req, reinterpret_cast<const char *>(g_sim.buf.data()), n);
}

void op_write(fuse_req_t req, fuse_ino_t ino, const char *data, size_t size, off_t off,
              struct fuse_file_info *) {
    Device *d = device_of(ino);
    if (!d || off < 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    if (g_sim.power_off) {
        fuse_reply_err(req, EIO);
        return;
    }
    if (d->def.locked) {
        fuse_reply_err(req, EROFS);
        return;
    }
    auto pos = static_cast<std::uint64_t>(off);
    if (size == 0) {
        fuse_reply_write(req, 0);
        return;
    }
    // Like the MTD character driver: a write at the end is refused, one that
    // runs past the end is cut short.
    if (pos >= d->def.size) {
        fuse_reply_err(req, ENOSPC);
        return;
    }
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(size, d->def.size - pos));
    event("write %s %" PRIu64 " %zu", d->name.c_str(), pos, n);

    int err = 0;
    if (const Fault *f = find_fault(Fault::Kind::Write, d->def.index, pos, n)) {
        event("fault write %s %" PRIu64, d->name.c_str(), f->offset);
        err = EIO;
    } else {
        if (const Fault *s = find_fault(Fault::Kind::Short, d->def.index, pos + 1, n - 1)) {
            event("fault short %s %" PRIu64, d->name.c_str(), s->offset);
            n = static_cast<std::size_t>(s->offset - pos);
        }
        auto *in = reinterpret_cast<const unsigned char *>(data);
        g_sim.old.resize(n);
        if (!pread_all(d->fd, g_sim.old.data(), n, pos)) {
            err = EIO;
        } else {
            // NOR programming can only clear bits; only an erase sets them.
            bool reported = false;
            for (std::size_t i = 0; i < n; ++i) {
                unsigned char old = g_sim.old[i];
                if (!reported && (in[i] & ~old) != 0) {
                    event("violation %s %" PRIu64 " %zu", d->name.c_str(), pos + i, n);
                    reported = true;
                }
                g_sim.old[i] = static_cast<unsigned char>(old & in[i]);
            }
            if (!pwrite_all(d->fd, g_sim.old.data(), n, pos)) err = EIO;
        }
    }
    count_operation();
    if (err)
        fuse_reply_err(req, err);
    else
        fuse_reply_write(req, n);
}

bool read_caller_region(fuse_req_t req, void *arg, erase_info_user &ei) {
    const fuse_ctx *ctx = fuse_req_ctx(req);
    if (!ctx || ctx->pid <= 0 || !arg) return false;
    iovec local{&ei, sizeof ei};
    iovec remote{arg, sizeof ei};
    return process_vm_readv(ctx->pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof ei);
}

void do_erase(fuse_req_t req, Device &d, const erase_info_user &ei) {
    if (g_sim.power_off) {
        fuse_reply_err(req, EIO);
        return;
    }
    std::uint64_t start = ei.start, len = ei.length, es = d.def.erasesize;
    if (start >= d.def.size || len > d.def.size - start || start % es != 0 || len % es != 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    if (d.def.locked) {
        fuse_reply_err(req, EROFS);
        return;
    }
    if (len == 0) {
        fuse_reply_ioctl(req, 0, nullptr, 0);
        return;
    }
    event("erase %s %" PRIu64 " %" PRIu64, d.name.c_str(), start, len);
    int err = 0;
    std::vector<unsigned char> ff(static_cast<std::size_t>(es), 0xFF);
    for (std::uint64_t blk = start; blk < start + len; blk += es) {
        bool bad = false;
        for (const auto &f : g_sim.faults) {
            if (f.kind == Fault::Kind::Erase && f.mtd == d.def.index && f.block * es == blk) {
                event("fault erase %s %" PRIu64, d.name.c_str(), blk);
                bad = true;
                break;
            }
        }
        // A failing block stops the erase there: earlier blocks are erased,
        // the failing one and later ones keep their contents.
        if (bad || !pwrite_all(d.fd, ff.data(), ff.size(), blk)) {
            err = EIO;
            break;
        }
    }
    count_operation();
    if (err)
        fuse_reply_err(req, err);
    else
        fuse_reply_ioctl(req, 0, nullptr, 0);
}

void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *arg,
              struct fuse_file_info *fi, unsigned flags, const void *in_buf, size_t in_bufsz,
              size_t out_bufsz) {
    Device *d = device_of(ino);
    if (!d || (flags & FUSE_IOCTL_DIR)) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    switch (cmd) {
    case MEMGETINFO: {
        if (out_bufsz < sizeof(mtd_info_user)) {
            fuse_reply_err(req, EINVAL);
            return;
        }
        mtd_info_user info{};
        info.type = MTD_NORFLASH;
        info.flags = MTD_CAP_NORFLASH;
        info.size = static_cast<std::uint32_t>(d->def.size);
        info.erasesize = d->def.erasesize;
        info.writesize = 1;
        info.oobsize = 0;
        fuse_reply_ioctl(req, 0, &info, sizeof info);
        return;
    }
    case MEMERASE: {
        // As the kernel's driver: erasing needs a descriptor opened for writing.
        if (fi->fh == static_cast<std::uint64_t>(O_RDONLY)) {
            fuse_reply_err(req, EPERM);
            return;
        }
        if (in_bufsz < sizeof(erase_info_user)) {
            fuse_reply_err(req, EINVAL);
            return;
        }
        erase_info_user ei;
        std::memcpy(&ei, in_buf, sizeof ei);
        do_erase(req, *d, ei);
        return;
    }
    case MEMISLOCKED: {
        // Declared as a read ioctl, so the kernel does not pass the region the
        // caller asks about; fetch it from the caller when possible.
        erase_info_user ei{};
        if (read_caller_region(req, arg, ei)) {
            std::uint64_t start = ei.start, len = ei.length;
            if (start >= d->def.size || len > d->def.size - start) {
                fuse_reply_err(req, EINVAL);
                return;
            }
        }
        fuse_reply_ioctl(req, d->def.locked ? 1 : 0, nullptr, 0);
        return;
    }
    default:
        fuse_reply_err(req, ENOTTY);
        return;
    }
}

void op_flush(fuse_req_t req, fuse_ino_t, struct fuse_file_info *) {
    fuse_reply_err(req, 0);
}
void op_release(fuse_req_t req, fuse_ino_t, struct fuse_file_info *) {
    fuse_reply_err(req, 0);
}
void op_fsync(fuse_req_t req, fuse_ino_t, int, struct fuse_file_info *) {
    fuse_reply_err(req, 0);
}

void op_opendir(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi) {
    if (ino != kRootIno) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    fuse_reply_open(req, fi);
}

// ---------------------------------------------------------------- setup

[[noreturn]] void usage(int status) {
    std::fprintf(status ? stderr : stdout,
                 "usage: kiv-flashsim --images DIR [--layout FILE] [--events FILE]\n"
                 "                    [--fault FAULT]... [--ready-fd FD]\n"
                 "                    [--powercut-fd FD --powercut-ack-fd FD] [--debug] "
                 "MOUNTPOINT\n"
                 "\n"
                 "Serves DIR/mtdN.img as MOUNTPOINT/mtdN with NOR flash semantics and the\n"
                 "MTD ioctls MEMGETINFO, MEMERASE and MEMISLOCKED.  Without --layout every\n"
                 "mtdN.img in DIR is served with 64 KiB erase blocks.  Runs in the\n"
                 "foreground until unmounted or signalled.\n"
                 "\n"
                 "fault FAULT: erase:mtdN:BLOCK  write:mtdN:OFFSET  short:mtdN:OFFSET\n"
                 "            bitflip:mtdN:OFFSET:BIT  powercut:N\n");
    std::exit(status);
}

[[noreturn]] void die(const std::string &msg) {
    std::fprintf(stderr, "kiv-flashsim: %s\n", msg.c_str());
    std::exit(1);
}

int parse_fd(const char *text) {
    std::uint64_t v = 0;
    if (!kiv::sim::parse_size(text, v) || v > 1024 * 1024)
        die(std::string("bad file descriptor '") + text + "'");
    return static_cast<int>(v);
}

kiv::sim::Layout layout_from_dir(const std::string &dir) {
    kiv::sim::Layout layout;
    DIR *dp = opendir(dir.c_str());
    if (!dp) die(dir + ": " + std::strerror(errno));
    while (dirent *de = readdir(dp)) {
        std::string name = de->d_name;
        int idx = -1;
        if (!name.ends_with(".img") ||
            !kiv::sim::parse_mtd_name(name.substr(0, name.size() - 4), idx) ||
            kiv::sim::image_name(idx) != name)
            continue;
        struct stat st {};
        if (stat((dir + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        kiv::sim::MtdDef def;
        def.index = idx;
        def.size = static_cast<std::uint64_t>(st.st_size);
        if (def.size == 0 || def.size % def.erasesize != 0)
            die(dir + "/" + name + ": size is not a multiple of 64 KiB");
        layout.mtds.push_back(def);
    }
    closedir(dp);
    std::sort(layout.mtds.begin(), layout.mtds.end(),
              [](const auto &a, const auto &b) { return a.index < b.index; });
    return layout;
}

} // namespace

int main(int argc, char **argv) {
    std::string images, layout_path, events_path;
    std::vector<std::string> fault_texts;
    int ready_fd = -1;
    bool debug = false;
    enum { OptImages = 256, OptLayout, OptEvents, OptFault, OptReady, OptCut, OptAck, OptDebug };
    static const option opts[] = {
        {"images", required_argument, nullptr, OptImages},
        {"layout", required_argument, nullptr, OptLayout},
        {"events", required_argument, nullptr, OptEvents},
        {"fault", required_argument, nullptr, OptFault},
        {"ready-fd", required_argument, nullptr, OptReady},
        {"powercut-fd", required_argument, nullptr, OptCut},
        {"powercut-ack-fd", required_argument, nullptr, OptAck},
        {"debug", no_argument, nullptr, OptDebug},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (;;) {
        int c = getopt_long(argc, argv, "h", opts, nullptr);
        if (c == -1) break;
        switch (c) {
        case OptImages:
            images = optarg;
            break;
        case OptLayout:
            layout_path = optarg;
            break;
        case OptEvents:
            events_path = optarg;
            break;
        case OptFault:
            fault_texts.emplace_back(optarg);
            break;
        case OptReady:
            ready_fd = parse_fd(optarg);
            break;
        case OptCut:
            g_sim.powercut_fd = parse_fd(optarg);
            break;
        case OptAck:
            g_sim.powercut_ack_fd = parse_fd(optarg);
            break;
        case OptDebug:
            debug = true;
            break;
        case 'h':
            usage(0);
        default:
            usage(2);
        }
    }
    if (images.empty() || optind != argc - 1) usage(2);
    std::string mountpoint = argv[optind];

    kiv::sim::Layout layout;
    std::string err;
    if (!layout_path.empty()) {
        std::string text;
        if (!kiv::sim::read_file(layout_path, text, err)) die(err);
        if (!kiv::sim::parse_layout(text, layout, err)) die(layout_path + ": " + err);
        if (!kiv::sim::ensure_images(images, layout, err)) die(err);
    } else {
        layout = layout_from_dir(images);
    }
    if (layout.mtds.empty()) die("no flash devices to serve");

    for (const auto &text : fault_texts) {
        Fault f;
        if (!kiv::sim::parse_fault(text, f, err) || !kiv::sim::check_fault(f, layout, err))
            die(err);
        if (f.kind == Fault::Kind::Erase) f.offset = f.block * layout.find(f.mtd)->erasesize;
        if (f.kind == Fault::Kind::Powercut)
            g_sim.powercut_after = f.opno;
        else
            g_sim.faults.push_back(f);
    }

    for (const auto &def : layout.mtds) {
        Device d;
        d.def = def;
        d.name = "mtd" + std::to_string(def.index);
        std::string path = images + "/" + kiv::sim::image_name(def.index);
        d.fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (d.fd < 0) die(path + ": " + std::strerror(errno));
        g_sim.devices.push_back(d);
    }

    if (!events_path.empty()) {
        g_sim.events_fd =
            open(events_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (g_sim.events_fd < 0) die(events_path + ": " + std::strerror(errno));
    }

    fuse_lowlevel_ops ops{};
    ops.init = op_init;
    ops.lookup = op_lookup;
    ops.getattr = op_getattr;
    ops.setattr = op_setattr;
    ops.opendir = op_opendir;
    ops.readdir = op_readdir;
    ops.open = op_open;
    ops.read = op_read;
    ops.write = op_write;
    ops.flush = op_flush;
    ops.release = op_release;
    ops.fsync = op_fsync;
    ops.ioctl = op_ioctl;

    std::vector<std::string> fargs{argv[0], "-o", "fsname=kiv-flashsim,subtype=kiv-flashsim"};
    // Anyone in the sandbox may use the devices, whatever user it runs as.
    if (geteuid() == 0) {
        fargs.emplace_back("-o");
        fargs.emplace_back("allow_other");
    }
    if (debug) fargs.emplace_back("-d");
    std::vector<char *> fargv;
    for (auto &a : fargs)
        fargv.push_back(a.data());
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(fargv.size()), fargv.data());
    fuse_session *se = fuse_session_new(&args, &ops, sizeof ops, nullptr);
    if (!se) die("cannot create the FUSE session");
    if (fuse_set_signal_handlers(se) != 0) die("cannot install signal handlers");
    // The sandbox reads a notification pipe that may already be gone.
    signal(SIGPIPE, SIG_IGN);
    if (fuse_session_mount(se, mountpoint.c_str()) != 0) die("cannot mount on " + mountpoint);

    if (ready_fd >= 0) {
        ssize_t w = write(ready_fd, "R", 1);
        (void)w;
        close(ready_fd);
    }
    int rc = fuse_session_loop(se);
    fuse_session_unmount(se);
    fuse_remove_signal_handlers(se);
    fuse_session_destroy(se);
    fuse_opt_free_args(&args);
    return rc < 0 ? 1 : 0;
}
