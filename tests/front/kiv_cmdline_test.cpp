// The options that kiv -v does not show; the rest of the grammar is in kiv_front_e2e_test.
#include "front/kiv_cmdline.hpp"

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Words "KIV_...=value" go to the environment. Fields: -test -onlymeta -noactivate, then
// product, platform and iptos as "set:value".
TEST(KivCmdline, OptionsTheVerboseSummaryLeavesOut) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"x"}, "000 0: 0: 0:0"},
        {{"-test", "-onlymetadata", "x", "-noactivate"}, "111 0: 0: 0:0"},
        {{"-iptos=0x10", "x"}, "000 0: 0: 1:16"},
        {{"-product=ABCDEFGHIJKLMNOP", "-platform=ABCDEFGH", "x"},
         "000 1:ABCDEFGHIJKLMNO 1:ABCDEFG 0:0"},
        {{"KIV_PRODUCT=ABCDEFGHIJKLMNO", "KIV_PLATFORM=", "x"}, "000 1:ABCDEFGHIJKLMNO 1: 0:0"},
        {{"KIV_PRODUCT=A", "KIV_PLATFORM=A", "-product=B", "-platform=C", "x"}, "000 1:B 1:C 0:0"},
    };
    for (auto [words, fields] : rows) {
        ::unsetenv("KIV_PRODUCT");
        ::unsetenv("KIV_PLATFORM");
        std::vector<char *> argv = {words[0].data()}; // any word stands for the command
        for (std::string &w : words)
            if (w.starts_with("KIV_"))
                ::setenv(w.substr(0, w.find('=')).c_str(), w.c_str() + w.find('=') + 1, 1);
            else
                argv.push_back(w.data());
        argv.push_back(nullptr);
        kiv_options o;
        std::memset(&o, 0xa5, sizeof o); // the parser must clear the record itself
        int argc = static_cast<int>(argv.size() - 1);
        ASSERT_EQ(kiv_parse_command_line(&o, argc, argv.data()), KIV_PARSE_CONTINUE) << fields;
        std::ostringstream f;
        f << o.test << o.onlymeta << o.noactivate << ' ' << o.product_set << ':' << o.product << ' '
          << o.platform_set << ':' << o.platform << ' ' << o.iptos_set << ':' << o.iptos;
        EXPECT_EQ(f.str(), fields);
    }
}

} // namespace
