// The daemon's peers that the test plays: owners at their pipes, and a socket on which the
// processes of a service announce themselves.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "message/record_codec.h"
#include "message/report_codec.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/support/raw_peer.h"
#include "wire/packet.h"
#include "wire/socket_paths.h"

using ProcMgr::Tests::RawPeer;

// The bytes of one packet.
inline std::vector<uint8_t> EncodePacket(const Wire::PacketHeader& header,
                                         std::span<const uint8_t> body) {
    std::vector<uint8_t> packet(Wire::PACKET_HEADER_SIZE);
    Wire::EncodePacketHeader(header, std::span(packet).first<Wire::PACKET_HEADER_SIZE>());
    packet.insert(packet.end(), body.begin(), body.end());
    return packet;
}

// One connection to the pipe of a service. A record of several reports is returned report by
// report.
class RawOwner {
public:
    using Reports = std::map<std::string, std::string>;  // last report type by application

    explicit RawOwner(std::string name) : name_(std::move(name)) {}

    // Waits for the pipe and reports the service as RUNNING.
    bool Attach() {
        peer_ = RawPeer(Wire::PipePath(name_), PATIENCE);
        return peer_.IsValid() && Send(3, "1#2#");
    }
    bool Send(uint32_t type, const std::string& payload) const {
        ProcMgr::Message::RequestMsg record;
        record.type = type;
        record.size = payload.size();
        std::memcpy(record.data, payload.data(), std::min(payload.size(), sizeof(record.data)));
        return Send(record);
    }
    bool Send(const ProcMgr::Message::RequestMsg& record) const {
        const auto packet = EncodePacket({}, ProcMgr::Message::EncodeRecord(record));
        return peer_.Send(packet.data(), packet.size());
    }
    bool SendBytes(const std::string& packet) const { return peer_.Send(packet); }
    // Later sends fail when the daemon takes nothing for this long.
    void SetSendTimeout(std::chrono::milliseconds timeout) const {
        const timeval time{timeout.count() / 1000, timeout.count() % 1000 * 1000};
        setsockopt(peer_.Fd(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
    }

    // The next report, "APP TYPE", or the answer to a query, "APP=STATUS,APP=STATUS"; empty when
    // none comes within `patience`.
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
        while (reports.size() < count && (reports.empty() || !reports.back().empty())) {
            reports.push_back(Next());
        }
        return reports;
    }
    // Takes reports until `report` comes. False when it does not.
    bool WaitFor(const std::string& report) {
        std::string next;
        do {
            next = Next();
        } while (!next.empty() && next != report);
        return next == report;
    }
    // Takes reports until `isComplete` holds for them, or none comes. Returns the last of each.
    Reports ReadUntil(const std::function<bool(const Reports&)>& isComplete) {
        Reports last;
        for (std::string report; !isComplete(last) && !(report = Next()).empty();) {
            const size_t blank = report.find(' ');
            last[report.substr(0, blank)] = report.substr(blank + 1);
        }
        return last;
    }
    uint32_t LastPid() const { return lastPid_; }  // in the report received last

private:
    bool Receive(std::chrono::milliseconds patience) {
        const auto bytes = peer_.Receive(patience).value_or("");
        const auto packet = Wire::DecodePacket(
            std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
        const auto record = packet ? ProcMgr::Message::DecodeRecord(packet->body) : std::nullopt;
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
        const auto statuses = ProcMgr::Message::DecodeDetailStatus(record);
        EXPECT_TRUE(statuses) << "type " << record.type;
        std::string text;
        for (const auto& [name, status] : statuses.value_or(std::map<std::string, uint32_t>())) {
            text += (text.empty() ? "" : ",") + name + "=" + std::to_string(status);
        }
        return text;
    }

    const std::string name_;
    RawPeer peer_;
    uint32_t lastPid_ = 0;
    std::vector<std::string> pending_;
};

// The socket to which the processes of one service connect with the action "hello PATH".
class Beacon : public ProcMgr::Tests::RawListener {
public:
    using RawListener::RawListener;

    // The pid of the next process, in the namespace of the test; 0 when none comes.
    pid_t Next() const {
        const RawPeer peer = Accept();
        ucred credentials{};
        socklen_t size = sizeof(credentials);
        getsockopt(peer.Fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size);
        return credentials.pid;
    }
};
