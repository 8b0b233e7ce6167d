// `kiv zunfinfo FILE` and `kiv zunfinfo FILE -all` on a file of arbitrary bytes: the listing
// either appears or the action ends with its load failure code.
#include "front/kiv_actions.hpp"
#include "fuzz_support.hpp"
#include "tools/zunfinfo.hpp"

FUZZ_IMAGE_MUTATOR([](const std::uint8_t *, std::size_t) { return std::size_t{0}; })

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string path = fuzz_file("image.zunf", data, size);
    for (const char *mode : {static_cast<const char *>(nullptr), "-all"}) {
        kiv_options o{};
        o.zunfsize = KIV_DEFAULT_ZUNFSIZE;
        o.action = o.args[0] = "zunfinfo";
        o.args[1] = path.c_str();
        o.args[2] = mode;
        o.nargs = mode != nullptr ? 3 : 2;
        const int r = kiv_zunfinfo(&o);
        FUZZ_CHECK(r == ZUNFINFO_EXIT_OK || r == ZUNFINFO_EXIT_ERR_LOAD);
    }
    return 0;
}
