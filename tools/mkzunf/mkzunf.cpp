// mkzunf: writes ZUNF release images, hostconfig images and partition contents from a
// manifest or from the command line. Host tool; see docs/mkzunf.md.
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mkzunf/zunf_builder.hpp"
#include "util/stdio_file.hpp"

using namespace mkzunf;

namespace {

constexpr std::size_t HOSTCONFIG_LIMIT = 5120; // what the device's loader accepts
constexpr std::size_t MAX_INPUT_FILE = 256u * 1024u * 1024u;
constexpr std::uint8_t ERASED = 0xFF;

const char USAGE[] =
    "usage: mkzunf image      -o OUT [MANIFEST] [-e DIRECTIVE]... [FAULTS] [--pad=SIZE] [-v]\n"
    "       mkzunf hostconfig -o OUT [MANIFEST] [-e DIRECTIVE]... [--data=NAME=FILE]...\n"
    "                         [FAULTS] [--pad=SIZE] [-v]\n"
    "       mkzunf partition  -o OUT --wts=1|2|3 --name=NAME --version=X.Y.Z [--build-id=ID]\n"
    "                         (--file=PATH | --text=TEXT | --size=N [--fill=BYTE])\n"
    "                         [--gap-fill=BYTE] [--pad=SIZE] [--bad-block-hdr-crc]\n"
    "                         [--bad-block-body-crc]\n"
    "manifest directives (one per line, '#' starts a comment line):\n"
    "  release  version=X.Y.Z [date=SECONDS|YYYY-MM-DD[THH:MM:SS]] [build_id=ID]\n"
    "           [products=M1,M2] [text=TEXT | text_file=PATH]\n"
    "  kivm     line=CSV | text=TEXT | file=PATH     (repeated kivm lines form one part)\n"
    "  software name=NAME version=X.Y.Z [build_id=ID] (file=PATH | text=T | size=N [fill=B])\n"
    "  data     name=NAME (file=PATH | text=T | size=N [fill=B])\n"
    "  raw      type=N name=NAME [hdr_length=N] [header=HEX] (file=PATH | text=T | size=N "
    "[fill=B])\n"
    "faults: --bad-part-hdr-crc=I --bad-part-body-crc=I --part-hdr-length=I:N --bad-hdr-crc\n"
    "        --bad-body-crc --bad-magic=1|2 --set-version=N --image-hdr-length=N\n"
    "        --truncate=N --append=HEX\n";

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char *format, ...) {
    char buf[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    throw Error(buf);
}

std::string str(std::string_view v) {
    return std::string(v);
}

std::uint64_t parse_uint(std::string_view text, std::uint64_t max, const char *what) {
    std::uint64_t v = 0;
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, base);
    if (digits.empty() || ec != std::errc{} || end != digits.data() + digits.size() || v > max)
        fail("invalid %s '%s'", what, str(text).c_str());
    return v;
}

Bytes parse_hex(std::string_view text, const char *what) {
    if (text.size() % 2 != 0)
        fail("invalid %s '%s': odd number of hex digits", what, str(text).c_str());
    Bytes out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        std::uint8_t b = 0;
        auto [end, ec] = std::from_chars(text.data() + i, text.data() + i + 2, b, 16);
        if (ec != std::errc{} || end != text.data() + i + 2)
            fail("invalid %s '%s'", what, str(text).c_str());
        out.push_back(b);
    }
    return out;
}

Bytes read_file(const std::string &path) {
    StdioFile f(path.c_str(), "rb");
    if (!f) fail("cannot open %s: %s", path.c_str(), std::strerror(errno));
    Bytes out;
    std::uint8_t chunk[65536];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0) {
        out.insert(out.end(), chunk, chunk + n);
        if (out.size() > MAX_INPUT_FILE)
            fail("%s is larger than %zu bytes", path.c_str(), MAX_INPUT_FILE);
    }
    if (std::ferror(f.get())) fail("cannot read %s", path.c_str());
    return out;
}

void write_output(const std::string &path, const Bytes &bytes) {
    if (path == "-") {
        if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
            std::fflush(stdout) != 0)
            fail("cannot write to standard output");
        return;
    }
    StdioFile f(path.c_str(), "wb");
    if (!f) fail("cannot open %s for writing: %s", path.c_str(), std::strerror(errno));
    if (std::fwrite(bytes.data(), 1, bytes.size(), f.get()) != bytes.size() || f.close() != 0)
        fail("cannot write %s", path.c_str());
}

// Seconds since 1970 UTC, given as a number or as YYYY-MM-DD[THH:MM:SS].
std::uint32_t parse_date(std::string_view text) {
    if (text.find('-') == std::string_view::npos)
        return static_cast<std::uint32_t>(parse_uint(text, UINT32_MAX, "date"));
    std::tm tm{};
    int consumed = 0;
    std::string s = str(text);
    int n =
        std::sscanf(s.c_str(), "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &consumed);
    if (n == 3 && s[static_cast<std::size_t>(consumed)] == 'T') {
        int more = 0;
        n += std::sscanf(s.c_str() + consumed, "T%2d:%2d:%2d%n", &tm.tm_hour, &tm.tm_min,
                         &tm.tm_sec, &more);
        consumed += more;
    }
    if ((n != 3 && n != 6) || static_cast<std::size_t>(consumed) != s.size())
        fail("invalid date '%s'", s.c_str());
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    std::time_t t = timegm(&tm);
    if (t < 0 || t > static_cast<std::time_t>(UINT32_MAX))
        fail("date '%s' out of range", s.c_str());
    return static_cast<std::uint32_t>(t);
}

Version parse_ver(std::string_view text) {
    Version v;
    if (!parse_version(text, v))
        fail("invalid version '%s' (expected MAJOR.MINOR.BUILD)", str(text).c_str());
    return v;
}

// key=value words of one directive; values may be double-quoted with C escapes.
using Fields = std::map<std::string, std::string, std::less<>>;

std::string unquote(std::string_view line, std::size_t &i) {
    std::string out;
    ++i; // opening quote
    while (i < line.size() && line[i] != '"') {
        char c = line[i++];
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (i >= line.size()) break;
        char e = line[i++];
        switch (e) {
        case 'n':
            out.push_back('\n');
            break;
        case 't':
            out.push_back('\t');
            break;
        case '0':
            out.push_back('\0');
            break;
        case '\\':
            out.push_back('\\');
            break;
        case '"':
            out.push_back('"');
            break;
        default:
            fail("unknown escape '\\%c'", e);
        }
    }
    if (i >= line.size()) fail("unterminated quoted value");
    ++i; // closing quote
    return out;
}

void split_directive(std::string_view line, std::string &word, Fields &fields) {
    std::size_t i = 0;
    auto skip_blank = [&] {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            ++i;
    };
    skip_blank();
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
        ++i;
    word = str(line.substr(start, i - start));
    for (;;) {
        skip_blank();
        if (i >= line.size()) break;
        start = i;
        while (i < line.size() && line[i] != '=' && line[i] != ' ' && line[i] != '\t')
            ++i;
        if (i >= line.size() || line[i] != '=')
            fail("expected key=value, got '%s'", str(line.substr(start, i - start)).c_str());
        std::string key = str(line.substr(start, i - start));
        ++i;
        std::string value;
        if (i < line.size() && line[i] == '"') {
            value = unquote(line, i);
        } else {
            start = i;
            while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
                ++i;
            value = str(line.substr(start, i - start));
        }
        if (!fields.emplace(key, value).second) fail("key '%s' given twice", key.c_str());
    }
}

class Directive {
  public:
    Directive(std::string word, Fields fields, std::string base_dir, std::string origin)
        : word_(std::move(word)), fields_(std::move(fields)), base_(std::move(base_dir)),
          origin_(std::move(origin)) {}
    const std::string &word() const { return word_; }
    // Where the directive was given, for messages: "FILE:LINE", "-e '...'" or "--data".
    const std::string &origin() const { return origin_; }

    // Refuses keys outside the allowed set.
    void only(std::initializer_list<const char *> allowed) const {
        for (const auto &[k, v] : fields_) {
            bool ok = false;
            for (const char *a : allowed)
                ok = ok || k == a;
            if (!ok) fail("%s: unknown key '%s'", word_.c_str(), k.c_str());
        }
    }
    bool has(const char *key) const { return fields_.count(key) != 0; }
    std::string get(const char *key, const char *fallback = nullptr) const {
        auto it = fields_.find(key);
        if (it != fields_.end()) return it->second;
        if (!fallback) fail("%s: missing %s=", word_.c_str(), key);
        return fallback;
    }
    std::string path(const char *key) const {
        std::string p = get(key);
        return p.empty() || p[0] == '/' || base_.empty() ? p : base_ + "/" + p;
    }
    // Body from exactly one of file=, text=, size= (with fill=).
    Bytes content() const {
        int sources = has("file") + has("text") + has("size");
        if (sources != 1) fail("%s: give exactly one of file=, text=, size=", word_.c_str());
        if (has("fill") && !has("size")) fail("%s: fill= goes with size=", word_.c_str());
        if (has("file")) return read_file(path("file"));
        if (has("text")) return to_bytes(get("text"));
        auto n = static_cast<std::size_t>(parse_uint(get("size"), MAX_INPUT_FILE, "size"));
        auto fill = static_cast<std::uint8_t>(parse_uint(get("fill", "0"), 0xFF, "fill"));
        return Bytes(n, fill);
    }

  private:
    std::string word_;
    Fields fields_;
    std::string base_;
    std::string origin_;
};

std::string release_text(const Directive &d) {
    if (d.has("text") && d.has("text_file")) fail("release: give text= or text_file=, not both");
    std::string text = d.get("text", "");
    if (d.has("text_file")) {
        Bytes b = read_file(d.path("text_file"));
        text.assign(b.begin(), b.end());
    }
    if (d.has("products")) {
        // The device finds the model list as a line of its own, ended by a newline.
        if (!text.empty() && text.back() != '\n') text.push_back('\n');
        text += "products=" + d.get("products") + "\n";
    }
    if (text.find('\0') != std::string::npos) fail("release: text must not contain a NUL byte");
    return text;
}

enum class Mode { image, hostconfig };

// Gathers the metadata lines of all kivm directives into one part, placed where the
// first of them stands.
struct KivmCollector {
    std::string text;
    std::size_t slot = SIZE_MAX;
};

void add_directive(const Directive &d, Mode mode, std::vector<PartSpec> &parts,
                   KivmCollector &kivm) {
    const std::string &w = d.word();
    if (mode == Mode::hostconfig && w != "data" && w != "raw")
        fail("%s: a hostconfig image holds only data and raw parts", w.c_str());
    if (w == "release") {
        d.only({"version", "date", "build_id", "products", "text", "text_file"});
        ImageBuilder one;
        one.add_release_header(parse_ver(d.get("version")), parse_date(d.get("date", "0")),
                               d.get("build_id", ""), release_text(d));
        parts.push_back(one.parts().front());
    } else if (w == "kivm") {
        d.only({"line", "text", "file"});
        if (d.has("line") + d.has("text") + d.has("file") != 1)
            fail("kivm: give exactly one of line=, text=, file=");
        if (kivm.slot == SIZE_MAX) {
            kivm.slot = parts.size();
            parts.emplace_back();
        }
        if (d.has("line")) {
            kivm.text += d.get("line") + "\n";
        } else if (d.has("text")) {
            kivm.text += d.get("text");
        } else {
            Bytes f = read_file(d.path("file"));
            kivm.text.append(f.begin(), f.end());
        }
    } else if (w == "software") {
        d.only({"name", "version", "build_id", "file", "text", "size", "fill"});
        ImageBuilder one;
        one.add_software(d.get("name"), parse_ver(d.get("version")), d.get("build_id", ""),
                         d.content());
        parts.push_back(one.parts().front());
    } else if (w == "data") {
        d.only({"name", "file", "text", "size", "fill"});
        parts.push_back({ZUNF_TYPE_DATA, d.get("name"), ZUNF_CONTENT_HDR_LEN, {}, d.content()});
    } else if (w == "raw") {
        d.only({"type", "name", "hdr_length", "header", "file", "text", "size", "fill"});
        Bytes header = parse_hex(d.get("header", ""), "header");
        auto type = static_cast<std::uint16_t>(parse_uint(d.get("type"), 0xFFFF, "type"));
        auto def_len = std::to_string(ZUNF_CONTENT_HDR_LEN + header.size());
        auto len = static_cast<std::uint16_t>(
            parse_uint(d.get("hdr_length", def_len.c_str()), 0xFFFF, "hdr_length"));
        parts.push_back({type, d.get("name"), len, header, d.content()});
    } else {
        fail("unknown directive '%s'", w.c_str());
    }
}

// Adds the parts a list of directives describes, in order.
void apply_directives(const std::vector<Directive> &dirs, Mode mode, ImageBuilder &b) {
    KivmCollector kivm;
    std::vector<PartSpec> parts;
    for (const Directive &d : dirs) {
        try {
            add_directive(d, mode, parts, kivm);
        } catch (const Error &e) {
            fail("%s: %s", d.origin().c_str(), e.what());
        }
    }
    if (kivm.slot != SIZE_MAX) {
        if (kivm.text.find('\0') != std::string::npos)
            fail("kivm: text must not contain a NUL byte");
        ImageBuilder one;
        one.add_kivm(kivm.text);
        parts[kivm.slot] = one.parts().front();
    }
    for (PartSpec &p : parts)
        b.add_part(std::move(p));
}

std::vector<Directive> read_manifest(const std::string &path) {
    Bytes raw = read_file(path);
    std::string text(raw.begin(), raw.end());
    std::size_t slash = path.rfind('/');
    std::string base = slash == std::string::npos ? "" : path.substr(0, slash);
    if (slash == 0) base = "/";
    std::vector<Directive> out;
    std::size_t pos = 0;
    int lineno = 0;
    while (pos <= text.size()) {
        std::size_t nl = text.find('\n', pos);
        std::string_view line(text.data() + pos,
                              (nl == std::string::npos ? text.size() : nl) - pos);
        pos = nl == std::string::npos ? text.size() + 1 : nl + 1;
        ++lineno;
        std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string_view::npos || line[first] == '#') continue;
        try {
            std::string word;
            Fields fields;
            split_directive(line, word, fields);
            out.emplace_back(word, std::move(fields), base, path + ":" + std::to_string(lineno));
        } catch (const Error &e) {
            fail("%s:%d: %s", path.c_str(), lineno, e.what());
        }
    }
    return out;
}

struct Args {
    std::string command;
    std::string out;
    std::string manifest;
    std::vector<std::string> exprs;
    std::vector<std::string> data;
    ImageFaults faults;
    std::optional<std::size_t> pad;
    bool verbose = false;
    // partition
    std::optional<int> wts;
    std::string name;
    std::string version;
    std::string build_id;
    std::optional<std::string> file;
    std::optional<std::string> text;
    std::optional<std::size_t> size;
    std::uint8_t fill = 0;
    std::uint8_t gap_fill = 0;
    bool bad_block_hdr_crc = false;
    bool bad_block_body_crc = false;
};

std::size_t parse_index(std::string_view v, const char *what) {
    return static_cast<std::size_t>(parse_uint(v, ZUNF_MAX_PARTS * 100u, what));
}

Args parse_args(int argc, char **argv) {
    Args a;
    if (argc < 2) fail("missing command");
    a.command = argv[1];
    if (a.command != "image" && a.command != "hostconfig" && a.command != "partition")
        fail("unknown command '%s'", a.command.c_str());
    bool is_partition = a.command == "partition";
    for (int i = 2; i < argc; ++i) {
        std::string_view arg = argv[i];
        std::string key = str(arg);
        std::optional<std::string> value;
        std::size_t eq = arg.find('=');
        if (arg.starts_with("--") && eq != std::string_view::npos) {
            key = str(arg.substr(0, eq));
            value = str(arg.substr(eq + 1));
        }
        auto need = [&]() -> std::string {
            if (value) return *value;
            if (i + 1 >= argc) fail("%s needs a value", key.c_str());
            return argv[++i];
        };
        auto flag = [&] {
            if (value) fail("%s takes no value", key.c_str());
        };
        if (key == "-o" || key == "--output") {
            a.out = need();
        } else if (key == "-v" || key == "--verbose") {
            flag();
            a.verbose = true;
        } else if (key == "--pad") {
            a.pad = static_cast<std::size_t>(parse_uint(need(), UINT32_MAX, "pad size"));
        } else if (!is_partition && (key == "-e" || key == "--directive")) {
            a.exprs.push_back(need());
        } else if (a.command == "hostconfig" && key == "--data") {
            a.data.push_back(need());
        } else if (!is_partition && key == "--bad-part-hdr-crc") {
            a.faults.part_hdr_crc = parse_index(need(), "part index");
        } else if (!is_partition && key == "--bad-part-body-crc") {
            a.faults.part_body_crc = parse_index(need(), "part index");
        } else if (!is_partition && key == "--part-hdr-length") {
            std::string v = need();
            std::size_t colon = v.find(':');
            if (colon == std::string::npos) fail("--part-hdr-length needs INDEX:LENGTH");
            a.faults.part_hdr_length = parse_index(v.substr(0, colon), "part index");
            a.faults.part_hdr_length_value =
                static_cast<std::uint16_t>(parse_uint(v.substr(colon + 1), 0xFFFF, "hdr_length"));
        } else if (!is_partition && key == "--bad-hdr-crc") {
            flag();
            a.faults.image_hdr_crc = true;
        } else if (!is_partition && key == "--bad-body-crc") {
            flag();
            a.faults.image_body_crc = true;
        } else if (!is_partition && key == "--bad-magic") {
            a.faults.bad_magic = static_cast<int>(parse_uint(need(), 2, "magic half"));
            if (a.faults.bad_magic == 0) fail("--bad-magic takes 1 or 2");
        } else if (!is_partition && key == "--set-version") {
            a.faults.version = static_cast<std::uint8_t>(parse_uint(need(), 0xFF, "version"));
        } else if (!is_partition && key == "--image-hdr-length") {
            a.faults.image_hdr_length =
                static_cast<std::uint16_t>(parse_uint(need(), 0xFFFF, "hdr_length"));
        } else if (!is_partition && key == "--truncate") {
            a.faults.truncate_to = static_cast<std::size_t>(parse_uint(need(), UINT32_MAX, "size"));
        } else if (!is_partition && key == "--append") {
            Bytes g = parse_hex(need(), "--append bytes");
            a.faults.garbage.insert(a.faults.garbage.end(), g.begin(), g.end());
        } else if (is_partition && key == "--wts") {
            a.wts = static_cast<int>(parse_uint(need(), 3, "wts"));
            if (*a.wts == 0) fail("--wts takes 1, 2 or 3");
        } else if (is_partition && key == "--name") {
            a.name = need();
        } else if (is_partition && key == "--version") {
            a.version = need();
        } else if (is_partition && key == "--build-id") {
            a.build_id = need();
        } else if (is_partition && key == "--file") {
            a.file = need();
        } else if (is_partition && key == "--text") {
            a.text = need();
        } else if (is_partition && key == "--size") {
            a.size = static_cast<std::size_t>(parse_uint(need(), MAX_INPUT_FILE, "size"));
        } else if (is_partition && key == "--fill") {
            a.fill = static_cast<std::uint8_t>(parse_uint(need(), 0xFF, "fill"));
        } else if (is_partition && key == "--gap-fill") {
            a.gap_fill = static_cast<std::uint8_t>(parse_uint(need(), 0xFF, "gap fill"));
        } else if (is_partition && key == "--bad-block-hdr-crc") {
            flag();
            a.bad_block_hdr_crc = true;
        } else if (is_partition && key == "--bad-block-body-crc") {
            flag();
            a.bad_block_body_crc = true;
        } else if (!is_partition && !key.starts_with("-") && a.manifest.empty()) {
            a.manifest = key;
        } else {
            fail("unexpected argument '%s' for %s", argv[i], a.command.c_str());
        }
    }
    if (a.out.empty()) fail("missing -o OUT");
    return a;
}

Bytes make_partition(const Args &a) {
    if (!a.wts) fail("partition: missing --wts");
    if (a.name.empty() || a.version.empty()) fail("partition: missing --name or --version");
    if (!!a.file + !!a.text + !!a.size != 1)
        fail("partition: give exactly one of --file, --text, --size");
    Bytes content = a.file   ? read_file(*a.file)
                    : a.text ? to_bytes(*a.text)
                             : Bytes(*a.size, a.fill);
    zunf_pinfometa block = make_software_block(a.name, parse_ver(a.version), a.build_id, content);
    if (a.bad_block_body_crc) {
        block.hdr.body_crc = ~block.hdr.body_crc.get();
        reseal_software_block(block);
    }
    if (a.bad_block_hdr_crc) block.hdr.hdr_crc = ~block.hdr.hdr_crc.get();
    return build_partition(*a.wts, block, content, a.gap_fill);
}

void print_parts(const Bytes &img) {
    std::fprintf(stderr, "image: %zu bytes\n", img.size());
    std::size_t off = ZUNF_FIRST_PART_OFFSET;
    for (int i = 0; off + sizeof(zunf_content_header) <= img.size(); ++i) {
        const auto *h = reinterpret_cast<const zunf_content_header *>(img.data() + off);
        char name[ZUNF_NAME_LEN + 1] = {};
        std::memcpy(name, h->name, ZUNF_NAME_LEN);
        std::fprintf(stderr,
                     "part %d: offset %zu type %u hdr_length %u body_length %u name \"%s\"\n", i,
                     off, static_cast<unsigned>(h->type_id.get()),
                     static_cast<unsigned>(h->hdr_length.get()),
                     static_cast<unsigned>(h->body_length.get()), name);
        std::size_t step = zunf_pad4(h->hdr_length + h->body_length);
        if (step == 0) break;
        off += step;
    }
}

int run(int argc, char **argv) {
    Args a = parse_args(argc, argv);
    Bytes out;
    if (a.command == "partition") {
        out = make_partition(a);
    } else {
        Mode mode = a.command == "hostconfig" ? Mode::hostconfig : Mode::image;
        std::vector<Directive> dirs;
        if (!a.manifest.empty()) dirs = read_manifest(a.manifest);
        for (const std::string &e : a.exprs) {
            std::string word;
            Fields fields;
            try {
                split_directive(e, word, fields);
            } catch (const Error &err) {
                fail("-e '%s': %s", e.c_str(), err.what());
            }
            dirs.emplace_back(word, std::move(fields), "", "-e '" + e + "'");
        }
        for (const std::string &d : a.data) {
            std::size_t eq = d.find('=');
            if (eq == std::string::npos || eq == 0) fail("--data needs NAME=FILE");
            dirs.emplace_back("data", Fields{{"name", d.substr(0, eq)}, {"file", d.substr(eq + 1)}},
                              "", "--data=" + d);
        }
        if (dirs.empty()) fail("no parts given (manifest, -e or --data)");
        ImageBuilder b;
        apply_directives(dirs, mode, b);
        b.set_faults(a.faults);
        out = b.build();
        if (a.verbose) print_parts(out);
        if (mode == Mode::hostconfig && out.size() > HOSTCONFIG_LIMIT)
            std::fprintf(stderr, "mkzunf: warning: hostconfig image of %zu bytes exceeds %zu\n",
                         out.size(), HOSTCONFIG_LIMIT);
    }
    if (a.pad) {
        if (out.size() > *a.pad)
            fail("output of %zu bytes does not fit --pad=%zu", out.size(), *a.pad);
        pad_to(out, *a.pad, ERASED);
    }
    write_output(a.out, out);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    try {
        return run(argc, argv);
    } catch (const Error &e) {
        std::fprintf(stderr, "mkzunf: %s\nTry 'mkzunf --help'.\n", e.what());
        return 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "mkzunf: %s\n", e.what());
        return 1;
    }
}
