#include "console/console_server.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "console/console_records.h"
#include "console/console_request.h"

namespace ProcMgr::Console {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds ACCEPT_PAUSE{100};
// How often a console without its parent looks whether another one has taken its place.
constexpr milliseconds ORPHAN_PERIOD{1000};
// The places of poll().
constexpr size_t STOP = 0;
constexpr size_t SOCKET = 1;
constexpr size_t PIPE = 2;
constexpr size_t FIRST_CLIENT = 3;

// The user of a client that is turned away.
constexpr auto NOBODY = static_cast<uid_t>(-1);

constexpr const char* NO_PIPE = "process-manager does not run, or has not opened the pipe yet";

int MillisecondsUntil(steady_clock::time_point deadline) {
    if (deadline == steady_clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, INT_MAX));
}

}  // namespace

ConsoleServer::ConsoleServer(Wire::GroupSocket& socket, pid_t parent)
    : socket_(socket), pipe_(OWNER, *this), now_(steady_clock::now()), parent_(parent) {}

// The pipe and the state of the service belong to the console of the new daemon, if there is one:
// it is looked for before each attempt to connect, and the end is not reported then.
void ConsoleServer::Run(int stopFd) {
    while (!IsLeftBehind()) {
        pipe_.OnTime(now_);
        const std::vector<pollfd> found = Wait(stopFd);
        now_ = steady_clock::now();
        if (found[STOP].revents != 0) {
            break;
        }
        if (found[PIPE].revents != 0) {
            pipe_.OnReady(now_);
        }
        ServeClients(found);
        if (found[SOCKET].revents != 0) {
            Accept();
        }
        CheckTime();
        RemoveOver();
    }
    EndSessions("pm-console ends");
    if (!IsLeftBehind()) {
        pipe_.ReportEnd();
    }
}

bool ConsoleServer::IsLeftBehind() const {
    return getppid() != parent_ && socket_.IsReplaced();
}

std::vector<pollfd> ConsoleServer::Wait(int stopFd) {
    const bool isAccepting = now_ >= nextAccept_;
    std::vector<pollfd> waited = {{stopFd, POLLIN, 0},
                                  {isAccepting ? socket_.GetFd() : -1, POLLIN, 0},
                                  {pipe_.GetFd(), pipe_.GetEvents(), 0}};
    for (const auto& [id, client] : clients_) {
        waited.push_back({client.GetFd(), client.GetEvents(), 0});
    }
    if (poll(waited.data(), waited.size(), MillisecondsUntil(GetDeadline())) < 0) {
        for (pollfd& one : waited) {
            one.revents = 0;
        }
    }
    return waited;
}

ConsoleServer::Time ConsoleServer::GetDeadline() const {
    Time deadline = pipe_.GetDeadline();
    for (const auto& [id, client] : clients_) {
        deadline = std::min(deadline, client.GetDeadline());
    }
    if (now_ < nextAccept_) {
        deadline = std::min(deadline, nextAccept_);
    }
    return getppid() == parent_ ? deadline : std::min(deadline, now_ + ORPHAN_PERIOD);
}

void ConsoleServer::ServeClients(const std::vector<pollfd>& found) {
    size_t place = FIRST_CLIENT;
    for (auto& [id, client] : clients_) {
        const short events = found.at(place++).revents;
        if ((events & (POLLHUP | POLLERR)) != 0) {
            client.GiveUp();
        } else if ((events & POLLIN) != 0) {
            if (const auto line = client.Receive()) {
                HandleRequest(id, client, *line);
            }
        }
    }
}

void ConsoleServer::Accept() {
    for (size_t i = 0; i < Wire::CLIENTS_MAX; ++i) {
        Wire::UniqueFd fd = socket_.Accept();
        if (fd.IsValid()) {
            Admit(std::move(fd));
            continue;
        }
        // Without descriptors the client stays in the queue, and poll() finds it again at once.
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            syslog(LOG_ERR, "a client cannot be accepted: %s", strerror(errno));
            nextAccept_ = now_ + ACCEPT_PAUSE;
        }
        return;
    }
}

void ConsoleServer::Admit(Wire::UniqueFd fd) {
    const std::optional<uid_t> user = socket_.PermittedUser(fd.Get());
    ClientConnection client(std::move(fd), user.value_or(NOBODY), now_);
    if (!user) {
        client.Send(DoneLine(Code::PERMISSION, "only root and the group of the socket may do this"),
                    now_);
    } else if (!Wire::HasPlace(*user, GetUsers())) {
        client.Send(DoneLine(Code::BUSY, "pm-console serves " + std::to_string(clients_.size()) +
                                             " clients already"),
                    now_);
    } else {
        clients_.try_emplace(++lastClient_, std::move(client));
    }
}

std::vector<uid_t> ConsoleServer::GetUsers() const {
    std::vector<uid_t> users;
    for (const auto& [id, client] : clients_) {
        users.push_back(client.GetUser());
    }
    return users;
}

void ConsoleServer::HandleRequest(uint64_t id, ClientConnection& client, const std::string& line) {
    try {
        if (!Wire::IsTrusted(client.GetUser()) && !limit_.Take(client.GetUser(), now_)) {
            client.Send(DoneLine(Code::BUSY, "too many requests, try again in a second"), now_);
        } else if (ParsedRequest parsed = ParseRequest(line); parsed.request) {
            Begin(id, client, std::move(*parsed.request));
            return;
        } else {
            client.Send(DoneLine(Code::REQUEST, parsed.error), now_);
        }
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "a request has failed: %s", error.what());
        client.GiveUp();
    }
    client.Finish();
}

void ConsoleServer::Begin(uint64_t id, ClientConnection& client, Request request) {
    const auto records = MakeRecords(request);
    const std::vector<std::string> names = QueryNames(request);
    std::string error;
    if (!records) {
        error = DoneLine(Code::REQUEST,
                         "the names or values are too long for one record of the daemon");
    } else if (!pipe_.IsConnected()) {
        error = DoneLine(Code::NO_DAEMON, NO_PIPE);
    } else {
        ConsoleSession& session = client.Begin(std::move(request), now_);
        if (!pipe_.Post(id, *records, names, now_)) {
            error = session.Fail(Code::NO_DAEMON, "process-manager takes no requests");
        }
    }
    if (!error.empty()) {
        client.Send(error, now_);
        client.Finish();
    }
}

void ConsoleServer::Tell(ClientConnection& client, const std::string& lines) {
    if (!lines.empty()) {
        client.Send(lines, now_);
    }
    const ConsoleSession* session = client.Session();
    if (session != nullptr && session->IsDone()) {
        client.Finish();
    }
}

void ConsoleServer::OnSent(uint64_t id) {
    const auto client = clients_.find(id);
    if (client != clients_.end() && client->second.Session() != nullptr) {
        Tell(client->second, client->second.Session()->OnSent());
    }
}

void ConsoleServer::OnReport(const Message::AppStateInfo& report, uint64_t next) {
    for (auto& [id, client] : clients_) {
        if (client.Session() != nullptr) {
            Tell(client, client.Session()->OnReport(report, id == next));
        }
    }
}

void ConsoleServer::OnAnswer(uint64_t id, const std::map<std::string, uint32_t>& statuses) {
    const auto client = clients_.find(id);
    if (client != clients_.end() && client->second.Session() != nullptr) {
        Tell(client->second, client->second.Session()->OnAnswer(statuses, now_));
    }
}

void ConsoleServer::OnLost(const char* reason) {
    EndSessions(reason);
}

void ConsoleServer::EndSessions(const std::string& error) {
    for (auto& [id, client] : clients_) {
        if (client.Session() != nullptr && !client.Session()->IsDone()) {
            Tell(client, client.Session()->Fail(Code::NO_DAEMON, error));
        }
    }
}

void ConsoleServer::CheckTime() {
    for (auto& [id, client] : clients_) {
        client.OnTime(now_);
        if (client.Session() != nullptr && !client.Session()->IsDone()) {
            Tell(client, client.Session()->OnTime(now_));
        }
    }
}

void ConsoleServer::RemoveOver() {
    for (auto entry = clients_.begin(); entry != clients_.end();) {
        if (entry->second.IsOver()) {
            pipe_.Forget(entry->first);
            entry = clients_.erase(entry);
        } else {
            ++entry;
        }
    }
}

}  // namespace ProcMgr::Console
