// Edges of the info listing; the listing itself is compared whole, as an operator sees
// it, in the end-to-end tests of info.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

std::unique_ptr<kivl_data> new_data() {
    auto data = std::make_unique<kivl_data>();
    EXPECT_EQ(kivl_init(data.get()), 1);
    return data;
}

template <typename F> std::string captured(F &&print) {
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(KivlDump, SetRowsWithoutRefsOrActiveMark) {
    auto data = new_data();
    std::strcpy(data->rec.sets[2].name, "SET2");
    data->rec.sets[2].refs[0] = -1;
    data->rec.sets[2].refs[1] = 4; // behind the terminator: not printed
    data->rec.actset = 1;          // an undefined set: nothing is marked
    std::string out = captured([&] { kivl_dump_info(data.get()); });
    EXPECT_NE(out.find("  2  SET2             0          0.00 0     \n"), std::string::npos) << out;
    EXPECT_EQ(out.find("ACTIVE SET"), std::string::npos);
}

TEST(KivlDump, UnterminatedFieldsStayInsideTheirWidth) {
    auto data = new_data();
    std::memset(data->rec.sets[0].name, 'S', sizeof data->rec.sets[0].name);
    std::memset(data->rec.partinfo[0].poolname, 'P', KIVL_POOLNAME_LEN);
    std::memset(data->rec.partinfo[0].mountpnt, 'M', KIVL_MOUNTPNT_LEN);
    std::memset(data->rec.partinfo[0].fstype, 'F', KIVL_FSTYPE_LEN);
    std::memset(data->rec.pinfometa[0].hdr.name, 'N', ZUNF_NAME_LEN);
    std::memset(data->rec.rhdr[0].release_build_id, 'B', sizeof data->rec.rhdr[0].release_build_id);
    kivl_partpool_generate(data.get());
    std::string out = captured([&] { kivl_dump_info(data.get()); });
    EXPECT_NE(out.find(" " + std::string(15, 'S') + "  1"), std::string::npos);
    EXPECT_NE(out.find(std::string(36, 'B') + "\n"), std::string::npos);
    EXPECT_NE(out.find(std::string(10, 'F') + "  " + std::string(32, 'M') + "\n"),
              std::string::npos);
    EXPECT_NE(out.find(std::string(16, 'P') + "  " + std::string(16, 'N') + "  "),
              std::string::npos);
    EXPECT_NE(out.find("  0  " + std::string(16, 'P') + "  1      singleton\n"), std::string::npos)
        << out;
}

TEST(KivlDump, Times) {
    const std::pair<std::uint32_t, const char *> cases[] = {
        {0, "1970.01.01 00:00:00"},
        {1700000000u, "2023.11.14 22:13:20"},
        {951782400u, "2000.02.29 00:00:00"},
        {0xFFFFFFFFu, "2106.02.07 06:28:15"},
    };
    for (auto [t, text] : cases)
        EXPECT_EQ(captured([t] { kivl_printf_time(t); }), text) << t;
}
