// What tests play at the daemon's other ends: owners at their pipes, processes of other users, and
// a socket on which services say that they run.
#pragma once

#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/packet_socket.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "tests/e2e/e2e_fixture.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

// One connection to the pipe of a service. What it takes in one go is handed out report by report.
class RawOwner {
public:
    explicit RawOwner(std::string name) : name_(std::move(name)) {}
    ~RawOwner() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    RawOwner(const RawOwner&) = delete;
    RawOwner& operator=(const RawOwner&) = delete;

    // Waits for the pipe and says that the service runs.
    bool Attach() {
        const std::string path = Wire::PipePath(name_);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
        while (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return Send(3, "1#2#");
    }
    bool Send(uint32_t type, const std::string& payload) {
        ProcMgr::Message::RequestMsg record;
        record.type = type;
        record.size = payload.size();
        std::memcpy(record.data, payload.data(), std::min(payload.size(), sizeof(record.data)));
        return Send(record);
    }
    bool Send(const ProcMgr::Message::RequestMsg& record) {
        const auto body = ProcMgr::Message::EncodeRecord(record);
        std::vector<uint8_t> packet(Wire::PACKET_HEADER_SIZE + body.size());
        Wire::EncodePacketHeader({}, std::span(packet).first<Wire::PACKET_HEADER_SIZE>());
        std::copy(body.begin(), body.end(), packet.begin() + Wire::PACKET_HEADER_SIZE);
        return SendBytes(packet.data(), packet.size());
    }
    bool SendBytes(const void* data, size_t size) {
        return send(fd_, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }

    // The next report, "APP TYPE", or the answer of a query, "APP=STATUS,APP=STATUS"; empty when
    // none comes.
    std::string Next(std::chrono::milliseconds patience = PATIENCE) {
        if (pending_.empty() && !Receive(patience)) {
            return {};
        }
        std::string report = pending_.front();
        pending_.erase(pending_.begin());
        return report;
    }
    std::vector<std::string> Next(size_t count) {
        std::vector<std::string> reports;
        while (reports.size() < count) {
            reports.push_back(Next());
            if (reports.back().empty()) {
                break;
            }
        }
        return reports;
    }
    uint32_t LastPid() const { return lastPid_; }
    // Takes all that comes until nothing has come for a second. By name: the type told last.
    std::map<std::string, std::string> LastWords() {
        std::map<std::string, std::string> words;
        for (std::string report; !(report = Next(std::chrono::seconds(1))).empty();) {
            const size_t blank = report.find(' ');
            words[report.substr(0, blank)] = report.substr(blank + 1);
        }
        return words;
    }
    // Sends fail from then on when the daemon takes nothing for this long.
    void SetSendTimeout(std::chrono::milliseconds timeout) const {
        const timeval time{timeout.count() / 1000, timeout.count() % 1000 * 1000};
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
    }

private:
    bool Receive(std::chrono::milliseconds patience) {
        std::vector<uint8_t> buffer(Wire::PACKET_MAX);
        pollfd readable{fd_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(patience.count())) <= 0) {
            return false;
        }
        Wire::Packet packet;
        if (Wire::ReceivePacket(fd_, buffer, packet) != Wire::ReceiveResult::PACKET) {
            return false;
        }
        const auto record = ProcMgr::Message::DecodeRecord(packet.body);
        if (!record) {
            return false;
        }
        if (const auto states = ProcMgr::Message::DecodeAppStates(*record)) {
            for (const auto& state : *states) {
                pending_.push_back(state.appName + " " + std::to_string(state.reportType));
                lastPid_ = state.pid;
            }
        } else {
            pending_.push_back(DecodeStatus(*record));
        }
        return true;
    }
    static std::string DecodeStatus(const ProcMgr::Message::RequestMsg& record) {
        const auto statusByName = ProcMgr::Message::DecodeDetailStatus(record);
        EXPECT_TRUE(statusByName) << "type " << record.type;
        std::string text;
        for (const auto& [name, status] :
             statusByName.value_or(std::map<std::string, uint32_t>())) {
            text += (text.empty() ? "" : ",") + name + "=" + std::to_string(status);
        }
        return text;
    }

    const std::string name_;
    int fd_ = -1;
    uint32_t lastPid_ = 0;
    std::vector<std::string> pending_;
};

// A child of the test, of any user. Killed at the latest when the object goes.
class HelperProcess {
public:
    // `run` yields the exit status.
    HelperProcess(uid_t uid, gid_t gid, const std::function<int()>& run) : pid_(fork()) {
        if (pid_ == 0) {
            const bool isOther = setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0;
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // after the change of users, which undoes it
            _exit(isOther ? run() : 127);
        }
    }
    ~HelperProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
    }
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;

    // The exit status; -1 when a signal ended it.
    int Wait() {
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            pid_ = -1;
        }
        return status_;
    }

private:
    pid_t pid_;
    int status_ = -1;
};

// Where the processes of one service announce themselves by "hello PATH".
class Beacon {
public:
    explicit Beacon(std::string path) : path_(std::move(path)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path_.data(), path_.size());
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(fd_, SOMAXCONN) != 0 || chmod(path_.c_str(), 0666) != 0) {
            ADD_FAILURE() << path_ << ": " << strerror(errno);
        }
    }
    ~Beacon() { close(fd_); }
    Beacon(const Beacon&) = delete;
    Beacon& operator=(const Beacon&) = delete;

    const std::string& Path() const { return path_; }
    // The next process, by the number that the test knows it by; 0 when none comes.
    pid_t Next(std::chrono::milliseconds patience = PATIENCE) const {
        pollfd readable{fd_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(patience.count())) <= 0) {
            return 0;
        }
        const ProcMgr::Agent::UniqueFd peer(accept(fd_, nullptr, nullptr));
        ucred credentials{};
        socklen_t size = sizeof(credentials);
        getsockopt(peer.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size);
        return credentials.pid;
    }

private:
    const std::string path_;
    int fd_ = -1;
};
