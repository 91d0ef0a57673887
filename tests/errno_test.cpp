#include <optional>

#include "socket_client.h"
#include "support.h"

// An allocator that changes errno, as the C library's may.
void* operator new(size_t size) {
    void* const area = malloc(size);
    errno = E2BIG;
    return area != nullptr ? area : throw std::bad_alloc();
}
void operator delete(void* area) noexcept {
    free(area);
    errno = E2BIG;
}
void operator delete(void* area, size_t /*size*/) noexcept { operator delete(area); }

namespace Quorvel {
namespace {

const std::string kLong(100, 'x');

// Expects that a call leaves errno as it finds it.
#define QV_KEEPS_ERRNO(...) keepingErrno([&] { return __VA_ARGS__; })

/// Two loggers in the two modes, with the agent listening.
class ErrnoTest : public testing::Test {
 protected:
    ErrnoTest() {
        makeFallbackDirectory();
        EXPECT_EQ(m_application.init(kLong), 0);
        EXPECT_EQ(m_module.init(7), 0);
    }

    Agent m_agent{kUnix};
    CLogger m_application, m_module;
    std::string m_text = kLong + "%", m_ip = "1.2.3.4";
    std::map<std::string, int> m_values = {{kLong, 1}};
};

TEST_F(ErrnoTest, OutlivesALoggersLife) {
    std::optional<CLogger> logger;
    std::string name = kLong, otherName = kLong;
    QV_KEEPS_ERRNO(&logger.emplace());
    QV_KEEPS_ERRNO(logger->init(std::move(name)));
    QV_KEEPS_ERRNO(logger->init(std::move(otherName)));
    QV_KEEPS_ERRNO(logger->init(7));
    QV_KEEPS_ERRNO((logger.reset(), 0));
}

TEST_F(ErrnoTest, OutlivesRecords) {
    QV_KEEPS_ERRNO(m_application.write_baselog("x", 1, 1, 0, 1));
    QV_KEEPS_ERRNO(m_application.write_baselog(1, m_text, false, 1));
    QV_KEEPS_ERRNO(m_application.write_baselog(1, 1U, "%d", 7));
    QV_KEEPS_ERRNO(m_module.write_modulelog(1, 2, m_ip, m_ip, 3, 4, 5));
    QV_KEEPS_ERRNO(m_module.write_modulelog(1, 2, m_text, m_ip, m_ip, 3, 4, 5, 6, 7));
    QV_KEEPS_ERRNO(m_module.write_modulelog_forIM(1, 2, m_ip, m_ip, 3, 4, 5));
    QV_KEEPS_ERRNO(m_module.write_modulelog_forIM(1, 2, m_ip, m_text, m_ip, 3, 4, 5, 6, 7));
}

TEST_F(ErrnoTest, OutlivesStatistics) {
    for (const unsigned timestamp : {1U, 2U}) {
        for (const bool isOn : {true, false}) {
            QV_KEEPS_ERRNO(m_application.set_stat(isOn, 1, 0, 0));
            QV_KEEPS_ERRNO(m_application.write_statlogs(m_text, m_values, 1, timestamp));
        }
    }
}

TEST_F(ErrnoTest, OutlivesWhatOnlyTellsOrConverts) {
    char* request = nullptr;
    int length = 0;
    EXPECT_EQ(m_module.write_baselog("x", 1, 1, 0, 1), 13);
    QV_KEEPS_ERRNO(m_module.get_errmsg());
    QV_KEEPS_ERRNO(m_module.encode(m_text, m_text));
    QV_KEEPS_ERRNO(m_module.pack_send_buff(request, length, "x", 1, 1, 0, 1));
    delete[] request;
}

TEST_F(ErrnoTest, OutlivesTransport) {
    std::optional<SocketClient> client;
    QV_KEEPS_ERRNO(&client.emplace());
    QV_KEEPS_ERRNO(client->init(kUnix, true));
    QV_KEEPS_ERRNO(client->sendWithoutRecv(nullptr, 0, true));
    QV_KEEPS_ERRNO(client->sendWithoutRecv(m_text.data(), 1, true));
    QV_KEEPS_ERRNO(client->get_errmsg());
    QV_KEEPS_ERRNO((client.reset(), 0));
}

}  // namespace
}  // namespace Quorvel
