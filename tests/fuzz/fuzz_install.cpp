// Install reception (first planning pass) and the action's steps up to the critical region (release
// checks, final pass, preparation): nothing is written. Flags: bits 0-1 the set, 2 -f, 3 -rewrite,
// 4 -onlymeta, 5 a plug-in that asks for skipping.
#include "fuzz_support.hpp"
#include "install/kiv_install.hpp"
#include "util/qx.hpp"

FUZZ_IMAGE_MUTATOR(fuzz_chunked::prefix)

// The demo device plus a singleton BOOT; partition 9 holds a KNL 2.1.7 a plan can keep.
static kivl_data device;
static std::string pattern;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    kivl_init(&device);
    const int idx[] = {6, 7, 8, 19, 9, 10, 11, 12, 13, 14};
    const char *pools[] = {"BOOT", "KNL-SAFE", "ROOT-SAFE", "APPL-SAFE", "KNL",
                           "KNL",  "ROOT",     "ROOT",      "APPL",      "APPL"};
    for (int i = 0; i < 10; ++i) {
        qx_strlcpy(device.rec.partinfo[idx[i]].poolname, pools[i], KIVL_POOLNAME_LEN);
        device.rec.partinfo[idx[i]].pn = static_cast<std::uint8_t>(idx[i]);
        device.rec.partinfo[idx[i]].size = 0x40000;
    }
    const char *names[] = {KIVL_SAFESET_NAME, "SET1", "SET2"};
    const std::int8_t refs[3][3] = {{7, 8, 19}, {9, 11, 13}, {10, 12, 14}};
    for (int s = 0; s < 3; ++s) {
        qx_strlcpy(device.rec.sets[s].name, names[s], KIVL_SET_NAME_LEN);
        std::memset(device.rec.sets[s].refs, -1, KIVL_REFS);
        std::memcpy(device.rec.sets[s].refs, refs[s], sizeof refs[s]);
    }
    device.rec.actset = 1;

    const std::string content(100, 'K');
    fuzz_file("mtd9", reinterpret_cast<const std::uint8_t *>(content.data()), content.size());
    zunf_pinfometa &m = device.rec.pinfometa[9];
    m.hdr.type_id = ZUNF_TYPE_SOFTWARE;
    m.hdr.hdr_length = ZUNF_SOFTWARE_PART_HDR_LEN;
    m.hdr.body_length = static_cast<std::uint32_t>(content.size());
    m.hdr.body_crc = crc32_calc(0, content.data(), static_cast<std::uint32_t>(content.size()));
    qx_strlcpy(m.hdr.name, "KNL", sizeof m.hdr.name);
    m.sw = {2, 1, {7}, {}};
    kivl_partpool_generate(&device);
    pattern = fuzz_dir() + "/mtd%i";
    device.device = pattern.c_str();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz_chunked in(data, size);
    if (in.size == 0) return 0; // the action refuses an empty image before reception
    static kivl_data kd;
    static kiv_install_ctx ctx;
    kd = device;
    std::memset(static_cast<void *>(&ctx), 0, sizeof ctx);
    kiv_options o{};
    qx_strlcpy(o.product, "m1", sizeof o.product);
    o.product_set = 1;
    o.force = in.flags >> 2 & 1;
    o.rewrite = in.flags >> 3 & 1;
    o.onlymeta = in.flags >> 4 & 1;
    ctx.state = KIV_RX_AWAIT_HEADER;
    ctx.kdata = &kd;
    ctx.opts = &o;
    ctx.setidx = static_cast<std::uint8_t>(std::min(in.flags & 3, 2));
    ctx.skip_enabled = in.flags >> 5 & 1;
    ctx.zunf_size = static_cast<std::int32_t>(in.size);
    ctx.zunf_buf = static_cast<std::uint8_t *>(std::calloc(in.size, 1));
    ctx.parser = zunf_stream_parser_init(nullptr, ctx.zunf_buf);
    kiv_install_keep_loaded(&kd);

    // Bytes not yet received are poisoned: reading one is reported like an overrun.
    ASAN_POISON_MEMORY_REGION(ctx.zunf_buf, in.size);
    bool received = true;
    for (std::size_t fed = 0; fed < in.size;) {
        const std::size_t n = std::min(in.chunk(), in.size - fed);
        ASAN_UNPOISON_MEMORY_REGION(ctx.zunf_buf + fed, n);
        std::memcpy(ctx.zunf_buf + fed, in.data + fed, n);
        fed += n;
        if (kiv_install_receive(ctx.zunf_buf, 1, n, &ctx) == n) continue;
        // A reader that can resume goes on behind a skipped part; any other refusal ends it.
        received = ctx.state == KIV_RX_SKIPPED;
        if (!received) break;
        fed = ctx.resume_offset;
    }

    const zunf_content_header *const *parts = zunf_stream_parser_content_parts(ctx.parser);
    if (received && zunf_stream_parser_get_status(ctx.parser) == ZUNF_SP_DONE) {
        // As the action: -product against the release header, then the final pass.
        const zunf_content_header *first = parts[0];
        if (first != nullptr && first->type_id == ZUNF_TYPE_RELEASE_HEADER &&
            first->hdr_length >= ZUNF_RELEASE_PART_HDR_LEN)
            kivl_match_model(first, o.product);
        const void *rhdr = first != nullptr ? zunf_bytes(first) + ZUNF_CONTENT_HDR_LEN
                                            : static_cast<const void *>(ctx.rhdr);
        if (rhdr != nullptr &&
            kivl_meta_install(&kd, ctx.setidx, rhdr, ctx.kivm, parts, kiv_install_platform(&o),
                              o.force) == KIVL_META_INSTALL_OK &&
            kiv_install_prepare(&ctx) == 0) {
            // What the write-out relies on: every planned write has its part and partition.
            for (const kivl_kivm_elem &e : ctx.kivm)
                if (e.used != 0 && e.action == KIV_ACTION_WRITE)
                    FUZZ_CHECK(kiv_install_elem_part(&ctx, e) != nullptr && e.partinfo_idx >= 0 &&
                               e.partinfo_idx < static_cast<int>(KIVL_PARTINFOS));
        }
    }
    ASAN_UNPOISON_MEMORY_REGION(ctx.zunf_buf, in.size);
    std::free(ctx.parser);
    std::free(ctx.zunf_buf);
    return 0;
}
