#ifndef QVAPI_ABI_H
#define QVAPI_ABI_H 
#include <string>
#if defined(_LIBCPP_VERSION)
#error "libqvapi needs libstdc++'s std::string: compile and link without -stdlib=libc++"
#elif !_GLIBCXX_USE_CXX11_ABI
#error "libqvapi needs the C++11 ABI of std::string: compile without -D_GLIBCXX_USE_CXX11_ABI=0"
#endif
#endif
#ifndef QVAPI_ERRNO_H
#define QVAPI_ERRNO_H 
namespace Quorvel {
const int QV_ERR_OK = 0;
const int QV_ERR_INIT = 1;
const int QV_ERR_LENGTH = 2;
const int QV_ERR_NULL_BUFFER = 4;
const int QV_ERR_BUFFER_LENGTH = 6;
const int QV_ERR_CONNECT = 7;
const int QV_ERR_WRITE = 8;
const int QV_ERR_NULL_DATA = 11;
const int QV_ERR_PROTOCOL_TYPE = 12;
const int QV_ERR_LOG_TYPE = 13;
const int QV_ERR_ADDRESS_LENGTH = 15;
const int QV_ERR_ARGUMENT = 16;
const int QV_ERR_DATAGRAM = 17;
const int QV_ERR_FALLBACK_FULL = 20;
}
#endif
#ifndef QVAPI_CPP_H
#define QVAPI_CPP_H 
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <atomic>
#include <map>
#include <queue>
#include <string>
void* StartStatThreads(void* arg);
namespace Quorvel {
class CallScope;
class Sampling;
class SocketClient;
const int8_t LT_NORMAL = 0;
const int QV_STAT_TYPE_COUNT = 0;
const int QV_STAT_TYPE_SUM = 1;
const int QV_STAT_TYPE_MIN = 2;
const int QV_STAT_TYPE_MAX = 3;
class CLogger {
 public:
    union {
        std::queue<std::map<std::string, std::map<std::string, int>>> m_stat_log_queues;
    };
    pthread_rwlock_t m_queue_lock;
    explicit CLogger(int8_t tmpSocketType = 0, bool isLock = true);
    ~CLogger();
    CLogger(const CLogger&) = delete;
    CLogger& operator=(const CLogger&) = delete;
    int init(std::string logName);
    int init(int mid);
    int write_baselog(const char* data, unsigned int len, int8_t logType, int8_t proType,
                      unsigned int timestamp);
    int write_baselog(int8_t type, const std::string& data, bool fallFlag, unsigned int timestamp);
    int write_baselog(int8_t type, unsigned int timestamp, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    int write_modulelog(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                        int result, int delay);
    int write_modulelog(int sid, int ifid, std::string& fip, std::string& mip, std::string& sip,
                        int retval, int result, int delay, int reqLen, int rspLen);
    int write_modulelog(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                        std::string& sip, int retval, int result, int delay, int reqLen,
                        int rspLen);
    int write_modulelog_forIM(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                              int result, int delay);
    int write_modulelog_forIM(int sid, int ifid, std::string& fip, std::string& mip,
                              std::string& sip, int retval, int result, int delay, int reqLen,
                              int rspLen);
    int write_modulelog_forIM(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                              std::string& sip, int retval, int result, int delay, int reqLen,
                              int rspLen);
    int set_stat(bool flag, int8_t t, unsigned int interval, unsigned int count);
    int write_statlogs(const std::string& data, std::map<std::string, int>& statistics,
                       int stattype, unsigned int timestamp);
    int encode(std::string& src_data, std::string& dst_data);
    void set_socktype(int8_t st);
    void set_no_sample(int result);
    void set_sample(int result);
    std::string get_errmsg();
    int pack_send_buff(char*& pBuff, int& retLen, const char* tmpData, unsigned int tmpLen,
                       int8_t logType, int8_t proType, unsigned int tm);
    int8_t get_logtype();
    bool get_lock();
 private:
    friend void* ::StartStatThreads(void* arg);
    struct State;
    struct ModuleCall;
    CLogger(int8_t tmpSocketType, bool isLock, const CallScope& scope);
    int init(std::string logName, bool isModule);
    void update_errmsg(const char* cErrmsg, ...) __attribute__((format(printf, 2, 3)));
    int need_sample(int result);
    int write_modulelog(int mid, int sid, int ifid, std::string& mip, std::string& sip, int retval,
                        int result, int delay, int reservedInt0, int reservedInt1, int reqLen,
                        int rspLen);
    int write_modulelog_forIM(int mid, int sid, int ifid, std::string& mip, std::string& sip,
                              int retval, int result, int delay, int reservedInt0, int reservedInt1,
                              int reqLen, int rspLen);
    bool fip_fits(const std::string& fip);
    int check_module(const ModuleCall& call, int8_t logType, int& rate);
    int ensure_stat_thread();
    void end_stat_threads();
    void close_batch(unsigned int timestamp);
    bool take_batch(std::map<std::string, std::map<std::string, int>>& batch);
    void write_batch(const std::map<std::string, std::map<std::string, int>>& batch);
    void serve_batches();
    int comm_write(const char* data, unsigned int len, int8_t logType, int8_t proType,
                   unsigned int tm);
    int write_formatted(int8_t type, unsigned int timestamp, const char* fmt, va_list arguments)
        __attribute__((noinline));
    int write_without_rate(const char* data, unsigned int len, int8_t logType, int8_t proType,
                           unsigned int timestamp);
    int refuse_baselog(const char* notInitialised, int8_t logType);
    int not_sent(const char* request, uint32_t length, int res, const char* failure);
    bool turn_over(const char* request, uint32_t length);
    int get_filesize(char* filename, unsigned int& size);
    bool need_disaster(char* fileName);
    void write_bin_file(const char* data, unsigned int len, const char* fileName);
    void frame(char* request, const char* data, unsigned int len, int8_t logType, int8_t proType,
               unsigned int tm) const;
    SocketClient* m_pSocketClient;
    Sampling* m_pSampling;
    pthread_rwlock_t m_errMsgrwlock;
    std::string m_appname;
    std::string m_errmsg;
    int m_rspMsgLen;
    int m_reqMsgHdrLen;
    int m_addrLen;
    bool m_needRsp;
    int8_t m_socketType;
    int m_iMid;
    bool m_isInit;
    uint16_t m_appnameLen;
    uint16_t m_appnamePartLen;
    std::atomic<int16_t> m_not_sample_flag;
    bool m_needLock;
    std::atomic<bool> m_isStat;
    std::atomic<int8_t> m_type;
    uint32_t m_stat_last_time;
    uint32_t m_stat_interval;
    uint32_t m_stat_count;
    std::map<std::string, int> m_cur_stat_log;
    std::map<std::string, std::map<std::string, int>> m_cur_stat_logs;
    State* m_pState;
};
}
#endif
#ifndef QVAPI_SOCKET_CLIENT_H
#define QVAPI_SOCKET_CLIENT_H 
#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/un.h>
#include <time.h>
#include <atomic>
#include <string>
namespace Quorvel {
class SocketClient {
 public:
    SocketClient();
    ~SocketClient();
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;
    int init(int8_t sockType, bool isLock);
    int sendWithoutRecv(char* buff, int length, bool lock);
    std::string get_errmsg();
 private:
    struct State;
    int conn(bool lock);
    int establish();
    bool needRetry();
    int real_conn();
    bool start_connect(int fd, bool local);
    bool finish_connect(int fd);
    int set_non_block(int fd);
    int set_block(int fd);
    int tcp_write(int fd, char* buff, int length);
    int udp_write(char* buff, int length);
    int udp_failed();
    bool udp_open();
    int open_socket(int family, int type);
    void disconnect(int fd);
    void update_errmsg(const char* cErrmsg, ...) __attribute__((format(printf, 2, 3)));
    void rdLock(bool lock);
    void wrLock(bool lock);
    void unLock(bool lock);
    int m_iFd;
    int8_t m_cSocketType;
    std::atomic<bool> m_bConnected;
    uint32_t m_iLastConnTime;
    sockaddr_un m_serverAddr_un;
    sockaddr_in m_serverAddr_in;
    bool m_bNeedLock;
    pthread_rwlock_t m_connLock;
    pthread_rwlock_t m_errMsgrwlock;
    std::string m_strErrmsg;
    bool m_noAgent;
    State* m_pState;
};
}
#endif
#ifndef QVAPI_SAMPLING_H
#define QVAPI_SAMPLING_H 
#include <stdint.h>
#include <time.h>
#include <atomic>
#include <string>
namespace Quorvel {
struct __attribute__((packed)) LogTypeItem {
    uint8_t sampling;
    char reserved;
    uint32_t count;
};
struct AppItem {
    char isUsed;
    char reserved[3];
    char appname[256];
    LogTypeItem logTypeItems[128];
};
static_assert(sizeof(LogTypeItem) == 6 && sizeof(AppItem) == 1028, "shared with the agent");
class Sampling {
 public:
    Sampling();
    ~Sampling();
    Sampling(const Sampling&) = delete;
    Sampling& operator=(const Sampling&) = delete;
    int init(std::string& name, int shmKey, int shmSize);
    bool needFilter(int8_t logType);
    int fetchSampling(int8_t logType) { return getSampling(logType); }
 private:
    friend class CLogger;
    struct State;
    enum class Decision { kKeep, kDrop, kLookUp };
    int getShm(int key, int size);
    int findIndex();
    int tryGetIndex();
    int retryLookup();
    uint8_t getSampling(int8_t logType);
    const uint8_t* knownRate(int8_t logType) const;
    Decision decide(int8_t logType);
    std::atomic<uint32_t> m_count;
    std::atomic<AppItem*> m_shmPtr;
    int m_shmID;
    std::atomic<char> m_status;
    int m_key;
    int m_size;
    int m_minIndex;
    int m_maxIndex;
    std::atomic<int> m_index;
    std::atomic<time_t> m_lastGetTime;
    std::string m_appname;
    State* m_pState;
};
}
#endif
#ifndef QVAPI_MODULEMSG_H
#define QVAPI_MODULEMSG_H 
#include <stddef.h>
#include <stdint.h>
namespace Quorvel {
struct __attribute__((packed)) ModuleInvokeMsg {
    uint32_t uiTime;
    uint32_t uiVer;
    int32_t iMid;
    int32_t iSid;
    int32_t iInterfaceid;
    uint32_t uiMip;
    uint32_t uiSip;
    int32_t iRetVal;
    int32_t iResult;
    int32_t iDelay;
    int32_t iMaxDelay;
    int32_t iMinDelay;
    float fAvgDelay;
    uint64_t ullCnt;
    uint64_t ullTotalDelay;
    uint32_t uiFip;
    int32_t iReserved1;
};
struct __attribute__((packed)) ReservedData {
    uint64_t ullTotalReqPacketSize;
    uint64_t ullTotalRspPacketSize;
    uint64_t ullReserved2;
    int32_t iReserved3;
    int32_t iReserved4;
    uint64_t ullReserved5;
    int32_t iReserved6;
    int32_t iReserved7;
    uint64_t ullReserved8;
    int32_t iReserved9;
    int32_t iReserved10;
    uint64_t ullReserved11;
    int32_t iReserved12;
    int32_t iReserved13;
    uint64_t ullReserved14;
    int32_t iReserved15;
    int32_t iReserved16;
};
static_assert(sizeof(ModuleInvokeMsg) == 76 && offsetof(ModuleInvokeMsg, iDelay) == 36 &&
                  offsetof(ModuleInvokeMsg, ullCnt) == 52 && offsetof(ModuleInvokeMsg, uiFip) == 68,
              "the agent reads these bytes");
static_assert(sizeof(ReservedData) == 96 && offsetof(ReservedData, ullReserved2) == 16 &&
                  offsetof(ReservedData, ullReserved5) == 32 &&
                  offsetof(ReservedData, ullReserved8) == 48 &&
                  offsetof(ReservedData, ullReserved11) == 64 &&
                  offsetof(ReservedData, ullReserved14) == 80,
              "the agent reads these bytes");
}
#endif
#ifndef QVAPIMSG_H
#define QVAPIMSG_H 
#include <stdint.h>
namespace Quorvel {
struct ApiReqMsgHeader {
    uint8_t cmd;
    uint8_t logType;
    uint16_t len;
    uint16_t ver;
    uint16_t flag;
    uint32_t timestamp;
    uint32_t reservedInt;
};
static_assert(sizeof(ApiReqMsgHeader) == 16, "the header is 16 bytes on the wire");
}
#endif
