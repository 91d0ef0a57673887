#ifndef QUORVEL_BENCH_AGENT_H
#define QUORVEL_BENCH_AGENT_H

#include <sched.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace bench {

/// What a bench's agent process does with what arrives.
enum class Pace { kDiscard, kSlow };

/// A process of its own that serves the agent's three endpoints, and the system log's, reading and
/// discarding what arrives.
class Agent {
 public:
    explicit Agent(Pace pace = Pace::kDiscard);
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    void stop();
    /// Returns once nothing more arrives.
    void settle() const;

 private:
    std::atomic<uint64_t>* m_received;
    pid_t m_pid;
};

/// Keeps the calling thread, and what it starts, to the first processor while an object lives, so
/// that a single sender and the agent do not take turns on one; agents that it starts meanwhile
/// keep to the second. Does nothing on a machine with one processor.
class SenderApart {
 public:
    explicit SenderApart(bool apart);
    ~SenderApart();
    SenderApart(const SenderApart&) = delete;
    SenderApart& operator=(const SenderApart&) = delete;

 private:
    cpu_set_t m_before;
};

/// A socket to the agent with the options of the library's own. @param socketType 0 Unix-domain
/// stream, 1 TCP, 2 UDP.
int connectToAgent(int socketType);

}  // namespace bench

#endif  // QUORVEL_BENCH_AGENT_H
