#include <string.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <exception>

#include "fork_safety.h"
#include "locks.h"
#include "logger_state.h"
#include "probes.h"
#include "stat_text.h"
#include "stat_threads.h"

namespace Quorvel {
namespace {

const std::chrono::seconds kPause(1);

using StatMap = std::map<std::string, int>;
using StatBatch = std::map<std::string, StatMap>;

int combine(int stored, int value, int kind) {
    switch (kind) {
        case QV_STAT_TYPE_MIN:
            return std::min(stored, value);
        case QV_STAT_TYPE_MAX:
            return std::max(stored, value);
        default:
            return static_cast<int>(static_cast<uint32_t>(stored) + static_cast<uint32_t>(value));
    }
}

void merge(StatMap& stored, const StatMap& values, int kind) {
    if (kind < QV_STAT_TYPE_COUNT || kind > QV_STAT_TYPE_MAX) {
        return;
    }
    // Both maps are in the order of the names, so the next one usually follows the last.
    auto entry = stored.begin();
    for (const auto& [name, value] : values) {
        if (entry == stored.end() || entry->first != name) {
            entry = stored.lower_bound(name);
        }
        if (entry == stored.end() || entry->first != name) {
            entry = stored.emplace_hint(entry, name, value);
        } else {
            entry->second = combine(entry->second, value, kind);
        }
        ++entry;
    }
}

}  // namespace

int CLogger::set_stat(bool flag, int8_t t, unsigned int interval, unsigned int count) {
    const CallScope scope;
    if (!m_isInit) {
        update_errmsg("writebaselog: is not init");
        return QV_ERR_INIT;
    }
    const auto merging = lockIf(m_needLock, m_pState->statLock);
    m_isStat = flag;
    m_type = t;
    m_stat_interval = interval;
    m_stat_count = count;
    if (!flag) {
        return QV_ERR_OK;
    }
    if (!m_pState->queueLockExists) {
        pthread_rwlock_init(&m_queue_lock, nullptr);
        m_pState->queueLockExists = true;
    }
    const int res = statThreads.start(StartStatThreads, this);
    if (res != 0) {
        update_errmsg("start statistical thread error");
    }
    return res;
}

int CLogger::write_statlogs(const std::string& data, std::map<std::string, int>& statistics,
                            int stattype, unsigned int timestamp) {
    const CallScope scope;
    if (!m_isStat) {
        update_errmsg("write statlog: is not open, please call set_stat(true)");
        return QV_ERR_INIT;
    }
    if (data.empty()) {
        update_errmsg("write_baselog: data empty");
        return QV_ERR_LENGTH;
    }
    const auto merging = lockIf(m_needLock, m_pState->statLock);
    if (timestamp - m_stat_last_time >= m_stat_interval || m_cur_stat_logs.size() >= m_stat_count) {
        const int res = ensure_stat_thread();
        if (res != 0) {
            return res;
        }
        close_batch(timestamp);
    }
    merge(m_cur_stat_logs[data], statistics, stattype);
    return QV_ERR_OK;
}

int CLogger::ensure_stat_thread() {
    if (!statThreads.gone()) {
        return 0;
    }
    update_errmsg("the statistical thread did not exists or already quit");
    const int res = statThreads.startIfGone(StartStatThreads, this);
    if (res != 0) {
        update_errmsg("start statistical thread again error");
    }
    return res;
}

void CLogger::close_batch(unsigned int timestamp) {
    QVAPI_PROBE(batch_closed, m_appname.c_str(), m_cur_stat_logs.size());
    {
        const WriteGuard guard(m_queue_lock);
        m_stat_log_queues.push(std::move(m_cur_stat_logs));
    }
    m_cur_stat_logs.clear();
    m_stat_last_time = timestamp;
}

void CLogger::end_stat_threads() {
    {
        const std::lock_guard<std::mutex> guard(m_pState->stopLock);
        m_pState->stopping = true;
    }
    m_pState->stop.notify_all();
    statThreads.join(this);
}

void CLogger::serve_batches() {
    while (!m_pState->stopping) {
        StatBatch batch;
        if (take_batch(batch)) {
            write_batch(batch);
            continue;
        }
        std::unique_lock<std::mutex> guard(m_pState->stopLock);
        m_pState->stop.wait_for(guard, kPause, [this] { return m_pState->stopping.load(); });
    }
}

bool CLogger::take_batch(StatBatch& batch) {
    const CallScope scope;
    const WriteGuard guard(m_queue_lock);
    if (m_stat_log_queues.empty()) {
        return false;
    }
    batch = std::move(m_stat_log_queues.front());
    m_stat_log_queues.pop();
    return true;
}

void CLogger::write_batch(const StatBatch& batch) {
    for (auto entry = batch.begin(); entry != batch.end() && !m_pState->stopping; ++entry) {
        try {
            write_baselog(m_type, statText(entry->first, entry->second), true,
                          static_cast<unsigned int>(time(nullptr)));
        } catch (const std::exception&) {
            // Out of memory costs this record. Nothing wider is caught: the thread library ends
            // threads by exceptions of its own.
        }
    }
}

}  // namespace Quorvel

void* StartStatThreads(void* arg) {
    static_cast<Quorvel::CLogger*>(arg)->serve_batches();
    return nullptr;
}
