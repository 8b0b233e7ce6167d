// The release metadata ("kivm"): one line per content of a release, saying which image part
// goes into which pool, how it is mounted, for which platform, with which version and in
// which write layout.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kivl/kivl.hpp"
#include "util/qx.hpp"
#include "util/scan_text.hpp"

namespace {
constexpr const char *MODULE = "kivl";

// Lines are scanned from a buffer of this size; longer lines are refused, never cut.
constexpr std::size_t LINE_MAX = 2000;

// The widths keep every text column inside its field: a wider column stops the scan at the
// width, the comma after it then fails to match, and the line counts as malformed.
#define KIVM_TEXT_COLUMNS "%i,%17[^,],%i,%31[^,],%9[^,],%21[^,],"
static_assert(KIVM_POOLNAME_LEN == 18 && KIVM_MOUNTPNT_LEN == 32);
static_assert(KIVM_FSTYPE_LEN == 10 && KIVM_PLATFORM_LEN == 22);
constexpr const char *DOTTED_FORM = KIVM_TEXT_COLUMNS "%i.%i.%i,%i";
constexpr const char *HEX_FORM = KIVM_TEXT_COLUMNS "%X,%i";
#undef KIVM_TEXT_COLUMNS
constexpr int DOTTED_FIELDS = 10;
constexpr int HEX_FIELDS = 8;

constexpr int VERSION_NOT_GIVEN = -1;
constexpr int VERSION_LATE = -2;

struct scanned_line {
    int cidx, reserved, major, minor, build, wts;
    unsigned version_word;
    char poolname[KIVM_POOLNAME_LEN], mountpnt[KIVM_MOUNTPNT_LEN], fstype[KIVM_FSTYPE_LEN],
        platform[KIVM_PLATFORM_LEN];
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int scan_dotted(const char *line, scanned_line &s) {
    return std::sscanf(line, DOTTED_FORM, &s.cidx, s.poolname, &s.reserved, s.mountpnt, s.fstype,
                       s.platform, &s.major, &s.minor, &s.build, &s.wts);
}
int scan_hex(const char *line, scanned_line &s) {
    return std::sscanf(line, HEX_FORM, &s.cidx, s.poolname, &s.reserved, s.mountpnt, s.fstype,
                       s.platform, &s.version_word, &s.wts);
}
#pragma GCC diagnostic pop

// "-" stands for an empty column: only its first character is looked at.
void copy_column(char *field, std::size_t width, const char *column) {
    if (column[0] == '-')
        std::memset(field, 0, width);
    else
        qx_strlcpy(field, column, width);
}
} // namespace

int kivl_parse_kivmd(kivl_kivm_elem *elems, int max, const char *text) {
    QX_ASSERT(MODULE, elems != nullptr);
    QX_ASSERT(MODULE, text != nullptr);
    QX_ASSERT(MODULE, max >= 0);
    std::memset(static_cast<void *>(elems), 0, sizeof *elems * static_cast<std::size_t>(max));
    int count = 0;
    std::string_view rest(text);
    for (;;) {
        const std::size_t nl = rest.find('\n');
        const std::string_view line = sv_slice(rest, 0, nl);
        if (line.empty()) return count;
        rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
        if (line.front() == '#') continue;
        if (count == max) {
            qx_printf("Wups, too many KIVM elements, abort.\n");
            return -1;
        }

        char buf[LINE_MAX];
        const std::size_t n = line.size() < LINE_MAX ? line.size() : LINE_MAX - 1;
        std::memcpy(buf, line.data(), n);
        buf[n] = '\0';
        scanned_line s{};
        const bool too_long = line.size() >= LINE_MAX;
        const bool dotted = !too_long && scan_dotted(buf, s) == DOTTED_FIELDS;
        const int r = dotted ? DOTTED_FIELDS : scan_hex(buf, s);
        if (too_long || (!dotted && r != HEX_FIELDS)) {
            qx_printf("Wrong syntax, skip (r=%i)\n", r);
            qx_printf("\n%.*s\n", static_cast<int>(line.size()), line.data());
            continue;
        }

        kivl_kivm_elem &e = elems[count];
        std::memset(static_cast<void *>(&e), 0, sizeof e);
        if (!dotted) {
            s.major = static_cast<int>(s.version_word >> 24);
            s.minor = static_cast<int>((s.version_word >> 16) & 0xFFu);
            s.build = static_cast<int>(s.version_word & 0xFFFFu);
        }
        qx_strlcpy(e.poolname, s.poolname, sizeof e.poolname);
        copy_column(e.mountpnt, sizeof e.mountpnt, s.mountpnt);
        copy_column(e.fstype, sizeof e.fstype, s.fstype);
        qx_strlcpy(e.platform, s.platform, sizeof e.platform);
        e.cidx = static_cast<std::int8_t>(s.cidx);
        e.reserved = s.reserved;
        e.wts = static_cast<std::uint8_t>(s.wts);
        if (s.major == VERSION_NOT_GIVEN || s.minor == VERSION_NOT_GIVEN ||
            s.build == VERSION_NOT_GIVEN) {
            e.meta_valid = KIVM_META_NONE;
        } else if (s.major == VERSION_LATE || s.minor == VERSION_LATE || s.build == VERSION_LATE) {
            e.meta_valid = KIVM_META_LATE;
        } else {
            e.sw_version_major = static_cast<std::uint8_t>(s.major);
            e.sw_version_minor = static_cast<std::uint8_t>(s.minor);
            e.sw_build_number = static_cast<std::uint16_t>(s.build);
            e.meta_valid = KIVM_META_VERSION;
        }
        e.used = 1;
        ++count;
    }
}
