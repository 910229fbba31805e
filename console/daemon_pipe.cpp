#include "console/daemon_pipe.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "agent/packet_socket.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Console {
namespace {

using std::chrono::milliseconds;

// The pause between two attempts to connect grows from the first to the last value, and is the
// first again after a connection that has lasted.
constexpr milliseconds FIRST_PAUSE{10};
constexpr milliseconds LAST_PAUSE{250};
constexpr milliseconds LASTING{1000};
// Packets that are received for one event, so that the clients get their turn.
constexpr int PACKETS_AT_ONCE = 64;

constexpr const char* ENDED = "process-manager has ended the connection";
constexpr const char* STUCK = "process-manager takes no requests";

Wire::SendResult SendRecord(int fd, const Message::RequestMsg& record) {
    return Wire::SendPacket(fd, {}, Message::EncodeRecord(record));
}

std::set<std::string> NamesOf(const std::map<std::string, uint32_t>& statuses) {
    std::set<std::string> names;
    for (const auto& [name, status] : statuses) {
        names.insert(name);
    }
    return names;
}

}  // namespace

DaemonPipe::DaemonPipe(const std::string& service, PipeEvents& events)
    : path_(Wire::PipePath(service)),
      events_(events),
      buffer_(Wire::PACKET_MAX),
      pause_(FIRST_PAUSE) {}

short DaemonPipe::GetEvents() const {
    return static_cast<short>(waiting_.empty() ? POLLIN : POLLIN | POLLOUT);
}

DaemonPipe::Time DaemonPipe::GetDeadline() const {
    if (!IsConnected()) {
        return nextConnect_;
    }
    return waiting_.empty() ? Time::max() : progress_ + STUCK_AFTER;
}

void DaemonPipe::OnReady(Time now) {
    if (IsConnected() && !(Receive() && Send(now))) {
        Lose(now, ENDED);
    }
}

void DaemonPipe::OnTime(Time now) {
    if (!IsConnected() && now >= nextConnect_) {
        Connect(now);
    } else if (IsConnected() && now >= GetDeadline()) {
        Lose(now, STUCK);
    }
}

void DaemonPipe::Connect(Time now) {
    fd_ = Agent::ConnectSocket(path_);
    if (!fd_.IsValid()) {
        Pause(now);
        return;
    }
    connected_ = now;
    progress_ = now;
    waiting_.push_back({0, Message::EncodeStateReport(BaseServiceStateType::RUNNING), {}});
    if (!Send(now)) {
        Lose(now, ENDED);
    }
}

void DaemonPipe::Lose(Time now, const char* reason) {
    fd_.Reset();
    waiting_.clear();
    queries_.clear();
    if (now - connected_ >= LASTING) {
        pause_ = FIRST_PAUSE;
    }
    Pause(now);
    events_.OnLost(reason);
}

void DaemonPipe::Pause(Time now) {
    nextConnect_ = now + pause_;
    pause_ = std::min(2 * pause_, LAST_PAUSE);
}

bool DaemonPipe::Send(Time now) {
    while (!waiting_.empty()) {
        Waiting& first = waiting_.front();
        switch (SendRecord(fd_.Get(), first.record)) {
            case Wire::SendResult::FULL:
                return true;
            case Wire::SendResult::BROKEN:
                return false;
            case Wire::SendResult::SENT:
                break;
        }
        progress_ = now;
        const uint64_t client = first.names.empty() ? 0 : first.client;
        if (client != 0) {
            queries_.push_back({client, std::move(first.names)});
        }
        waiting_.pop_front();
        if (client != 0) {
            events_.OnSent(client);
        }
    }
    return true;
}

bool DaemonPipe::Receive() {
    for (int i = 0; i < PACKETS_AT_ONCE; ++i) {
        Wire::Packet packet;
        switch (Wire::ReceivePacket(fd_.Get(), buffer_, packet)) {
            case Wire::ReceiveResult::NONE:
                return true;
            case Wire::ReceiveResult::ENDED:
                return false;
            case Wire::ReceiveResult::PACKET:
                break;
        }
        // What is no record is ignored: a later version of the daemon may send it.
        if (const auto record = Message::DecodeRecord(packet.body)) {
            Handle(*record);
        }
    }
    return true;
}

void DaemonPipe::Handle(const Message::RequestMsg& record) {
    if (const auto statuses = Message::DecodeDetailStatus(record)) {
        HandleAnswer(*statuses);
        return;
    }
    const auto reports = Message::DecodeAppStates(record);
    for (const auto& report : reports.value_or(std::vector<Message::AppStateInfo>())) {
        events_.OnReport(report, queries_.empty() ? 0 : queries_.front().client);
    }
}

// Answers come in the order of the queries. One that the daemon has dropped is skipped.
void DaemonPipe::HandleAnswer(const std::map<std::string, uint32_t>& statuses) {
    const std::set<std::string> names = NamesOf(statuses);
    const auto query = std::find_if(queries_.begin(), queries_.end(),
                                    [&](const Query& other) { return other.names == names; });
    if (query == queries_.end()) {
        return;
    }
    const uint64_t client = query->client;
    queries_.erase(queries_.begin(), query + 1);
    events_.OnAnswer(client, statuses);
}

bool DaemonPipe::Post(uint64_t client, const Message::Records& records,
                      const std::vector<std::string>& names, Time now) {
    if (!IsConnected() || waiting_.size() + records.size() > QUEUE_MAX ||
        queries_.size() >= QUEUE_MAX) {
        return false;
    }
    if (waiting_.empty()) {
        progress_ = now;
    }
    for (const Message::RequestMsg& record : records) {
        waiting_.push_back({client, record, {}});
    }
    waiting_.back().names = {names.begin(), names.end()};
    if (!Send(now)) {
        Lose(now, ENDED);
    }
    return true;
}

void DaemonPipe::Forget(uint64_t client) {
    std::erase_if(waiting_, [=](const Waiting& waiting) { return waiting.client == client; });
}

void DaemonPipe::ReportEnd() {
    if (IsConnected()) {
        SendRecord(fd_.Get(), Message::EncodeStateReport(BaseServiceStateType::TERMINATING));
    }
}

}  // namespace ProcMgr::Console
