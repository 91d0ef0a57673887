#ifndef QUORVEL_BENCH_AGENT_H
#define QUORVEL_BENCH_AGENT_H

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

/// A socket to the agent with the options of the library's own. @param socketType 0 Unix-domain
/// stream, 1 TCP, 2 UDP.
int connectToAgent(int socketType);

}  // namespace bench

#endif  // QUORVEL_BENCH_AGENT_H
