// A status socket that serves a document from a file, and runs of the real pmctl against it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/raw_peer.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Tests {

inline std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// The document of a file that has one service, application or event on each line.
class Document {
public:
    explicit Document(const std::string& name) : text_(ReadFile(TEST_DATA "/" + name)) {}

    // One line, as the daemon sends it.
    std::string All() const { return Joined(text_); }
    // As All(), with `from` replaced everywhere.
    std::string With(const std::string& from, const std::string& to) const {
        return Replaced(All(), from, to);
    }
    // The answer to "status NAME".
    std::string Of(const std::string& name) const {
        return Filtered("{\"name\":\"", [&name](const std::string& rest) {
            return rest.starts_with(name + "\",\"kind\"");
        });
    }
    // The answer to "events NUMBER".
    std::string Since(int64_t number) const {
        return Filtered("{\"number\":",
                        [number](const std::string& rest) { return std::stoll(rest) > number; });
    }
    std::string Answer(const std::string& request) const {
        if (request.starts_with("status ")) {
            return Of(request.substr(7));
        }
        return request.starts_with("events ") ? Since(std::stoll(request.substr(7))) : All();
    }

private:
    static std::string Joined(std::string text) {
        std::replace(text.begin(), text.end(), '\n', ' ');
        return text + '\n';
    }
    // Without the lines that begin with `begin` and do not go on as wanted.
    std::string Filtered(const std::string& begin,
                         const std::function<bool(const std::string&)>& isWanted) const {
        std::istringstream lines(text_);
        std::string kept;
        for (std::string line; std::getline(lines, line);) {
            const bool isItem = line.starts_with(" " + begin);
            const bool isEnd = line.starts_with("]");
            if (isEnd && kept.back() == ',') {
                kept.pop_back();  // behind the last item that is kept
            }
            if (!isItem || isWanted(line.substr(1 + begin.size()))) {
                kept += line + (isItem && line.back() != ',' ? "," : "");
            }
        }
        return kept + '\n';
    }

    const std::string text_;
};

// Answers every request on the socket with what `reply` makes of it, and closes the connection.
class FakeDaemon {
public:
    using Reply = std::function<std::string(const std::string& request)>;

    FakeDaemon(const std::string& path, Reply reply)
        : reply_(std::move(reply)), socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = SocketAddress(path);
        unlink(path.c_str());
        if (bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
                0 ||
            listen(socket_.Get(), 16) != 0) {
            throw std::runtime_error(path + ": " + strerror(errno));
        }
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeDaemon() {
        shutdown(socket_.Get(), SHUT_RDWR);
        thread_.join();
    }

private:
    void Serve() {
        for (;;) {
            const Wire::UniqueFd client(accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client.IsValid()) {
                return;
            }
            std::string request;
            for (char c = 0; read(client.Get(), &c, 1) == 1 && c != '\n';) {
                request += c;
            }
            const std::string answer = reply_(request);
            for (size_t sent = 0; sent < answer.size();) {
                const ssize_t size =
                    send(client.Get(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
                if (size <= 0) {
                    break;
                }
                sent += static_cast<size_t>(size);
            }
        }
    }

    const Reply reply_;
    Wire::UniqueFd socket_;
    std::thread thread_;
};

// Executes pmctl in the child of a test; returns only when that fails.
inline int ExecutePmctl(const std::string& socket, const std::vector<std::string>& arguments) {
    std::vector<std::string> words{PMCTL, "--socket", socket};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    setenv("TZ", "UTC", 1);
    setenv("TERM", "xterm", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    execv(PMCTL, argv.data());
    return 127;
}

struct Outcome {
    int code = -1;
    std::string out;
    std::string error;
};

// The fixture of all tests of commands: a directory with the socket of a fake daemon.
class PmctlTest : public testing::Test {
protected:
    // Runs pmctl to its end.
    Outcome Run(const std::vector<std::string>& arguments) const {
        Child child = Start(arguments);
        const int code = child.ExitCode();
        return {code, ReadFile(directory_ / "out"), ReadFile(directory_ / "error")};
    }
    // Starts pmctl with its output in the files "out" and "error".
    Child Start(const std::vector<std::string>& arguments) const {
        return Child([&] {
            Redirect(STDOUT_FILENO, directory_ / "out");
            Redirect(STDERR_FILENO, directory_ / "error");
            return ExecutePmctl(Socket(), arguments);
        });
    }
    void Serve(FakeDaemon::Reply reply) {
        daemon_.reset();
        daemon_ = std::make_unique<FakeDaemon>(Socket(), std::move(reply));
    }
    std::string Socket() const { return directory_ / "status.sock"; }

    const TempDirectory directory_;

private:
    static void Redirect(int fd, const std::string& path) {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(file, fd);
    }

    std::unique_ptr<FakeDaemon> daemon_;
};

}  // namespace ProcMgr::Tests
