#ifndef QVAPI_CPP_H
#define QVAPI_CPP_H

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>

#include <atomic>
#include <map>
#include <queue>
#include <string>

#include "qvapi_abi.h"
#include "qvapi_errno.h"

/// The statistics threads' start routine; `arg` is the CLogger. set_stat() and write_statlogs()
/// start and the logger's destructor ends them: not to be called.
void* StartStatThreads(void* arg);

namespace Quorvel {

class Sampling;
class SocketClient;
struct ModuleCall;

/// The ordinary log type.
const int8_t LT_NORMAL = 0;

/// How the values of a call of write_statlogs() combine with what is stored under their names. A
/// name not yet stored takes the value. Sums wrap modulo 2^32.
const int QV_STAT_TYPE_COUNT = 0;  ///< adds the value (pass 1 to count one event)
const int QV_STAT_TYPE_SUM = 1;    ///< adds the value
const int QV_STAT_TYPE_MIN = 2;    ///< keeps the smaller one
const int QV_STAT_TYPE_MAX = 3;    ///< keeps the larger one

/// Hands log records to the collection agent on this host. A logger is initialised once, either
/// with an application name (application mode: base logs and statistics) or with a module id
/// (module mode: module-invocation records), and then writes records, each framed and sent on the
/// caller's thread without waiting for a reply.
///
/// Delivery. A record goes to the agent in one request. On a stream transport that cannot take it,
/// the request is appended to the fallback file "/data/qvagent/msgdat.dat", as long as that file is
/// at most 1,000,000,000 bytes long. Whether the append worked is not reported: 7 and 8 say that
/// the record was turned over to the file, not that the file has it. A full disk loses the record;
/// the part of it that was written is cut off again, so that the file stays readable.
///
/// How long a call may take is what SocketClient says, plus the fallback append. A call that begins
/// while another thread forks waits for that fork.
///
/// Errors. Every operation that fails returns a code of qvapi_errno.h and leaves a text for
/// get_errmsg(); a success leaves the text alone. The library throws nothing of its own; a failed
/// allocation passes through as std::bad_alloc and leaves the logger usable. Every operation leaves
/// errno as it was.
///
/// Thread safety. init(), set_socktype() and the destructor need the logger to themselves. With
/// `isLock` true (the default) every other operation may be called from any number of threads at
/// once; with false, no two operations of the logger may overlap.
///
/// Stack. Every operation works on a thread with a stack of 32 KiB, except the formatted form of
/// write_baselog.
///
/// fork. With `isLock` true, a child forked at any moment may use its inherited loggers at once,
/// whatever the parent's other threads were doing: no lock of the library is held in it, its queue
/// and its open batch of statistics are whole, and no record is half written. Without locking the
/// same holds when the forking thread was the logger's only user. A fork waits for the library's
/// calls in flight, each within its bounds.
/// - Parent and child never share a socket: what the child inherited is closed in it before fork()
///   returns there, and its first send connects anew, without the back-off of the connection that
///   it inherited.
/// - The open batch and the queue are inherited as they stand, so both processes would write them:
///   switch statistics on in the workers. No statistics thread exists in the child; the first
///   closing of a batch starts one there, for its own logger alone: have one logger for statistics
///   a process, or call set_stat() on each in the child.
/// - A fork from a signal handler that interrupted an operation of the library waits for nothing;
///   its child may only _exit or exec. Logging from such a handler is not supported.
/// - The application's own fork handlers (pthread_atfork(3)) must not log.
/// - vfork, posix_spawn and raw clone run no fork handlers: their children must exec.
/// - A thread_local logger may stand in the program and in libraries loaded with it. In one that
///   dlopen(3) loads its memory goes away unseen with its thread, and a child that lacks the thread
///   must not fork again.
class CLogger {
 public:
    union {  // ends within the destructor, where errno is kept: its own always releases memory
        /// Closed batches of statistics that wait for the statistics thread. Not for applications.
        std::queue<std::map<std::string, std::map<std::string, int>>> m_stat_log_queues;
    };
    /// Guards m_stat_log_queues. Not for applications.
    pthread_rwlock_t m_queue_lock;

    /// @param tmpSocketType transport in application mode: 0 Unix-domain stream, 1 TCP, any other
    ///   value UDP. Module mode always uses UDP.
    /// @param isLock whether more than one thread will use the logger.
    explicit CLogger(int8_t tmpSocketType = 0, bool isLock = true);

    /// Ends the logger's statistics threads, each after the record in hand, closes its socket and
    /// discards statistics that are queued or open. No other operation may be running.
    ~CLogger();

    CLogger(const CLogger&) = delete;
    CLogger& operator=(const CLogger&) = delete;

    /// Application mode under the name `logName`, 1 to 65533 bytes (its length travels in 16 bits).
    /// Opens no connection; a missing agent or sampling table is no failure.
    /// @return 0, or 1 with the logger as uninitialised, or initialised, as it was:
    ///   "init: already init with appname:%s", "init: length of logName is 0" or
    ///   "init: length of logName is %zu, more than %d" (the length, 65533).
    int init(std::string logName);

    /// Module mode for the module `mid`, 1 or more; the sender's name is "mod" and the id.
    /// @return 0, or 1 as above: "init: already init with appname:%s" or "init mod mid[%s] error".
    int init(int mid);

    /// The raw form of a base log: sends the `len` bytes at `data` as they are. Application mode.
    /// @param data stays the caller's. @param len 0 and more; 30720 is no limit here.
    /// @param logType 0 to 110. @param proType 0: text body, 1: binary body.
    /// @param timestamp seconds since the epoch, sent as given (0 is sent as 0).
    /// @return 0: sent, or dropped by sampling; otherwise, in the order of the tests:
    /// - 1: "writebaselog2: is not init"
    /// - 13: module mode, "write_baselog: wrong invoke"; type out of range, "write_baselog: wrong
    ///   logtype %d"
    /// - 11: `data` is null, "comm_write: data is null"
    /// - 12: "comm_write error cmd[%d]" (`proType`)
    /// - 6: the request would be longer than INT_MAX, "sendWithoutRecv buff length -1"
    /// - 7, 8, 17: SocketClient's text; 20: the same, and the fallback file is full.
    int write_baselog(const char* data, unsigned int len, int8_t logType, int8_t proType,
                      unsigned int timestamp);

    /// The string form: the raw form of the characters of `data`, as a text body. `fallFlag` has no
    /// effect.
    /// @return as the raw form, but 1 has the text "writebaselog: is not init", and 2 comes before
    ///   the tests for 13: `data` is empty, "write_baselog: data empty".
    int write_baselog(int8_t type, const std::string& data, bool fallFlag, unsigned int timestamp);

    /// The formatted form: sends "_msg=" and the text that printf(3) makes of `fmt`, with a tab in
    /// front of every percent sign of `fmt` but one at its very start ("a=%d,b=%s" is formatted as
    /// "_msg=a=", tab, "%d,b=", tab, "%s"; each sign of a "%%" comes out behind its tab). At most
    /// 2047 characters of the format so rewritten and 30719 characters of text are used; when the
    /// formatter reports an error, what it had written by then is sent. Needs 48 KiB of stack,
    /// plus what printf(3) itself needs for unusual conversions.
    ///
    /// A literal 0 as `timestamp` makes the call ambiguous with the string form, since 0 is also a
    /// null pointer: pass time(nullptr) or a variable.
    /// @param type 0 to 127. @param fmt must not be null.
    /// @return as the raw form, but 1 has the text "writebaselog: not init", and only negative
    ///   types are out of range.
    int write_baselog(int8_t type, unsigned int timestamp, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));

    /// A module-invocation record in the binary encoding (172 bytes, see modulemsg.h). Module mode.
    /// Under a sampling rate N the record that is sent stands for N calls; see set_no_sample() for
    /// exemptions.
    /// @param mid, sid, ifid module id, id of the other party, interface id: 1 and more.
    /// @param fip, mip, sip IPv4 addresses in the forms of inet_addr(3), at most 32 characters; any
    ///   other text is sent as 255.255.255.255. Not changed.
    /// @param retval, result any value. @param delay, reqLen, rspLen 0 and more.
    /// @return 0: sent, or dropped by sampling; otherwise, in the order of the tests:
    /// - 15: `fip` too long, "write_modulelog: fip addr length invalid"
    /// - 1: "writemodulelog: is not init"; application mode: "write_modulelog: init error"
    /// - 16: "write_modulelog: delay[%d] mid[%d] sid[%d] ifid[%d] error" or "write_modulelog:
    ///   reqLen[%d] rspLen[%d] error"
    /// - 15, after sampling: `mip` or `sip` too long, "write_modulelog: ip addr length invalid"
    /// - 17: SocketClient's text.
    int write_modulelog(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                        std::string& sip, int retval, int result, int delay, int reqLen,
                        int rspLen);
    /// The same for the module id given to init().
    int write_modulelog(int sid, int ifid, std::string& fip, std::string& mip, std::string& sip,
                        int retval, int result, int delay, int reqLen, int rspLen);
    /// The same with 0.0.0.0 as `fip` and sizes of 0.
    int write_modulelog(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                        int result, int delay);

    /// The same record as a text of key=value pairs joined by "&", under LT_NORMAL. A rate of 0
    /// counts as 1. Arguments and results as above.
    int write_modulelog_forIM(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                              std::string& sip, int retval, int result, int delay, int reqLen,
                              int rspLen);
    /// The same for the module id given to init().
    int write_modulelog_forIM(int sid, int ifid, std::string& fip, std::string& mip,
                              std::string& sip, int retval, int result, int delay, int reqLen,
                              int rspLen);
    /// The same with 0.0.0.0 as `fip` and sizes of 0.
    int write_modulelog_forIM(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                              int result, int delay);

    /// Switches statistics on or off. Switching on starts one more statistics thread, which writes
    /// one base log a data string for every closed batch: the data string and, in ascending order
    /// of the names, "&name=value", cut at 1023 characters and each part at its first NUL. The
    /// thread has all signals blocked and looks for batches once a second. Switching off stops no
    /// thread and drops nothing. Every init() switches off too. Use it on loggers with locking.
    /// @param t log type of those base logs, 0 to 110; not checked here.
    /// @param interval age in seconds, @param count number of distinct data strings, at which the
    ///   open batch is closed.
    /// @return 0; 1: "writebaselog: is not init"; pthread_create(3)'s error number: "start
    ///   statistical thread error". Statistics are on then; the next closing of a batch starts a
    ///   thread, unless a thread of another logger runs: it looks for the process's newest thread.
    int set_stat(bool flag, int8_t t, unsigned int interval, unsigned int count);

    /// Merges the values of `statistics` into the open batch under the text `data`. Before that, a
    /// batch that is old or large enough is closed and handed to the statistics thread. No timer
    /// closes a batch: one that no further call closes is never written.
    /// @param statistics is only read.
    /// @param stattype one of QV_STAT_TYPE_*; any other value enters `data` and combines nothing.
    /// @param timestamp the current time in seconds since the epoch, from which the batch's age is
    ///   taken, modulo 2^32: an earlier time than the last closing's closes the batch.
    /// @return 0 (with the text "the statistical thread did not exists or already quit" when a
    ///   thread was missing and has been started);
    /// - 1: "write statlog: is not open, please call set_stat(true)"
    /// - 2: `data` is empty, "write_baselog: data empty"
    /// - pthread_create(3)'s error number, the values not merged: "start statistical thread again
    ///   error"
    int write_statlogs(const std::string& data, std::map<std::string, int>& statistics,
                       int stattype, unsigned int timestamp);

    /// Escapes `src_data` for use in texts of key=value pairs joined by "&": NUL, tab, line feed,
    /// carriage return, "%", "&" and "=" become a percent sign and two upper-case hexadecimal
    /// digits. Replaces `dst_data`; the two may be the same string. Uses no state of the logger.
    /// @return always 0
    int encode(std::string& src_data, std::string& dst_data);

    /// Changes the transport of application mode; see the constructor. No effect after init().
    void set_socktype(int8_t st);

    /// Exempts module-invocation records with this `result` from sampling. The results 0 to 15 can
    /// be exempted; only the low five bits of `result` count (35 is 3), and 16 to 31 have no
    /// effect.
    void set_no_sample(int result);

    /// Flips the exemption of `result`: ends one that set_no_sample() began, begins one otherwise.
    void set_sample(int result);

    /// @return a copy of the last failure's text, at most 1022 characters; empty if there was none.
    std::string get_errmsg();

    /// Frames a record and hands the request over instead of sending it. Works in both modes.
    /// @param pBuff receives the request; release it with delete[]. @param retLen its length.
    /// @param tmpData, tmpLen the record, at most 30720 bytes. @param logType 0 to 126.
    /// @param proType 0: text body, 1: binary body. @param tm seconds since the epoch.
    /// @return 0; otherwise, in the order of the tests and with `pBuff` and `retLen` untouched:
    /// - 1: "pack_send_buff: logname is not init"
    /// - 11: "pack_send_buff: data is null"
    /// - 2: "pack: length is %u > %d"
    /// - 12: "pack_send_buff error pro type[%d]"
    /// - 13: "pack_send_buff error logtype[%d]"
    int pack_send_buff(char*& pBuff, int& retLen, const char* tmpData, unsigned int tmpLen,
                       int8_t logType, int8_t proType, unsigned int tm);

    /// @return the log type under which statistics are written; 0 before they are switched on.
    int8_t get_logtype();

    /// @return the constructor's `isLock`.
    bool get_lock();

 private:
    friend void* ::StartStatThreads(void* arg);
    struct State;

    int init(std::string logName, bool isModule);

    // The way of a record: qvapi_cpp.cpp.
    int look_up_and_write(const char* data, unsigned int len, int8_t logType, int8_t proType,
                          unsigned int timestamp);
    int write_formatted(int8_t type, unsigned int timestamp, const char* fmt, va_list arguments);
    int refuse_baselog(const char* notInitialised, int8_t logType, unsigned int len);
    int comm_write(const char* data, unsigned int len, int8_t logType, int8_t proType,
                   unsigned int tm);
    void frame(char* request, const char* data, unsigned int len, int8_t logType, int8_t proType,
               unsigned int tm) const;
    int not_sent(const char* request, uint32_t length, int res, const char* failure);
    bool turn_over(const char* request, uint32_t length);
    bool need_disaster(char* fileName);
    int get_filesize(char* filename, unsigned int& size);
    void write_bin_file(const char* data, unsigned int len, const char* fileName);
    int failed(int code, int8_t logType, unsigned int len) const;
    void update_errmsg(const char* cErrmsg, ...) __attribute__((format(printf, 2, 3)));

    // Module-invocation records: module_records.cpp.
    int need_sample(int result);
    int write_modulelog(int mid, int sid, int ifid, std::string& mip, std::string& sip, int retval,
                        int result, int delay, int reservedInt0, int reservedInt1, int reqLen,
                        int rspLen);
    int write_modulelog_forIM(int mid, int sid, int ifid, std::string& mip, std::string& sip,
                              int retval, int result, int delay, int reservedInt0, int reservedInt1,
                              int reqLen, int rspLen);
    bool fip_fits(const std::string& fip);
    int check_module(const ModuleCall& call, int8_t logType, int& rate);

    // Statistics: statistics.cpp.
    int ensure_stat_thread();
    void close_batch(unsigned int timestamp);
    void end_stat_threads();
    void serve_batches();
    bool take_batch(std::map<std::string, std::map<std::string, int>>& batch);
    void write_batch(const std::map<std::string, std::map<std::string, int>>& batch);

    SocketClient* m_pSocketClient;
    Sampling* m_pSampling;
    pthread_rwlock_t m_errMsgrwlock;
    std::string m_appname;
    std::string m_errmsg;
    int m_rspMsgLen;  // never read: keeps the layout
    int m_reqMsgHdrLen;
    int m_addrLen;   // never used: keeps the layout
    bool m_needRsp;  // never used: keeps the layout
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
    std::map<std::string, int> m_cur_stat_log;  // never used: keeps the layout
    std::map<std::string, std::map<std::string, int>> m_cur_stat_logs;
    State* m_pState;
};

}  // namespace Quorvel

#endif  // QVAPI_CPP_H
