#pragma once
// Keeps the policy in force in step with a policy file. The file's directory is watched rather than
// the file itself, so that a file replaced by rename (as editors save) or created later is seen.
// A change that parses and differs from the policy in force by value is put in force and announced
// on the bus as topic 4, state 15; a broken or deleted file changes nothing and is only logged.
//
// Start and Stop are meant for one controlling thread (veqd's main); readers of the policy may be
// anywhere. Subscribers to the announcement run on the watcher's thread (at Start, on the caller's).

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace VEQ {

class ConfigPolicyAgent;

class PolicyFileWatcher {
public:
    explicit PolicyFileWatcher(ConfigPolicyAgent& agent);
    ~PolicyFileWatcher();
    PolicyFileWatcher(const PolicyFileWatcher&) = delete;
    PolicyFileWatcher& operator=(const PolicyFileWatcher&) = delete;

    // Watches the file's directory, then reads the file: its policy, or the default policy when
    // there is no such file, goes in force (announced if it differs from what was). A broken file
    // leaves the policy in force. False when the directory cannot be watched or the watcher runs
    // already; the file has been read all the same in the first case.
    bool Start(const std::wstring& path);
    // Ends the watch and waits for the watcher's thread. Harmless when not started or stopped already.
    void Stop();

    // Reads of the file since construction, whatever their outcome; each announcement has been made
    // by the time its read is counted.
    std::uint64_t ReadCount() const { return readCount_.load(); }

private:
    void Run();
    // Drains the queued inotify events. True when one of them may have changed the file.
    bool DrainEvents();
    // Reads the file and puts it in force if it differs; announces that.
    void Reload();
    // Tells the bus's subscribers that the policy in force has changed.
    static void Announce();
    void CloseDescriptors();

    ConfigPolicyAgent& agent_;
    std::mutex lifecycleMutex_;  // serialises Start and Stop
    std::wstring path_;
    std::string fileName_;       // the file's name in its directory, UTF-8
    int inotifyFd_ = -1;
    int stopFd_ = -1;            // an eventfd that Stop signals
    bool watchEnded_ = false;    // the directory went away: nothing more to watch
    std::thread thread_;
    std::atomic<std::uint64_t> readCount_{0};
};

}  // namespace VEQ
