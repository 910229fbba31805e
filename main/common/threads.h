// Starts and joins the daemon's threads. A thread is started with all signals but the fault signals
// blocked, so that the kernel delivers signals to the main thread; a join has a deadline.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

// Starts a thread with every signal blocked but the fault signals. `name`: of the thread, at most
// 15 characters; must live as long as the thread.
std::thread StartThread(const char* name, std::function<void()> body);

// One long-lived thread of the daemon. The thread that owns the object starts and joins it.
class NamedThread {
public:
    explicit NamedThread(const char* name) : name_(name), state_(std::make_shared<State>()) {}
    ~NamedThread() { Join(SteadyTime::max()); }
    NamedThread(const NamedThread&) = delete;
    NamedThread& operator=(const NamedThread&) = delete;

    void Start(std::function<void()> body);
    // True when the thread has ended or has never been started. False when it still runs at `end`:
    // the thread is then detached, and everything that it uses must live until the process ends.
    bool Join(SteadyTime end);
    const char* GetName() const { return name_; }

private:
    struct State {
        Mutex mutex;
        Condition ended;
        bool hasEnded PROCMGR_GUARDED_BY(mutex) = false;
    };

    const char* const name_;
    const std::shared_ptr<State> state_;  // shared with the thread, which may outlive this object
    std::thread thread_;
};

}  // namespace ProcMgr
