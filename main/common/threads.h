// The daemon's threads: they leave every signal to the thread that asks for it, and their ends can
// be waited for with a deadline.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

// Starts a thread with every signal blocked but those of faults. `name` has at most 15 characters.
std::thread StartThread(const char* name, std::function<void()> body);

// One long-lived thread of the daemon. Its owner starts and joins it.
class NamedThread {
public:
    explicit NamedThread(const char* name) : name_(name), state_(std::make_shared<State>()) {}
    ~NamedThread() { Join(SteadyTime::max()); }
    NamedThread(const NamedThread&) = delete;
    NamedThread& operator=(const NamedThread&) = delete;

    void Start(std::function<void()> body);
    // True when the thread has ended, or never ran. False when it still runs at `end`: it is then
    // detached, and everything that it uses must live until the process ends.
    bool Join(SteadyTime end);
    const char* GetName() const { return name_; }

private:
    struct State {
        Mutex mutex;
        Condition ended;
        bool hasEnded = false;  // guarded by mutex
    };

    const char* const name_;
    const std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace ProcMgr
