#include "spool_replay.h"

#include <time.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <vector>

#include "agent_connection.h"
#include "pace.h"
#include "progress_line.h"
#include "replay_queue.h"
#include "spool_file.h"
#include "stop_signals.h"
#include "text_safety.h"

namespace Quorvel {
namespace {

const size_t kBatchSize = 64 << 10;  // what may have to be sent again
const size_t kPieceSize = 32 << 10;
const timespec kReadInterval = {0, 100000};
const timespec kReconnectInterval = {0, 200000000};
const std::chrono::seconds kPatience(1);

struct Amount {
    uint64_t records = 0;
    uint64_t bytes = 0;

    void add(const Amount& other) {
        records += other.records;
        bytes += other.bytes;
    }
};

class Replay {
 public:
    explicit Replay(const ReplayOptions& options)
        : m_options(options), m_pace(options.recordsPerSecond), m_queue(options.file, [this] {
              say("waiting until no process has " + m_queue.workingFile() + " open for writing");
          }) {}

    /// @return whether none is left; false when a stop was requested before.
    bool run() {
        try {
            connect();
            while (!stopRequested() && m_queue.takeFile()) {
                replayFile();
            }
        } catch (const AgentGone& gone) {
            throw std::runtime_error(gone.what() + leftOver());
        }
        const std::string left = stopRequested() ? leftOver() : "";
        if (!left.empty()) {
            say("stopped" + left);
        }
        return left.empty();
    }

    void report() {
        m_line.clear();
        std::cout << "replayed: " << m_replayed.records << " records, " << m_replayed.bytes
                  << " bytes\n";
        if (m_damage > 0) {
            std::cout << "no records: " << m_damage << " bytes, kept in "
                      << escapeForTerminal(m_queue.damagedFile()) << '\n';
        }
    }

 private:
    void say(const std::string& what) {
        m_line.clear();
        std::cerr << "qvctl: " << escapeForTerminal(what) << '\n';
    }

    void connect() {
        while (!m_connection) {
            try {
                m_connection.emplace(m_options.transport);
            } catch (const AgentGone& gone) {
                awaitAgent(gone);
            }
        }
    }

    /// Throws `gone` on without --wait; with it, says what it says, once, and waits a while.
    void awaitAgent(const AgentGone& gone) {
        if (!m_options.waitsForAgent || stopRequested()) {
            throw gone;
        }
        if (gone.what() != m_lastReason) {
            m_lastReason = gone.what();
            say(m_lastReason + "; trying again");
        }
        m_connection.reset();
        nanosleep(&kReconnectInterval, nullptr);
    }

    /// The end of a message: where the records are that were not replayed; empty without any.
    std::string leftOver() const {
        const auto parts = ReplayQueue::parts(m_options.file);
        return parts.empty() ? ""
                             : "; what is left is in " + parts.front().path +
                                   ", and the next replay goes on there";
    }

    /// The end of a message: what the agent did not read; empty if it was sent nothing.
    std::string unread() const {
        if (m_handled == m_queue.progress()) {
            return "";
        }
        return "; it did not read all of the " + std::to_string(m_handled - m_queue.progress()) +
               " bytes at byte " + std::to_string(m_queue.progress()) + " of " +
               m_queue.workingFile();
    }

    void startFromProgress() {
        m_reader.emplace(m_queue.fd(), m_queue.progress());
        m_handled = m_queue.progress();
        m_batch.clear();
        m_unread = {};
    }

    /// Sends the file at work and removes it, unless a stop is requested.
    void replayFile() {
        m_damageKept = m_queue.progress();
        startFromProgress();
        m_line.begin(part());
        for (bool isDone = false; !isDone && !stopRequested();) {
            try {
                isDone = sendNext() && m_queue.removeFile(m_handled);
            } catch (const AgentGone& gone) {
                awaitAgent(AgentGone(gone.what() + unread()));
                connect();
                startFromProgress();
            }
        }
    }

    /// @return whether all up to the file's end was replayed.
    bool sendNext() {
        const bool isRecord = m_reader->next();
        if (keepDamaged() && isRecord) {
            add();
        }
        const bool isAll = m_handled >= m_reader->size();
        if (isAll || stopRequested()) {
            finishBatch();
        }
        return isAll;
    }

    /// @return whether all before the record is kept; false when a stop was requested before.
    bool keepDamaged() {
        const uint64_t end = m_reader->begin();
        for (m_damageKept = std::max(m_damageKept, end - m_reader->skipped());
             m_damageKept < end;) {
            if (stopRequested()) {
                return false;
            }
            const size_t length = std::min<uint64_t>(end - m_damageKept, kPieceSize);
            m_queue.keepDamaged(whole(m_reader->bytes(m_damageKept, length), length));
            m_damageKept += length;
            m_damage += length;
        }
        m_handled = end;
        return true;
    }

    void add() {
        const size_t length = m_reader->requestLength();
        if (m_unread.bytes + length > kBatchSize || !m_pace.isDue()) {
            finishBatch();
        }
        m_pace.await();
        m_pace.count();
        m_handled = m_reader->end();
        if (length <= kBatchSize) {
            m_batch.append(whole(m_reader->request(0, length), length));
        } else {
            sendInPieces(length);
        }
        m_unread.add({1, length});
        if (length > kBatchSize) {
            finishBatch();  // nothing that fails before the next one may have it sent again
        }
    }

    void sendInPieces(size_t length) {
        for (size_t offset = 0; offset < length; offset += kPieceSize) {
            const size_t piece = std::min(length - offset, kPieceSize);
            m_connection->send(whole(m_reader->request(offset, piece), piece));
        }
    }

    std::string_view whole(std::string_view bytes, size_t length) const {
        if (bytes.size() < length) {
            throw std::runtime_error(m_queue.workingFile() + " was cut while it was replayed");
        }
        return bytes;
    }

    /// Sends what was added and waits until the agent has read it.
    void finishBatch() {
        m_connection->send(m_batch);
        awaitRead();
        m_queue.setProgress(m_handled);
        m_replayed.add(m_unread);
        m_batch.clear();
        m_unread = {};
        m_line.show(m_replayed.records, m_replayed.bytes, part());
    }

    /// How much of the file at work is handled, 0 to 1.
    double part() const {
        const uint64_t size = m_queue.size();
        return size > 0 ? static_cast<double>(m_handled) / static_cast<double>(size) : 1;
    }

    void awaitRead() {
        const auto patienceEnd = std::chrono::steady_clock::now() + kPatience;
        while (!m_connection->isRead()) {
            nanosleep(&kReadInterval, nullptr);
            if (!m_isSaid && std::chrono::steady_clock::now() > patienceEnd) {
                say("waiting until the agent has read what was sent (Ctrl-C twice does not wait, "
                    "and up to 64 KiB will be sent again)");
                m_isSaid = true;
            }
        }
    }

    const ReplayOptions& m_options;
    Pace m_pace;
    ReplayQueue m_queue;
    ProgressLine m_line;
    std::optional<AgentConnection> m_connection;
    std::optional<SpoolReader> m_reader;
    std::string m_batch;        // requests to be sent together
    Amount m_unread;            // of the batch, and of a longer request sent on its own
    uint64_t m_handled = 0;     // offset behind what was sent or added to the batch, or was damaged
    uint64_t m_damageKept = 0;  // offset behind the damage that was kept already
    Amount m_replayed;
    uint64_t m_damage = 0;
    std::string m_lastReason;  // for waiting for the agent
    bool m_isSaid = false;     // that the agent lets this wait
};

}  // namespace

bool replay(const ReplayOptions& options) {
    Replay replay(options);
    try {
        const bool isDone = replay.run();
        replay.report();
        return isDone;
    } catch (...) {
        replay.report();
        throw;
    }
}

void describeReplay(const ReplayOptions& options) {
    const std::vector<ReplayQueue::Part> parts = ReplayQueue::parts(options.file);
    if (parts.empty()) {
        std::cout << "there is nothing to replay\n";
    }
    for (const ReplayQueue::Part& part : parts) {
        SpoolReader reader(part.fd.get(), part.progress);
        Amount amount;
        uint64_t damage = 0;
        while (reader.next()) {
            amount.add({1, reader.requestLength()});
            damage += reader.skipped();
        }
        damage += reader.skipped();
        std::cout << "would replay from " << escapeForTerminal(part.path) << ": " << amount.records
                  << " records, " << amount.bytes << " bytes\n";
        if (damage > 0) {
            std::cout << "no records: " << damage << " bytes\n";
        }
    }
}

}  // namespace Quorvel
