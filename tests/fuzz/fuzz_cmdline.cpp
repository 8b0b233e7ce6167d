// Words split at NULs, KIV_PRODUCT=/KIV_PLATFORM= words going to the environment. An accepted
// command line keeps its words in order, its text fields terminated, and a usable device pattern.
#include <vector>

#include "front/kiv_cmdline.hpp"
#include "fuzz_support.hpp"
#include "tools/verify.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    unsetenv("KIV_PRODUCT");
    unsetenv("KIV_PLATFORM");
    std::vector<char *> argv{const_cast<char *>("kiv")};
    for (char *p = text.data(); p < text.data() + size; p += std::strlen(p) + 1) {
        const std::string_view w(p);
        if (w.starts_with("KIV_PRODUCT=") || w.starts_with("KIV_PLATFORM="))
            setenv(std::string(w.substr(0, w.find('='))).c_str(), p + w.find('=') + 1, 1);
        else
            argv.push_back(p);
    }
    argv.push_back(nullptr);

    kiv_options o;
    const int r = kiv_parse_command_line(&o, static_cast<int>(argv.size() - 1), argv.data());
    if (r != KIV_PARSE_CONTINUE) {
        FUZZ_CHECK(r == KIV_EXIT_SYNTAX);
        return 0;
    }
    FUZZ_CHECK(o.nargs >= 1 && o.nargs < static_cast<int>(KIV_MAX_ARGS));
    FUZZ_CHECK(o.args[o.nargs] == nullptr && o.action == o.args[0]);
    // The plain words, in their order on the command line.
    for (std::size_t i = 0, j = 1; i < static_cast<std::size_t>(o.nargs); ++i, ++j) {
        while (j + 1 < argv.size() && argv[j] != o.args[i])
            ++j;
        FUZZ_CHECK(j + 1 < argv.size());
    }
    for (const char *field :
         {o.hostcfg, o.hostcfg_backup, o.device, o.lockfile, o.autosetfile, o.activesetfile})
        FUZZ_CHECK(strnlen(field, KIV_PATH_LEN) < KIV_PATH_LEN);
    FUZZ_CHECK(strnlen(o.product, sizeof o.product) < sizeof o.product);
    FUZZ_CHECK(strnlen(o.platform, sizeof o.platform) < sizeof o.platform);
    char device[KIV_PATH_LEN];
    FUZZ_CHECK(kiv_device_path(device, sizeof device, o.device, 255) > 0);
    kiv_print_verbose_summary(&o);
    return 0;
}
