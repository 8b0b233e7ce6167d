// Image and content part validation: every result code, the order of the checks, what
// each CRC covers, and the assertions on null pointers.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <string>
#include <unistd.h>

#include "mkzunf/zunf_builder.hpp"
#include "zunf/zunf_validate.hpp"

using namespace mkzunf;

namespace {

// Bit by bit from the polynomial, so that a CRC fault in the product cannot hide here.
std::uint32_t crc(const std::uint8_t *p, std::size_t n) {
    std::uint32_t c = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return ~c;
}

// An image header finished by hand: the header CRC over bytes 4..crc_len-1.
struct RawImageHeader {
    std::uint8_t bytes[64] = {};

    zunf_image_header *hdr() { return reinterpret_cast<zunf_image_header *>(bytes); }
    void seal(std::size_t crc_len) { hdr()->hdr_crc = crc(bytes + 4, crc_len - 4); }
};

RawImageHeader image_header(std::uint8_t version, std::uint16_t hdr_length) {
    RawImageHeader h;
    h.hdr()->version = version;
    h.hdr()->hdr_length = hdr_length;
    h.hdr()->body_length = 0;
    h.hdr()->body_crc = 0;
    h.seal(hdr_length >= 16 ? hdr_length : 16);
    return h;
}

TEST(ZunfValidateHeader, ResultCodesInCheckOrder) {
    struct Case {
        const char *name;
        std::uint8_t version;
        std::uint16_t hdr_length;
        bool break_crc;
        int expect;
    };
    const Case cases[] = {
        {"valid", 1, 16, false, ZUNF_VALID},
        {"longer header, CRC over all of it", 1, 40, false, ZUNF_VALID},
        {"version 2 with a right CRC", 2, 16, false, ZUNF_ERR_VERSION},
        {"version 0", 0, 16, false, ZUNF_ERR_VERSION},
        {"version before length", 2, 15, true, ZUNF_ERR_VERSION},
        {"hdr_length 15", 1, 15, false, ZUNF_ERR_HDR_LENGTH},
        {"hdr_length 15, CRC never computed", 1, 15, true, ZUNF_ERR_HDR_LENGTH},
        {"hdr_length 0", 1, 0, true, ZUNF_ERR_HDR_LENGTH},
        {"wrong CRC", 1, 16, true, ZUNF_ERR_HDR_CRC},
        {"wrong CRC, long header", 1, 40, true, ZUNF_ERR_HDR_CRC},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        RawImageHeader h = image_header(c.version, c.hdr_length);
        if (c.break_crc) h.hdr()->hdr_crc = ~h.hdr()->hdr_crc.get();
        EXPECT_EQ(zunf_validate_header(h.hdr()), c.expect);
    }
}

TEST(ZunfValidateHeader, CrcCoversEveryHeaderByteAfterItself) {
    RawImageHeader h = image_header(1, 16);
    h.hdr()->body_length = 100;
    h.hdr()->body_crc = 0x12345678;
    h.seal(16);
    ASSERT_EQ(zunf_validate_header(h.hdr()), ZUNF_VALID);
    // Byte 4 is the version and bytes 6..7 the length, which fail their own checks first;
    // byte 5 is reserved: not interpreted, but covered.
    for (std::size_t i : {5u, 8u, 11u, 12u, 15u}) {
        RawImageHeader changed = h;
        changed.bytes[i] ^= 0x01;
        EXPECT_EQ(zunf_validate_header(changed.hdr()), ZUNF_ERR_HDR_CRC) << "byte " << i;
    }
    RawImageHeader past = h;
    past.bytes[16] = 0xAA; // beyond hdr_length: not covered
    EXPECT_EQ(zunf_validate_header(past.hdr()), ZUNF_VALID);
}

TEST(ZunfValidateBody, ComparesTheCrcOfBodyLengthBytes) {
    Bytes body = {1, 2, 3, 4, 5, 6, 7};
    RawImageHeader h = image_header(1, 16);
    h.hdr()->body_length = 5;
    h.hdr()->body_crc = crc(body.data(), 5);
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID);
    body[5] = 0xFF; // past body_length
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID);
    body[4] = 0xFF;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_ERR_BODY_CRC);

    h.hdr()->body_length = 0;
    h.hdr()->body_crc = 0;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID) << "empty body, CRC 0";
    h.hdr()->body_crc = 1;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_ERR_BODY_CRC);
}

// A content part laid out by hand: common header, zero type header, body. A stored body CRC
// may be given in place of the right one; the header CRC is computed over it.
struct RawPart {
    Bytes bytes;
    std::size_t body_at;
    zunf_content_header *hdr() { return reinterpret_cast<zunf_content_header *>(bytes.data()); }
    std::uint8_t *body() { return bytes.data() + body_at; }
};

RawPart raw_part(std::uint16_t hdr_length, std::string_view body,
                 std::optional<std::uint32_t> body_crc = {}) {
    RawPart p{Bytes(std::max<std::size_t>(32, hdr_length) + body.size(), 0),
              std::max<std::size_t>(32, hdr_length)};
    std::copy(body.begin(), body.end(), p.body());
    p.hdr()->type_id = ZUNF_TYPE_DATA;
    p.hdr()->hdr_length = hdr_length;
    p.hdr()->body_length = static_cast<std::uint32_t>(body.size());
    p.bytes[12] = 'x';
    p.hdr()->body_crc = body_crc.value_or(body.empty() ? 0 : crc(p.body(), body.size()));
    if (hdr_length >= 4) p.hdr()->hdr_crc = crc(p.bytes.data() + 4, hdr_length - 4u);
    return p;
}

TEST(ZunfValidateContent, ResultCodesInCheckOrder) {
    struct Case {
        std::uint16_t hdr_length;
        const char *body;
        std::optional<std::uint32_t> body_crc; // stored instead of the right one
        bool break_hdr_crc;
        int header; // zunf_validate_content_header
        int part;   // zunf_validate_content_part
    };
    const Case cases[] = {
        {32, "hello", {}, false, ZUNF_VALID, ZUNF_VALID},
        {64, "hello", {}, false, ZUNF_VALID, ZUNF_VALID},
        {32, "", {}, false, ZUNF_VALID, ZUNF_VALID}, // empty body, stored CRC 0
        {31, "hello", {}, false, ZUNF_ERR_HDR_LENGTH, ZUNF_ERR_HDR_LENGTH}, // CRC right over 31
        {31, "hello", {}, true, ZUNF_ERR_HDR_LENGTH, ZUNF_ERR_HDR_LENGTH},
        {0, "hello", {}, true, ZUNF_ERR_HDR_LENGTH, ZUNF_ERR_HDR_LENGTH},
        {32, "hello", {}, true, ZUNF_ERR_HDR_CRC, ZUNF_ERR_HDR_CRC},
        {64, "hello", {}, true, ZUNF_ERR_HDR_CRC, ZUNF_ERR_HDR_CRC},
        {32, "hello", 0x12345678, false, ZUNF_VALID, ZUNF_ERR_BODY_CRC},
        {32, "", 0xFFFFFFFF, false, ZUNF_VALID, ZUNF_ERR_BODY_CRC},
        {32, "hello", 0x12345678, true, ZUNF_ERR_HDR_CRC, ZUNF_ERR_HDR_CRC}, // header first
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.hdr_length << " '" << c.body << "'");
        RawPart p = raw_part(c.hdr_length, c.body, c.body_crc);
        if (c.break_hdr_crc) p.hdr()->hdr_crc = ~p.hdr()->hdr_crc.get();
        EXPECT_EQ(zunf_validate_content_header(p.hdr()), c.header);
        EXPECT_EQ(zunf_validate_content_body(p.hdr(), p.body()),
                  c.body_crc ? ZUNF_ERR_BODY_CRC : ZUNF_VALID);
        EXPECT_EQ(zunf_validate_content_part(p.hdr(), p.body()), c.part);
    }
}

TEST(ZunfValidateContent, HeaderCrcCoversTheTypeHeaderAndBodyCrc) {
    RawPart p = raw_part(64, "body");
    ASSERT_EQ(zunf_validate_content_header(p.hdr()), ZUNF_VALID);
    for (std::size_t i : {4u, 8u, 12u, 27u, 28u, 31u, 32u, 63u}) {
        RawPart changed = p;
        changed.bytes[i] ^= 0x10;
        EXPECT_EQ(zunf_validate_content_header(changed.hdr()), ZUNF_ERR_HDR_CRC) << "byte " << i;
    }
    p.bytes[64] ^= 0x10; // the body is the body CRC's alone
    EXPECT_EQ(zunf_validate_content_header(p.hdr()), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_body(p.hdr(), p.body()), ZUNF_ERR_BODY_CRC);
}

TEST(ZunfValidateImage, PaddingIsCoveredByTheImageBodyOnly) {
    ImageBuilder b;
    b.add_data("first", to_bytes("12345")).add_data("second", to_bytes("abc"));
    Bytes img = b.build();
    img[24 + 32 + 5 + 2] = 0xEE; // the last of three padding bytes after "12345"
    const auto *ih = reinterpret_cast<const zunf_image_header *>(img.data() + 8);
    EXPECT_EQ(zunf_validate_header(ih), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_body(ih, img.data() + 24), ZUNF_ERR_BODY_CRC);
    for (std::size_t off : {24u, 64u}) {
        const auto *p = reinterpret_cast<const zunf_content_header *>(img.data() + off);
        EXPECT_EQ(zunf_validate_content_part(p, img.data() + off + 32), ZUNF_VALID) << off;
    }
}

TEST(ZunfValidateDeathTest, NullPointersAreAssertions) {
    static RawPart part = raw_part(32, "x");
    void (*const calls[])() = {
        [] { zunf_validate_header(nullptr); },
        [] { zunf_validate_content_header(nullptr); },
        [] { zunf_validate_content_body(part.hdr(), nullptr); },
        [] { zunf_validate_content_part(nullptr, part.body()); },
    };
    for (auto call : calls) {
        EXPECT_EXIT(
            {
                ::dup2(2, 1); // the console is descriptor 1; death tests match standard error
                call();
            },
            testing::KilledBySignal(SIGABRT),
            "^Panic: \\*\\*\\* ASSERT in zunf_validate at [0-9]+\n$");
    }
}

} // namespace
