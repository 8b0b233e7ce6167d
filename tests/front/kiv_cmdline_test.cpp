// What kiv -v leaves out: flags, product/platform cut and over KIV_*, a record it clears.
#include "front/kiv_cmdline.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

TEST(KivCmdline, OptionsTheVerboseSummaryLeavesOut) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"-test", "-onlymetadata", "x", "-noactivate"}, "111 0: 0: 0:0"},
        {{"-iptos=0x10", "-product=ABCDEFGHIJKLMNOP", "-platform=ABCDEFGH", "x"},
         "000 1:ABCDEFGHIJKLMNO 1:ABCDEFG 1:16"},
        {{"KIV_PRODUCT=A", "KIV_PLATFORM=", "-product=B", "x"}, "000 1:B 1: 0:0"}};
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
        std::memset(&o, 0xa5, sizeof o);
        const int argc = static_cast<int>(argv.size() - 1);
        ASSERT_EQ(kiv_parse_command_line(&o, argc, argv.data()), KIV_PARSE_CONTINUE) << fields;
        EXPECT_EQ(std::to_string(o.test) + std::to_string(o.onlymeta) +
                      std::to_string(o.noactivate) + " " + std::to_string(o.product_set) + ":" +
                      o.product + " " + std::to_string(o.platform_set) + ":" + o.platform + " " +
                      std::to_string(o.iptos_set) + ":" + std::to_string(o.iptos),
                  fields);
    }
}
