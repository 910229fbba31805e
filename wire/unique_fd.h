// Owns one descriptor. Used by the platform libraries, the daemon, the client library, and the
// services that link the client library.
#pragma once

#include <unistd.h>

#include <utility>

namespace Wire {

// Holds no descriptor while the number is negative. Not thread-safe.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    bool IsValid() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int Release() { return std::exchange(fd_, -1); }
    void Reset() {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

}  // namespace Wire
