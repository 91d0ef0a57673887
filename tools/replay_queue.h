#ifndef QUORVEL_REPLAY_QUEUE_H
#define QUORVEL_REPLAY_QUEUE_H

#include <stdint.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace Quorvel {

/// The files that hold the records still to be replayed, beside the fallback file FILE:
/// FILE.replay, the one at work, moved aside so that the applications begin a new one;
/// FILE.progress, how much of it the agent has read; FILE.damaged, bytes that are no records.
/// A process that is killed at any instant leaves them so that the next one goes on.
class ReplayQueue {
 public:
    /// A file that is to be replayed, open for reading, from the progress on.
    struct Part {
        std::string path;
        Descriptor fd;
        uint64_t progress;
    };

    /// A file that replays left beside the fallback file, or that one works on.
    struct LeftOver {
        std::string path;
        uint64_t size;
        const char* what;
        const char* advice;
    };

    /// What replays have left beside `file`.
    static std::vector<LeftOver> leftOvers(const std::string& file);

    /// What there is to be replayed now, without a lock or a change.
    static std::vector<Part> parts(const std::string& file);

    /// Throws when another process has a queue in the directory of `file`.
    /// @param waits is called when the file at work has been waited for a second.
    ReplayQueue(const std::string& file, std::function<void()> waits);

    /// Takes up the file at work that an earlier process left, or moves the fallback file aside,
    /// and waits until no process can write to it any more.
    /// @return false when neither is there, or when a stop was requested.
    bool takeFile();

    /// The file at work, open for reading.
    int fd() const { return m_working.get(); }
    uint64_t size() const;
    const std::string& workingFile() const { return m_workingFile; }
    const std::string& damagedFile() const { return m_damagedFile; }

    /// How many bytes from the beginning of the file at work need no replay any more.
    uint64_t progress() const { return m_progress; }
    void setProgress(uint64_t progress);

    /// Appends bytes of the file at work that are no record to the damaged ones.
    void keepDamaged(std::string_view bytes);

    /// Removes the file at work if nothing is behind `end`.
    /// @return whether it is removed; otherwise a process had still written to it.
    bool removeFile(uint64_t end);

 private:
    bool moveAside();
    /// @return false when a stop was requested meanwhile.
    bool awaitWriters() const;

    const std::string m_file;
    const std::function<void()> m_waits;
    const std::string m_workingFile;
    const std::string m_progressFile;
    const std::string m_damagedFile;
    Descriptor m_directory;  // whose lock is held
    Descriptor m_working;
    Descriptor m_progressFd;
    uint64_t m_progress = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_REPLAY_QUEUE_H
