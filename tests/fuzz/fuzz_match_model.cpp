// A model, a NUL, then the body of a release header part ending where its allocation ends. A
// match must name the model as a whole entry of the list.
#include "fuzz_support.hpp"
#include "kivl/kivl.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::size_t nul = std::min(input.find('\0'), size);
    const std::string model(input.substr(0, nul));
    const std::string_view text = input.substr(std::min(nul + 1, size));

    std::unique_ptr<std::uint8_t[]> part(
        new std::uint8_t[ZUNF_RELEASE_PART_HDR_LEN + text.size()]());
    std::memcpy(part.get() + ZUNF_RELEASE_PART_HDR_LEN, text.data(), text.size());
    auto *hdr = reinterpret_cast<zunf_content_header *>(part.get());
    hdr->type_id = ZUNF_TYPE_RELEASE_HEADER;
    hdr->hdr_length = ZUNF_RELEASE_PART_HDR_LEN;
    hdr->body_length = static_cast<std::uint32_t>(text.size());

    const int r = kivl_match_model(hdr, model.c_str());
    FUZZ_CHECK(r == 0 || r == 1);
    if (r == 1) {
        bool named = false;
        for (const char *before : {"=", ","})
            for (const char *after : {",", "\n"})
                named = named || text.find(before + model + after) != std::string_view::npos;
        FUZZ_CHECK(named);
    }
    return 0;
}
