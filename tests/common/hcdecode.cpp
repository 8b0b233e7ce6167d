#include "common/hcdecode.hpp"

#include <algorithm>

namespace hcdecode {

namespace {

using Bytes = std::span<const std::uint8_t>;

const std::uint8_t MAGIC[8] = {'F', 'N', 'U', 'Z', 'Z', 'U', 'N', 'F'};

std::uint16_t get16(Bytes b, std::size_t off) {
    return static_cast<std::uint16_t>(get32(b, off) & 0xFFFFu);
}

std::string get_text(Bytes b, std::size_t off, std::size_t width) {
    std::string s;
    for (std::size_t i = 0; i < width && off + i < b.size() && b[off + i] != 0; ++i)
        s.push_back(static_cast<char>(b[off + i]));
    return s;
}

std::size_t pad4(std::size_t n) {
    return (n + 3) & ~std::size_t{3};
}

// The record layout, written once and walked in either direction.
struct Reader {
    Bytes b;
    void u8(std::size_t off, std::uint8_t &v) const { v = b[off]; }
    void u16(std::size_t off, std::uint16_t &v) const { v = get16(b, off); }
    void u32(std::size_t off, std::uint32_t &v) const { v = get32(b, off); }
    void text(std::size_t off, std::size_t width, std::string &s) const {
        s = get_text(b, off, width);
    }
};

struct Writer {
    std::vector<std::uint8_t> &b;
    void u8(std::size_t off, std::uint8_t v) const { b[off] = v; }
    void u16(std::size_t off, std::uint16_t v) const { put16(b, off, v); }
    void u32(std::size_t off, std::uint32_t v) const { put32(b, off, v); }
    void text(std::size_t off, std::size_t width, const std::string &s) const {
        std::size_t n = std::min(s.size(), width - 1);
        for (std::size_t i = 0; i < width; ++i)
            b[off + i] = i < n ? static_cast<std::uint8_t>(s[i]) : 0;
    }
};

template <typename Io, typename R> void walk_record(const Io &io, R &r) {
    io.u8(0, r.actset);
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1 + 36 * s;
        io.u8(o, r.sets[s].bootable);
        io.text(o + 1, 15, r.sets[s].name);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 112 + 72 * i;
        auto &pi = r.partinfo[i];
        io.text(o, 16, pi.poolname);
        io.u8(o + 16, pi.pn);
        io.u32(o + 20, pi.offset);
        io.u32(o + 24, pi.size);
        io.text(o + 28, 32, pi.mountpnt);
        io.text(o + 60, 10, pi.fstype);
    }
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1552 + 44 * s;
        auto &rh = r.rhdr[s];
        io.u8(o, rh.major);
        io.u8(o + 1, rh.minor);
        io.u16(o + 2, rh.build);
        io.u32(o + 4, rh.date);
        io.text(o + 8, 36, rh.build_id);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 1684 + 64 * i;
        auto &m = r.pinfometa[i];
        io.u32(o, m.hdr_crc);
        io.u16(o + 4, m.type_id);
        io.u16(o + 6, m.hdr_length);
        io.u32(o + 8, m.body_length);
        io.text(o + 12, 16, m.name);
        io.u32(o + 28, m.body_crc);
        io.u8(o + 32, m.sw_major);
        io.u8(o + 33, m.sw_minor);
        io.u16(o + 34, m.sw_build);
        io.text(o + 36, 28, m.sw_build_id);
    }
}

std::size_t refs_at(std::size_t s) {
    return 1 + 36 * s + 16;
}

} // namespace

std::uint32_t crc32(Bytes bytes) {
    // Bit at a time on purpose: nothing in common with the product's table code.
    std::uint32_t crc = ~0u;
    for (std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::uint32_t get32(Bytes b, std::size_t off) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i)
        if (off + i < b.size()) v |= static_cast<std::uint32_t>(b[off + i]) << (8 * i);
    return v;
}

void put16(std::vector<std::uint8_t> &b, std::size_t off, std::uint16_t v) {
    b[off] = static_cast<std::uint8_t>(v);
    b[off + 1] = static_cast<std::uint8_t>(v >> 8);
}

void put32(std::vector<std::uint8_t> &b, std::size_t off, std::uint32_t v) {
    put16(b, off, static_cast<std::uint16_t>(v));
    put16(b, off + 2, static_cast<std::uint16_t>(v >> 16));
}

const Part *Image::find(std::string_view wanted) const {
    for (const Part &p : parts)
        if (p.name == wanted) return &p;
    return nullptr;
}

std::vector<std::string> Image::names() const {
    std::vector<std::string> out;
    for (const Part &p : parts)
        out.push_back(p.name);
    return out;
}

Image decode_image(Bytes bytes) {
    Image img;
    auto fail = [&img](std::string why) {
        if (img.error.empty()) img.error = std::move(why);
    };
    if (bytes.size() < 24) {
        img.error = "shorter than 24 bytes";
        return img;
    }
    const std::size_t hdr_length = get16(bytes, 14);
    img.body_length = get32(bytes, 16);
    img.size = 8 + hdr_length + img.body_length;
    if (!std::equal(MAGIC, MAGIC + 8, bytes.begin())) fail("bad magic");
    if (bytes[12] != 1) fail("version " + std::to_string(bytes[12]));
    if (hdr_length != 16) fail("image hdr_length " + std::to_string(hdr_length));
    if (hdr_length < 4 || 8 + hdr_length > bytes.size() ||
        crc32(bytes.subspan(12, hdr_length - 4)) != get32(bytes, 8))
        fail("image hdr_crc");
    if (img.size > bytes.size()) {
        fail("image runs past the bytes given (" + std::to_string(img.size) + " > " +
             std::to_string(bytes.size()) + ")");
        return img;
    }
    std::size_t pos = 8 + hdr_length;
    const std::size_t end = img.size;
    if (crc32(bytes.subspan(pos, img.body_length)) != get32(bytes, 20)) fail("image body_crc");
    while (pos < end) {
        if (end - pos < 32) {
            fail("trailing " + std::to_string(end - pos) + " bytes after the last part");
            break;
        }
        Part p{get16(bytes, pos + 4), get16(bytes, pos + 6), get_text(bytes, pos + 12, 16), {}};
        const std::size_t body_length = get32(bytes, pos + 8);
        const std::string where = "part " + std::to_string(img.parts.size()) + " '" + p.name + "'";
        if (p.hdr_length < 32) {
            fail(where + ": hdr_length " + std::to_string(p.hdr_length));
            break;
        }
        if (p.hdr_length + body_length > end - pos) {
            fail(where + ": runs past the image body");
            break;
        }
        auto body = bytes.subspan(pos + p.hdr_length, body_length);
        if (crc32(bytes.subspan(pos + 4, p.hdr_length - 4u)) != get32(bytes, pos))
            fail(where + ": hdr_crc");
        if (crc32(body) != get32(bytes, pos + 28)) fail(where + ": body_crc");
        p.body.assign(body.begin(), body.end());
        img.parts.push_back(std::move(p));
        const std::size_t occupied = pad4(img.parts.back().hdr_length + body_length);
        if (occupied > end - pos) fail(where + ": padding runs past the image body");
        pos += std::min(occupied, end - pos);
    }
    img.ok = img.error.empty();
    return img;
}

static std::optional<Record> decode_record(Bytes b) {
    if (b.size() < RECORD_SIZE) return std::nullopt;
    Record r;
    walk_record(Reader{b}, r);
    for (std::size_t s = 0; s < 3; ++s) {
        Set &set = r.sets[s];
        for (std::size_t k = 0; k < 20; ++k)
            set.raw_refs[k] = static_cast<std::int8_t>(b[refs_at(s) + k]);
        for (std::size_t k = 0; k < 20 && set.raw_refs[k] != -1; ++k)
            set.refs.push_back(set.raw_refs[k]);
    }
    return r;
}

std::optional<Record> decode_kiv_data(const Image &image) {
    if (!image.ok) return std::nullopt;
    const Part *p = image.find("KIV data");
    if (!p || p->body.size() != RECORD_SIZE) return std::nullopt;
    return decode_record(p->body);
}

std::optional<Record> decode_kiv_data(Bytes bytes) {
    return decode_kiv_data(decode_image(bytes));
}

std::vector<std::uint8_t> encode_record(const Record &r) {
    std::vector<std::uint8_t> b(RECORD_SIZE, 0);
    walk_record(Writer{b}, r);
    for (std::size_t s = 0; s < 3; ++s)
        for (std::size_t k = 0; k < 20; ++k)
            b[refs_at(s) + k] = static_cast<std::uint8_t>(r.sets[s].raw_refs[k]);
    return b;
}

std::vector<std::uint8_t> encode_image(const std::vector<NewPart> &parts) {
    std::vector<std::uint8_t> img(24, 0);
    for (const NewPart &part : parts) {
        std::size_t pos = img.size();
        img.resize(pos + pad4(32 + part.body.size()), 0);
        put16(img, pos + 4, part.type_id);
        put16(img, pos + 6, 32);
        put32(img, pos + 8, static_cast<std::uint32_t>(part.body.size()));
        Writer{img}.text(pos + 12, 16, part.name);
        std::copy(part.body.begin(), part.body.end(),
                  img.begin() + static_cast<std::ptrdiff_t>(pos + 32));
    }
    std::copy(MAGIC, MAGIC + 8, img.begin());
    img[12] = 1;
    put16(img, 14, 16);
    put32(img, 16, static_cast<std::uint32_t>(img.size() - 24));
    refresh_crcs(img);
    return img;
}

void refresh_crcs(std::vector<std::uint8_t> &img, bool parts) {
    if (img.size() < 24) return;
    Bytes all(img);
    const std::size_t hdr_length = get16(all, 14);
    const std::size_t body_start = 8 + hdr_length;
    const std::size_t end = body_start + get32(all, 16);
    if (end <= img.size()) {
        for (std::size_t pos = body_start; parts && pos < end && end - pos >= 32;) {
            const std::size_t phl = get16(all, pos + 6);
            const std::size_t pbl = get32(all, pos + 8);
            if (phl < 32 || phl + pbl > end - pos) break;
            put32(img, pos + 28, crc32(all.subspan(pos + phl, pbl)));
            put32(img, pos, crc32(all.subspan(pos + 4, phl - 4)));
            pos += pad4(phl + pbl);
        }
        put32(img, 20, crc32(all.subspan(body_start, end - body_start)));
    }
    const bool header_inside = hdr_length >= 4 && body_start <= img.size();
    put32(img, 8, crc32(all.subspan(12, header_inside ? hdr_length - 4 : 12)));
}

} // namespace hcdecode
