#include "common/hcdecode.hpp"

#include <algorithm>

namespace hcdecode {

namespace {

using Bytes = std::span<const std::uint8_t>;

std::uint32_t crc_update(std::uint32_t crc, Bytes bytes) {
    // Bit at a time on purpose: nothing in common with the product's table code.
    crc = ~crc;
    for (std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void put16(std::vector<std::uint8_t> &b, std::size_t off, std::uint16_t v) {
    b[off] = static_cast<std::uint8_t>(v);
    b[off + 1] = static_cast<std::uint8_t>(v >> 8);
}

void put32(std::vector<std::uint8_t> &b, std::size_t off, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[off + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
}

void put_text(std::vector<std::uint8_t> &b, std::size_t off, std::size_t width,
              const std::string &s) {
    std::size_t n = std::min(s.size(), width - 1);
    for (std::size_t i = 0; i < width; ++i)
        b[off + i] = i < n ? static_cast<std::uint8_t>(s[i]) : 0;
}

std::uint32_t pad4(std::uint64_t n) {
    return static_cast<std::uint32_t>((n + 3) & ~std::uint64_t{3});
}

const std::uint8_t MAGIC[8] = {'F', 'N', 'U', 'Z', 'Z', 'U', 'N', 'F'};

} // namespace

std::uint32_t crc32(Bytes bytes) {
    return crc_update(0, bytes);
}

std::uint16_t get16(Bytes b, std::size_t off) {
    std::uint16_t v = 0;
    for (std::size_t i = 0; i < 2; ++i)
        if (off + i < b.size()) v = static_cast<std::uint16_t>(v | (b[off + i] << (8 * i)));
    return v;
}

std::uint32_t get32(Bytes b, std::size_t off) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i)
        if (off + i < b.size()) v |= static_cast<std::uint32_t>(b[off + i]) << (8 * i);
    return v;
}

std::string get_text(Bytes b, std::size_t off, std::size_t width) {
    std::string s;
    for (std::size_t i = 0; i < width && off + i < b.size() && b[off + i] != 0; ++i)
        s.push_back(static_cast<char>(b[off + i]));
    return s;
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
    img.magic_ok = std::equal(MAGIC, MAGIC + 8, bytes.begin());
    img.hdr_crc = get32(bytes, 8);
    img.version = bytes[12];
    img.reserved = bytes[13];
    img.hdr_length = get16(bytes, 14);
    img.body_length = get32(bytes, 16);
    img.body_crc = get32(bytes, 20);
    img.size = 8u + img.hdr_length + std::size_t{img.body_length};

    if (!img.magic_ok) fail("bad magic");
    if (img.version != 1) fail("version " + std::to_string(img.version));
    if (img.hdr_length != 16) fail("image hdr_length " + std::to_string(img.hdr_length));
    if (img.hdr_length >= 4 && 8u + img.hdr_length <= bytes.size())
        img.hdr_crc_ok = crc32(bytes.subspan(12, img.hdr_length - 4u)) == img.hdr_crc;
    if (!img.hdr_crc_ok) fail("image hdr_crc");
    if (img.size > bytes.size()) {
        fail("image runs past the bytes given (" + std::to_string(img.size) + " > " +
             std::to_string(bytes.size()) + ")");
        return img;
    }
    std::size_t body_start = 8u + img.hdr_length;
    img.body_crc_ok = crc32(bytes.subspan(body_start, img.body_length)) == img.body_crc;
    if (!img.body_crc_ok) fail("image body_crc");

    std::size_t pos = body_start;
    std::size_t end = img.size;
    while (pos < end) {
        if (end - pos < 32) {
            fail("trailing " + std::to_string(end - pos) + " bytes after the last part");
            break;
        }
        Part p;
        p.offset = pos;
        p.hdr_crc = get32(bytes, pos);
        p.type_id = get16(bytes, pos + 4);
        p.hdr_length = get16(bytes, pos + 6);
        p.body_length = get32(bytes, pos + 8);
        p.name = get_text(bytes, pos + 12, 16);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(pos + 12), 16, p.raw_name.begin());
        p.body_crc = get32(bytes, pos + 28);
        std::string where = "part " + std::to_string(img.parts.size()) + " '" + p.name + "'";
        if (p.hdr_length < 32) {
            fail(where + ": hdr_length " + std::to_string(p.hdr_length));
            break;
        }
        std::uint64_t occupied = pad4(std::uint64_t{p.hdr_length} + p.body_length);
        if (std::uint64_t{p.hdr_length} + p.body_length > end - pos) {
            fail(where + ": runs past the image body");
            break;
        }
        p.hdr_crc_ok = crc32(bytes.subspan(pos + 4, p.hdr_length - 4u)) == p.hdr_crc;
        auto body = bytes.subspan(pos + p.hdr_length, p.body_length);
        p.body.assign(body.begin(), body.end());
        p.body_crc_ok = crc32(body) == p.body_crc;
        if (!p.hdr_crc_ok) fail(where + ": hdr_crc");
        if (!p.body_crc_ok) fail(where + ": body_crc");
        std::size_t body_end = pos + p.hdr_length + p.body_length;
        std::size_t next = pos + static_cast<std::size_t>(occupied);
        if (next > end) {
            fail(where + ": padding runs past the image body");
            next = end;
        }
        p.padding.assign(bytes.begin() + static_cast<std::ptrdiff_t>(body_end),
                         bytes.begin() + static_cast<std::ptrdiff_t>(next));
        img.parts.push_back(std::move(p));
        pos = next;
    }
    img.ok = img.error.empty();
    return img;
}

std::optional<Record> decode_record(Bytes b) {
    if (b.size() < RECORD_SIZE) return std::nullopt;
    Record r;
    r.actset = b[0];
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1 + 36 * s;
        Set &set = r.sets[s];
        set.bootable = b[o];
        set.name = get_text(b, o + 1, 15);
        for (std::size_t k = 0; k < 20; ++k)
            set.raw_refs[k] = static_cast<std::int8_t>(b[o + 16 + k]);
        for (std::size_t k = 0; k < 20 && set.raw_refs[k] != -1; ++k)
            set.refs.push_back(set.raw_refs[k]);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 112 + 72 * i;
        PartInfo &pi = r.partinfo[i];
        pi.poolname = get_text(b, o, 16);
        pi.pn = b[o + 16];
        pi.offset = get32(b, o + 20);
        pi.size = get32(b, o + 24);
        pi.mountpnt = get_text(b, o + 28, 32);
        pi.fstype = get_text(b, o + 60, 10);
    }
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1552 + 44 * s;
        ReleaseHeader &rh = r.rhdr[s];
        rh.major = b[o];
        rh.minor = b[o + 1];
        rh.build = get16(b, o + 2);
        rh.date = get32(b, o + 4);
        rh.build_id = get_text(b, o + 8, 36);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 1684 + 64 * i;
        PinfoMeta &m = r.pinfometa[i];
        m.hdr_crc = get32(b, o);
        m.type_id = get16(b, o + 4);
        m.hdr_length = get16(b, o + 6);
        m.body_length = get32(b, o + 8);
        m.name = get_text(b, o + 12, 16);
        m.body_crc = get32(b, o + 28);
        m.sw_major = b[o + 32];
        m.sw_minor = b[o + 33];
        m.sw_build = get16(b, o + 34);
        m.sw_build_id = get_text(b, o + 36, 28);
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
    b[0] = r.actset;
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1 + 36 * s;
        b[o] = r.sets[s].bootable;
        put_text(b, o + 1, 15, r.sets[s].name);
        for (std::size_t k = 0; k < 20; ++k)
            b[o + 16 + k] = static_cast<std::uint8_t>(r.sets[s].raw_refs[k]);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 112 + 72 * i;
        const PartInfo &pi = r.partinfo[i];
        put_text(b, o, 16, pi.poolname);
        b[o + 16] = pi.pn;
        put32(b, o + 20, pi.offset);
        put32(b, o + 24, pi.size);
        put_text(b, o + 28, 32, pi.mountpnt);
        put_text(b, o + 60, 10, pi.fstype);
    }
    for (std::size_t s = 0; s < 3; ++s) {
        std::size_t o = 1552 + 44 * s;
        const ReleaseHeader &rh = r.rhdr[s];
        b[o] = rh.major;
        b[o + 1] = rh.minor;
        put16(b, o + 2, rh.build);
        put32(b, o + 4, rh.date);
        put_text(b, o + 8, 36, rh.build_id);
    }
    for (std::size_t i = 0; i < 20; ++i) {
        std::size_t o = 1684 + 64 * i;
        const PinfoMeta &m = r.pinfometa[i];
        put32(b, o, m.hdr_crc);
        put16(b, o + 4, m.type_id);
        put16(b, o + 6, m.hdr_length);
        put32(b, o + 8, m.body_length);
        put_text(b, o + 12, 16, m.name);
        put32(b, o + 28, m.body_crc);
        b[o + 32] = m.sw_major;
        b[o + 33] = m.sw_minor;
        put16(b, o + 34, m.sw_build);
        put_text(b, o + 36, 28, m.sw_build_id);
    }
    return b;
}

std::vector<std::uint8_t> encode_image(const std::vector<NewPart> &parts) {
    std::vector<std::uint8_t> img(24, 0);
    for (const NewPart &part : parts) {
        std::size_t pos = img.size();
        img.resize(pos + pad4(32u + part.body.size()), 0);
        put16(img, pos + 4, part.type_id);
        put16(img, pos + 6, 32);
        put32(img, pos + 8, static_cast<std::uint32_t>(part.body.size()));
        put_text(img, pos + 12, 16, part.name);
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

void refresh_crcs(std::vector<std::uint8_t> &img) {
    if (img.size() < 24) return;
    std::span<const std::uint8_t> all(img);
    std::size_t hdr_length = get16(all, 14);
    std::size_t body_length = get32(all, 16);
    std::size_t body_start = 8 + hdr_length;
    if (hdr_length < 16 || body_start + body_length > img.size()) return;
    std::size_t end = body_start + body_length;
    for (std::size_t pos = body_start; end - pos >= 32;) {
        std::size_t phl = get16(all, pos + 6);
        std::size_t pbl = get32(all, pos + 8);
        if (phl < 32 || phl + pbl > end - pos) break;
        put32(img, pos + 28, crc32(all.subspan(pos + phl, pbl)));
        put32(img, pos, crc32(all.subspan(pos + 4, phl - 4)));
        pos += pad4(phl + pbl);
        if (pos >= end) break;
    }
    put32(img, 20, crc32(all.subspan(body_start, body_length)));
    put32(img, 8, crc32(all.subspan(12, hdr_length - 4)));
}

std::optional<std::uint8_t> state_byte(Bytes device, int set) {
    if (set != 1 && set != 2) return std::nullopt;
    std::size_t off = STATE_OFFSET + static_cast<std::size_t>(set - 1);
    if (off >= device.size()) return std::nullopt;
    return static_cast<std::uint8_t>(~device[off]);
}

int decode_state(std::uint8_t b) {
    if ((b & 1u) == 0) return 0;
    return (b & 2u) ? 2 : 1;
}

} // namespace hcdecode
