// Field lists as scripts pass them (-pif=): the first byte chooses the number of slots, the
// rest is the text. The fields must lie in the caller's buffer and join back to the text.
#include "fuzz_support.hpp"
#include "kivl/kivl.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0) return 0;
    const int max = data[0] % 24;
    const std::string src(reinterpret_cast<const char *>(data) + 1,
                          strnlen(reinterpret_cast<const char *>(data) + 1, size - 1));
    // Exact sizes: the buffer holds a copy of the text, the table `max` slots (at least 1).
    std::unique_ptr<char[]> buf(new char[src.size() + 1]);
    std::unique_ptr<char *[]> fields(new char *[max > 0 ? max : 1]);
    fields[0] = buf.get();

    const int n = kivl_parse_csv(src.c_str(), fields.get(), max);
    FUZZ_CHECK(n >= -1 && (n < max || n <= 0));
    if (n <= 0) return 0;
    std::string joined = fields[1];
    for (int i = 2; i <= n; ++i) {
        FUZZ_CHECK(fields[i] > buf.get() && fields[i] <= buf.get() + src.size());
        joined += std::string(",") + fields[i];
    }
    FUZZ_CHECK(fields[1] == buf.get() && joined == src);
    return 0;
}
