// A deliberately separate reader of ZUNF images for the builder's tests: its own bitwise
// CRC-32 and literal offsets, nothing from the product's records or CRC code, so that a
// layout or CRC mistake shared by builder and product cannot cancel itself out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace decode {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

// Bit by bit, straight from the polynomial: slow and obviously right.
inline std::uint32_t crc32(View b) {
    std::uint32_t c = 0xFFFFFFFFu;
    for (std::uint8_t byte : b) {
        c ^= byte;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return ~c;
}

inline std::uint32_t u16(View b, std::size_t off) {
    return static_cast<std::uint32_t>(b[off] | b[off + 1] << 8);
}

inline std::uint32_t u32(View b, std::size_t off) {
    return static_cast<std::uint32_t>(b[off]) | static_cast<std::uint32_t>(b[off + 1]) << 8 |
           static_cast<std::uint32_t>(b[off + 2]) << 16 |
           static_cast<std::uint32_t>(b[off + 3]) << 24;
}

inline std::string text(View b, std::size_t off, std::size_t width) {
    std::string s;
    for (std::size_t i = 0; i < width && b[off + i] != 0; ++i)
        s.push_back(static_cast<char>(b[off + i]));
    return s;
}

struct Part {
    std::size_t offset = 0;
    std::uint32_t type_id = 0;
    std::uint32_t hdr_length = 0;
    std::uint32_t body_length = 0;
    std::string name;
    std::uint32_t body_crc = 0;
    Bytes type_header; // bytes 32 .. hdr_length-1
    Bytes body;
    Bytes padding;
    bool hdr_crc_ok = false; // CRC of bytes 4 .. hdr_length-1
    bool body_crc_ok = false;
};

struct Image {
    bool well_formed = false; // parts lie inside the image and fill body_length exactly
    std::string magic;
    std::uint32_t version = 0;
    std::uint32_t reserved = 0;
    std::uint32_t hdr_length = 0;
    std::uint32_t body_length = 0;
    bool hdr_crc_ok = false;  // CRC of image bytes 12 .. 23
    bool body_crc_ok = false; // CRC of image bytes 24 .. end
    std::vector<Part> parts;
};

// Reads an image laid out as written (16-byte header, parts from offset 24).
inline Image read(View b) {
    Image img;
    if (b.size() < 24) return img;
    img.magic.assign(b.begin(), b.begin() + 8);
    img.version = b[12];
    img.reserved = b[13];
    img.hdr_length = u16(b, 14);
    img.body_length = u32(b, 16);
    img.hdr_crc_ok = crc32(b.subspan(12, 12)) == u32(b, 8);
    if (24 + static_cast<std::size_t>(img.body_length) > b.size()) return img;
    std::size_t end = 24 + img.body_length;
    img.body_crc_ok = crc32(b.subspan(24, img.body_length)) == u32(b, 20);
    std::size_t off = 24;
    while (off < end) {
        if (end - off < 32) return img;
        Part p;
        p.offset = off;
        p.type_id = u16(b, off + 4);
        p.hdr_length = u16(b, off + 6);
        p.body_length = u32(b, off + 8);
        p.name = text(b, off + 12, 16);
        p.body_crc = u32(b, off + 28);
        std::size_t used = static_cast<std::size_t>(p.hdr_length) + p.body_length;
        std::size_t padded = (used + 3) & ~std::size_t{3};
        if (p.hdr_length < 32 || padded > end - off) return img;
        auto at = [&](std::size_t o) { return b.begin() + static_cast<std::ptrdiff_t>(off + o); };
        p.type_header.assign(at(32), at(p.hdr_length));
        p.body.assign(at(p.hdr_length), at(used));
        p.padding.assign(at(used), at(padded));
        p.hdr_crc_ok = crc32(b.subspan(off + 4, p.hdr_length - 4)) == u32(b, off);
        p.body_crc_ok = crc32(p.body) == p.body_crc;
        img.parts.push_back(p);
        off += padded;
    }
    img.well_formed = true;
    return img;
}

} // namespace decode
