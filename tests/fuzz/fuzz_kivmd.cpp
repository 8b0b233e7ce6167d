// Release metadata text as people write it: every line either becomes an element whose text
// columns are terminated inside their fields, or is skipped; nothing past the 40 elements.
#include "fuzz_support.hpp"
#include "kivl/kivl.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Exact sizes, so that ASan sees a step past the text or past the last element.
    std::unique_ptr<char[]> text(new char[size + 1]());
    std::memcpy(text.get(), data, size);
    std::unique_ptr<kivl_kivm_elem[]> elems(new kivl_kivm_elem[KIVM_MAX_ELEMS]);

    const int n = kivl_parse_kivmd(elems.get(), KIVM_MAX_ELEMS, text.get());
    FUZZ_CHECK(n >= -1 && n <= static_cast<int>(KIVM_MAX_ELEMS));
    for (int i = 0; i < static_cast<int>(KIVM_MAX_ELEMS); ++i) {
        const kivl_kivm_elem &e = elems[i];
        FUZZ_CHECK(e.used == (i < n ? 1 : 0) || n < 0);
        auto ended = [](const auto &f) { return strnlen(f, sizeof f) < sizeof f; };
        FUZZ_CHECK(ended(e.poolname) && ended(e.mountpnt) && ended(e.fstype) && ended(e.platform));
    }
    return 0;
}
