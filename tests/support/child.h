// Child processes of tests: a forked copy of the test that runs a body, or only waits for a signal.
#pragma once

#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <utility>

namespace ProcMgr::Tests {

// The body of a child that only waits for a signal.
inline int Pause() {
    for (;;) {
        pause();
    }
}

// One child. It has the default signal dispositions and no blocked signals, and the kernel kills it
// when the test's thread ends. One thread uses the object.
class Child {
public:
    // Forks; the child runs `body` and exits with the result. An exception aborts it.
    explicit Child(const std::function<int()>& body = Pause) {
        // Blocked until the child has its own dispositions: an early signal must not run a handler
        // that the test has installed.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        pid_ = fork();
        if (pid_ == 0) {
            Run(body);
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    // As above, as this user and group and without supplementary groups. Exits with 127 when the
    // user cannot be changed.
    Child(uid_t uid, gid_t gid, const std::function<int()>& body)
        : Child([&] {
              const bool isChanged =
                  setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0;
              prctl(PR_SET_PDEATHSIG, SIGKILL);  // the change of users has reset it
              return isChanged ? body() : 127;
          }) {}
    ~Child() { Kill(); }
    Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)), status_(other.status_) {}
    Child& operator=(Child&&) = delete;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The process; -1 after it has been reaped.
    pid_t Pid() const { return pid_; }

    // Waits until the child has ended, reaps it and returns its raw wait status.
    int Wait() {
        if (pid_ > 0 && waitpid(pid_, &status_, 0) == pid_) {
            pid_ = -1;
        }
        return status_;
    }
    // As Wait(), but the exit code; -1 when a signal ended the child.
    int ExitCode() {
        const int status = Wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Kills and reaps the child unless that has happened. Returns its raw wait status.
    int Kill() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
        }
        return Wait();
    }
    // Waits until the child has stopped itself with raise(SIGSTOP), by which it reports to the test
    // that it is ready. False when it has ended; it can be reaped then.
    bool WaitForStop() const {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT) == 0 &&
               info.si_code == CLD_STOPPED;
    }
    // Whether the child has not ended yet. Does not reap it.
    bool IsRunning() const {
        siginfo_t info{};
        return pid_ > 0 &&
               waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

private:
    [[noreturn]] static void Run(const std::function<int()>& body) noexcept {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The handlers of a sanitizer, of SIGSEGV and the like, stay.
        for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGTERM, SIGCHLD, SIGCONT, SIGUSR1,
                                 SIGUSR2, SIGALRM, SIGQUIT}) {
            signal(number, SIG_DFL);
        }
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        _exit(body());
    }

    pid_t pid_ = -1;
    int status_ = -1;
};

}  // namespace ProcMgr::Tests
