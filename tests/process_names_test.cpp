#include <dlfcn.h>

#include <algorithm>

#include "qvapi_cpp.h"
#include "support.h"

// The application's own, under names that the library exports too.
char buff[8];
int stat_pid;

extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "detect_odr_violation=0"; }

namespace Quorvel {
namespace {

TEST(ProcessNamesTest, AreLeftAloneWhenTheApplicationOwnsThem) {
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "buff"), buff);
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "stat_pid"), &stat_pid);
    Agent agent(kUdp);
    std::string address = "1.2.3.4";
    std::map<std::string, int> values = {{"n", 1}};
    for (const int number : {-1, 0, 4711}) {
        stat_pid = number;
        std::fill(std::begin(buff), std::end(buff), static_cast<char>(number));
        CLogger module, application(kUdp);
        ASSERT_EQ(module.init(7), 0);
        ASSERT_EQ(application.init("app"), 0);
        EXPECT_EQ(module.write_modulelog_forIM(1, 2, address, address, 3, 4, 5), 0);
        EXPECT_EQ(decoded(agent.receive(1000)).body.substr(0, 15), "typeid=1000238&");
        ASSERT_EQ(application.set_stat(true, 1, 0, 0), 0);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(application.write_statlogs("data", values, QV_STAT_TYPE_SUM, 1), 0);
        }
        EXPECT_EQ(decoded(agent.receive(1000)).body, "data&n=1");
        EXPECT_EQ(application.get_errmsg(), "") << "its thread counts as gone";
        EXPECT_EQ(stat_pid, number);
        EXPECT_EQ(std::string(buff, 8), std::string(8, static_cast<char>(number)));
    }
}

}  // namespace
}  // namespace Quorvel
