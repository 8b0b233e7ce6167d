#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kiv::sim {

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

std::vector<std::string_view> split_words(std::string_view s) {
    std::vector<std::string_view> words;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t'))
            ++i;
        std::size_t start = i;
        while (i < s.size() && s[i] != ' ' && s[i] != '\t')
            ++i;
        if (i > start) words.push_back(s.substr(start, i - start));
    }
    return words;
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> parts;
    for (;;) {
        std::size_t pos = s.find(sep);
        parts.push_back(s.substr(0, pos));
        if (pos == std::string_view::npos) return parts;
        s.remove_prefix(pos + 1);
    }
}

bool parse_small(std::string_view text, std::uint64_t max, std::uint64_t &out) {
    std::uint64_t v = 0;
    if (!parse_size(text, v) || v > max) return false;
    out = v;
    return true;
}

} // namespace

const MtdDef *Layout::find(int index) const {
    for (const auto &m : mtds)
        if (m.index == index) return &m;
    return nullptr;
}

bool parse_size(std::string_view text, std::uint64_t &out) {
    text = trim(text);
    if (text.empty()) return false;
    std::uint64_t mult = 1;
    char last = text.back();
    if (last == 'k' || last == 'K')
        mult = 1024;
    else if (last == 'm' || last == 'M')
        mult = 1024 * 1024;
    else if (last == 'g' || last == 'G')
        mult = 1024ULL * 1024 * 1024;
    if (mult != 1) text.remove_suffix(1);
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return false;
    std::uint64_t v = 0;
    for (char c : text) {
        unsigned d;
        if (c >= '0' && c <= '9')
            d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        if (v > (UINT64_MAX - d) / base) return false;
        v = v * base + d;
    }
    if (v > UINT64_MAX / mult) return false;
    out = v * mult;
    return true;
}

bool parse_mtd_name(std::string_view text, int &out) {
    if (text.starts_with("/dev/")) text.remove_prefix(5);
    if (text.starts_with("mtd")) text.remove_prefix(3);
    if (text.empty() || text.size() > 3) return false;
    int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v > kMaxMtd) return false;
    out = v;
    return true;
}

bool parse_layout(std::string_view text, Layout &out, std::string &err) {
    Layout layout;
    int lineno = 0;
    while (!text.empty()) {
        std::size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        ++lineno;
        std::size_t hash = line.find('#');
        if (hash != std::string_view::npos) line = line.substr(0, hash);
        line = trim(line);
        if (line.empty()) continue;
        auto fail = [&](const std::string &why) {
            err = "line " + std::to_string(lineno) + ": " + why;
            return false;
        };
        auto words = split_words(line);
        if (words[0] == "cmdline") {
            std::string_view rest = trim(line.substr(std::string_view("cmdline").size()));
            layout.cmdline = std::string(rest);
            continue;
        }
        if (words[0] != "mtd") return fail("unknown keyword '" + std::string(words[0]) + "'");
        if (words.size() < 2) return fail("missing device number");
        MtdDef def;
        if (!parse_mtd_name(words[1], def.index))
            return fail("bad device number '" + std::string(words[1]) + "'");
        bool have_size = false;
        for (std::size_t i = 2; i < words.size(); ++i) {
            std::string_view w = words[i];
            std::uint64_t v = 0;
            if (w == "locked") {
                def.locked = true;
            } else if (w.starts_with("size=")) {
                if (!parse_size(w.substr(5), v) || v == 0)
                    return fail("bad size '" + std::string(w.substr(5)) + "'");
                def.size = v;
                have_size = true;
            } else if (w.starts_with("erase=")) {
                if (!parse_size(w.substr(6), v) || v == 0 || v > (1U << 30))
                    return fail("bad erase size '" + std::string(w.substr(6)) + "'");
                def.erasesize = static_cast<std::uint32_t>(v);
            } else {
                return fail("unknown attribute '" + std::string(w) + "'");
            }
        }
        if (!have_size) return fail("mtd" + std::to_string(def.index) + " has no size=");
        // The MTD ioctl interface reports sizes in 32 bits.
        if (def.size > 0xFFFFFFFFULL)
            return fail("mtd" + std::to_string(def.index) + " is larger than 4 GiB");
        if (def.size % def.erasesize != 0)
            return fail("mtd" + std::to_string(def.index) +
                        " size is not a multiple of its erase size");
        if (layout.find(def.index))
            return fail("mtd" + std::to_string(def.index) + " defined twice");
        layout.mtds.push_back(def);
    }
    std::sort(layout.mtds.begin(), layout.mtds.end(),
              [](const MtdDef &a, const MtdDef &b) { return a.index < b.index; });
    out = std::move(layout);
    return true;
}

const char *Fault::kind_name(Kind k) {
    switch (k) {
    case Kind::Erase:
        return "erase";
    case Kind::Write:
        return "write";
    case Kind::Short:
        return "short";
    case Kind::Bitflip:
        return "bitflip";
    case Kind::Powercut:
        return "powercut";
    }
    return "?";
}

bool parse_fault(std::string_view text, Fault &out, std::string &err) {
    auto parts = split(text, ':');
    auto fail = [&](const char *why) {
        err = "bad fault '" + std::string(text) + "': " + why;
        return false;
    };
    Fault f;
    std::string_view kind = parts[0];
    if (kind == "powercut") {
        f.kind = Fault::Kind::Powercut;
        if (parts.size() != 2) return fail("expected powercut:N");
        if (!parse_small(parts[1], UINT64_MAX, f.opno) || f.opno == 0)
            return fail("operation number must be 1 or more");
        out = f;
        return true;
    }
    if (kind == "erase")
        f.kind = Fault::Kind::Erase;
    else if (kind == "write")
        f.kind = Fault::Kind::Write;
    else if (kind == "short")
        f.kind = Fault::Kind::Short;
    else if (kind == "bitflip")
        f.kind = Fault::Kind::Bitflip;
    else
        return fail("unknown kind (erase, write, short, bitflip, powercut)");
    std::size_t want = f.kind == Fault::Kind::Bitflip ? 4 : 3;
    if (parts.size() != want)
        return fail(f.kind == Fault::Kind::Bitflip ? "expected bitflip:mtdN:OFFSET:BIT"
                                                   : "expected KIND:mtdN:NUMBER");
    if (!parse_mtd_name(parts[1], f.mtd)) return fail("bad device");
    std::uint64_t v = 0;
    if (!parse_small(parts[2], UINT64_MAX, v)) return fail("bad number");
    if (f.kind == Fault::Kind::Erase)
        f.block = v;
    else
        f.offset = v;
    if (f.kind == Fault::Kind::Bitflip) {
        std::uint64_t bit = 0;
        if (!parse_small(parts[3], 7, bit)) return fail("bit must be 0..7");
        f.bit = static_cast<int>(bit);
    }
    out = f;
    return true;
}

bool check_fault(const Fault &f, const Layout &layout, std::string &err) {
    if (f.kind == Fault::Kind::Powercut) return true;
    const MtdDef *m = layout.find(f.mtd);
    if (!m) {
        err = "fault on mtd" + std::to_string(f.mtd) + ", which the layout does not define";
        return false;
    }
    bool inside =
        f.kind == Fault::Kind::Erase ? f.block < m->size / m->erasesize : f.offset < m->size;
    if (!inside) {
        err = std::string(Fault::kind_name(f.kind)) + " fault beyond the end of mtd" +
              std::to_string(f.mtd);
        return false;
    }
    return true;
}

std::string image_name(int mtd) {
    return "mtd" + std::to_string(mtd) + ".img";
}

bool ensure_images(const std::string &dir, const Layout &layout, std::string &err) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        err = dir + ": " + std::strerror(errno);
        return false;
    }
    std::vector<unsigned char> ff;
    for (const auto &m : layout.mtds) {
        std::string path = dir + "/" + image_name(m.index);
        struct stat st {};
        if (stat(path.c_str(), &st) == 0) {
            if (static_cast<std::uint64_t>(st.st_size) != m.size) {
                err = path + " holds " + std::to_string(st.st_size) +
                      " bytes but the layout says " + std::to_string(m.size) +
                      " (remove it to start from erased flash)";
                return false;
            }
            continue;
        }
        // Written under a temporary name so that an interrupted creation never
        // leaves a short image that a later run would reject.
        std::string tmp = path + ".new";
        int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            err = tmp + ": " + std::strerror(errno);
            return false;
        }
        if (ff.empty()) ff.assign(1 << 20, 0xFF);
        std::uint64_t done = 0;
        while (done < m.size) {
            std::size_t n =
                static_cast<std::size_t>(std::min<std::uint64_t>(ff.size(), m.size - done));
            ssize_t w = pwrite(fd, ff.data(), n, static_cast<off_t>(done));
            if (w <= 0) {
                err = tmp + ": " + std::strerror(w < 0 ? errno : ENOSPC);
                close(fd);
                return false;
            }
            done += static_cast<std::uint64_t>(w);
        }
        close(fd);
        if (rename(tmp.c_str(), path.c_str()) != 0) {
            err = path + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool read_file(const std::string &path, std::string &out, std::string &err) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        err = path + ": " + std::strerror(errno);
        return false;
    }
    std::string data;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            err = path + ": " + std::strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0) break;
        data.append(buf, static_cast<std::size_t>(n));
    }
    close(fd);
    out = std::move(data);
    return true;
}

} // namespace kiv::sim
