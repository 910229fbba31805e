// The mutex, locks and condition of the daemon, the platform library and the client library: those
// of the standard library with Clang's thread-safety attributes. Checked builds enforce a rule: a
// thread that may have to wait for something else than a mutex (a file system, a child, a library,
// a peer, the logger) holds no mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#if defined(__clang__)
#define PROCMGR_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define PROCMGR_THREAD_ATTRIBUTE(x)
#endif
#define PROCMGR_CAPABILITY(x) PROCMGR_THREAD_ATTRIBUTE(capability(x))
#define PROCMGR_SCOPED_CAPABILITY PROCMGR_THREAD_ATTRIBUTE(scoped_lockable)
#define PROCMGR_GUARDED_BY(x) PROCMGR_THREAD_ATTRIBUTE(guarded_by(x))
#define PROCMGR_REQUIRES(...) PROCMGR_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define PROCMGR_EXCLUDES(...) PROCMGR_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define PROCMGR_ACQUIRE(...) PROCMGR_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define PROCMGR_RELEASE(...) PROCMGR_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define PROCMGR_UNCHECKED PROCMGR_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace Wire {

#if defined(PROCMGR_CHECKED)
// Counts the mutexes that the calling thread holds.
class HeldMutexes {
public:
    static void Add() { ++count; }
    static void Remove() { --count; }
    static int Count() { return count; }

private:
    inline static thread_local int count = 0;
};
// Ends the process, naming `what`, when the calling thread holds more than `allowed` mutexes.
void CheckHeldMutexes(const char* what, int allowed);
#endif

// Marks a place where the calling thread may have to wait, for `what`. Checked builds
// (PROCMGR_CHECKED) end with a message when the thread holds a mutex there.
inline void MayWait([[maybe_unused]] const char* what) {
#if defined(PROCMGR_CHECKED)
    CheckHeldMutexes(what, 0);
#endif
}

class PROCMGR_CAPABILITY("mutex") Mutex {
public:
    void lock() PROCMGR_ACQUIRE() {
        mutex_.lock();
#if defined(PROCMGR_CHECKED)
        HeldMutexes::Add();
#endif
    }
    void unlock() PROCMGR_RELEASE() {
#if defined(PROCMGR_CHECKED)
        HeldMutexes::Remove();
#endif
        mutex_.unlock();
    }

private:
    friend class Condition;
    std::mutex mutex_;
};

class PROCMGR_SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(Mutex& mutex) PROCMGR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~LockGuard() PROCMGR_RELEASE() { mutex_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    Mutex& mutex_;
};

// A lock that can be released and taken again.
class PROCMGR_SCOPED_CAPABILITY UniqueLock {
public:
    explicit UniqueLock(Mutex& mutex) PROCMGR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~UniqueLock() PROCMGR_RELEASE() {
        if (isHeld_) {
            mutex_.unlock();
        }
    }
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void Lock() PROCMGR_ACQUIRE() {
        mutex_.lock();
        isHeld_ = true;
    }
    void Unlock() PROCMGR_RELEASE() {
        isHeld_ = false;
        mutex_.unlock();
    }

private:
    friend class Condition;
    Mutex& mutex_;
    bool isHeld_ = true;
};

// The waiting thread holds the mutex of `lock` and no other; checked builds enforce that.
class Condition {
public:
    void NotifyOne() { condition_.notify_one(); }
    void NotifyAll() { condition_.notify_all(); }

    template <typename Predicate>
    void Wait(UniqueLock& lock, Predicate predicate) PROCMGR_UNCHECKED {
        Adopted adopted(lock);
        condition_.wait(adopted.native, std::move(predicate));
    }
    // False when the predicate was still false at `end`.
    template <typename Time, typename Predicate>
    bool WaitUntil(UniqueLock& lock, Time end, Predicate predicate) PROCMGR_UNCHECKED {
        Adopted adopted(lock);
        return condition_.wait_until(adopted.native, end, std::move(predicate));
    }
    template <typename Time>
    void WaitUntil(UniqueLock& lock, Time end) PROCMGR_UNCHECKED {
        Adopted adopted(lock);
        condition_.wait_until(adopted.native, end);
    }

private:
    // Lends the held mutex to the standard library for the time of one wait.
    struct Adopted {
        explicit Adopted(UniqueLock& lock) : native(lock.mutex_.mutex_, std::adopt_lock) {
#if defined(PROCMGR_CHECKED)
            CheckHeldMutexes("a condition", 1);
#endif
        }
        ~Adopted() {
            native.release();
        }
        Adopted(const Adopted&) = delete;
        Adopted& operator=(const Adopted&) = delete;
        std::unique_lock<std::mutex> native;
    };

    std::condition_variable condition_;
};

}  // namespace Wire
