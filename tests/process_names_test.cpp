#include "support.h"

// The application's own, under names that the library exports too.
char buff[8];
int stat_pid;

extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "detect_odr_violation=0"; }

namespace Quorvel {
namespace {

/// The application's names hold a number, before and after.
class ProcessNamesTest : public testing::TestWithParam<int> {
 protected:
    ProcessNamesTest() {
        EXPECT_TRUE(dlsym(RTLD_DEFAULT, "buff") == buff) << "the linker knows another";
        EXPECT_TRUE(dlsym(RTLD_DEFAULT, "stat_pid") == &stat_pid) << "the linker knows another";
        stat_pid = GetParam();
        std::fill(std::begin(buff), std::end(buff), static_cast<char>(GetParam()));
    }
    ~ProcessNamesTest() override {
        EXPECT_EQ(stat_pid, GetParam());
        EXPECT_EQ(std::string(buff, 8), std::string(8, static_cast<char>(GetParam())));
    }

    Agent m_agent{kUdp};
};

INSTANTIATE_TEST_SUITE_P(, ProcessNamesTest, testing::Values(-1, 0, 4711));

TEST_P(ProcessNamesTest, AreLeftAloneByModuleRecords) {
    CLogger logger;
    std::string address = "1.2.3.4";
    EXPECT_EQ(logger.init(7), 0);
    EXPECT_EQ(logger.write_modulelog_forIM(1, 2, address, address, 3, 4, 5), 0);
    EXPECT_EQ(decoded(m_agent.receive(1000)).body.substr(0, 15), "typeid=1000238&");
}

TEST_P(ProcessNamesTest, AreLeftAloneByStatisticsWhichFindTheirThread) {
    CLogger logger(kUdp);
    std::map<std::string, int> values = {{"n", 1}};
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(logger.set_stat(true, 1, 0, 0), 0);
    EXPECT_EQ(logger.write_statlogs("data", values, QV_STAT_TYPE_SUM, 1), 0);
    EXPECT_EQ(logger.write_statlogs("data", values, QV_STAT_TYPE_SUM, 1), 0);
    EXPECT_EQ(decoded(m_agent.receive(1000)).body, "data&n=1");
    EXPECT_EQ(logger.get_errmsg(), "") << "its thread counts as gone";
}

}  // namespace
}  // namespace Quorvel
