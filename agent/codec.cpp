#include "agent/codec.h"

#include <sys/un.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "wire/little_endian.h"

namespace ProcMgr::Agent {
namespace {

using Message::AppStateInfo;
using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;
using Wire::LoadLittleEndian;
using Wire::StoreLittleEndian;

constexpr uint32_t MAGIC = 0x4158554D;
constexpr size_t KIND_OFFSET = 4;
constexpr size_t SEQUENCE_OFFSET = 8;

constexpr size_t RECORD_SIZE_OFFSET = offsetof(RequestMsg, size);
constexpr size_t RECORD_DATA_OFFSET = offsetof(RequestMsg, data);

constexpr char SEPARATOR = '#';
// The shortest item of a state report: an empty name and four numbers of one digit.
constexpr size_t ITEM_MIN = std::string_view("#0#0#0#0#").size();

constexpr size_t NAME_MAX_LENGTH = 127;
constexpr std::string_view PIPE_DIRECTORY = "/run/muxa/pipe/";
constexpr std::string_view SERVER_DIRECTORY = "/run/muxa/server/";

// Not by isalnum: the answer must not depend on the service's locale.
bool IsPlain(char c) {
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return PLAIN.find(c) != std::string_view::npos;
}

// Takes the next field and its separator off `text`; false when no separator is left.
bool TakeField(std::string_view& text, std::string_view& field) {
    const size_t end = text.find(SEPARATOR);
    if (end == std::string_view::npos) {
        return false;
    }
    field = text.substr(0, end);
    text.remove_prefix(end + 1);
    return true;
}

bool TakeNumber(std::string_view& text, uint32_t& number) {
    std::string_view field;
    if (!TakeField(text, field)) {
        return false;
    }
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, number);
    return error == std::errc() && stop == end;
}

bool TakeItem(std::string_view& text, AppStateInfo& item) {
    std::string_view name;
    if (!TakeField(text, name)) {
        return false;
    }
    item.appName = name;
    return TakeNumber(text, item.pid) && TakeNumber(text, item.gid) &&
           TakeNumber(text, item.reportType) && TakeNumber(text, item.result);
}

std::string SocketPath(std::string_view directory, std::string_view name) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    if (name.empty() || name.size() > NAME_MAX_LENGTH || name == "." || name == "..") {
        return {};
    }
    std::string path(directory);
    for (const char c : name) {
        if (IsPlain(c)) {
            path += c;
            continue;
        }
        const auto byte = static_cast<uint8_t>(c);
        path += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
    }
    return path.size() < sizeof(sockaddr_un::sun_path) ? path : std::string();
}

void StoreHeader(PacketKind kind, uint64_t sequence, uint8_t* packet) {
    StoreLittleEndian(MAGIC, packet);
    StoreLittleEndian(static_cast<uint32_t>(kind), packet + KIND_OFFSET);
    StoreLittleEndian(sequence, packet + SEQUENCE_OFFSET);
}

}  // namespace

std::string PipePath(std::string_view serviceName) {
    return SocketPath(PIPE_DIRECTORY, serviceName);
}

std::string ServerPath(std::string_view serverName) {
    return SocketPath(SERVER_DIRECTORY, serverName);
}

std::vector<uint8_t> EncodePacket(PacketKind kind, uint64_t sequence,
                                  std::span<const uint8_t> body) {
    std::vector<uint8_t> packet(PACKET_HEADER_SIZE + body.size());
    StoreHeader(kind, sequence, packet.data());
    std::copy(body.begin(), body.end(), packet.begin() + PACKET_HEADER_SIZE);
    return packet;
}

RecordPacket EncodeRecordPacket(PacketKind kind, uint64_t sequence, const RequestMsg& record) {
    RecordPacket packet{};
    StoreHeader(kind, sequence, packet.data());
    uint8_t* const body = packet.data() + PACKET_HEADER_SIZE;
    StoreLittleEndian(record.type, body);
    StoreLittleEndian(record.size, body + RECORD_SIZE_OFFSET);
    std::memcpy(body + RECORD_DATA_OFFSET, record.data, PM_PIPE_BUF_MAX);
    return packet;
}

std::optional<Packet> DecodePacket(std::span<const uint8_t> bytes) {
    if (bytes.size() < PACKET_HEADER_SIZE || bytes.size() > PACKET_MAX ||
        LoadLittleEndian<uint32_t>(bytes.data()) != MAGIC) {
        return std::nullopt;
    }
    const auto kind =
        static_cast<PacketKind>(LoadLittleEndian<uint32_t>(bytes.data() + KIND_OFFSET));
    if (kind < PacketKind::REQUEST || kind > PacketKind::RESPONSE) {
        return std::nullopt;
    }
    return Packet{kind, LoadLittleEndian<uint64_t>(bytes.data() + SEQUENCE_OFFSET),
                  bytes.subspan(PACKET_HEADER_SIZE)};
}

std::optional<RequestMsg> DecodeRecord(std::span<const uint8_t> body) {
    if (body.size() != sizeof(RequestMsg)) {
        return std::nullopt;
    }
    RequestMsg record;
    record.type = LoadLittleEndian<uint32_t>(body.data());
    record.size = LoadLittleEndian<uint64_t>(body.data() + RECORD_SIZE_OFFSET);
    if (record.size > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    std::memcpy(record.data, body.data() + RECORD_DATA_OFFSET, PM_PIPE_BUF_MAX);
    return record;
}

RequestMsg MakeStateReport(BaseServiceStateType state) {
    // One state, then the number of it.
    const std::string text =
        std::string("1") + SEPARATOR + std::to_string(static_cast<uint32_t>(state)) + SEPARATOR;
    RequestMsg record;
    record.type = Message::BASESERVICE_STATE_REPORT;
    record.size = text.size();
    std::memcpy(record.data, text.data(), text.size());
    return record;
}

std::optional<std::vector<AppStateInfo>> DecodeAppStates(const RequestMsg& record) {
    if (record.type != Message::APP_STATE_REPORT || record.size > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    std::string_view text(reinterpret_cast<const char*>(record.data),
                          static_cast<size_t>(record.size));
    uint32_t count = 0;
    // The count is the sender's word: no more items than the bytes can hold are made room for.
    if (!TakeNumber(text, count) || count > text.size() / ITEM_MIN) {
        return std::nullopt;
    }
    std::vector<AppStateInfo> items(count);
    const bool isWhole = std::all_of(items.begin(), items.end(),
                                     [&](AppStateInfo& item) { return TakeItem(text, item); });
    return isWhole ? std::optional(std::move(items)) : std::nullopt;
}

}  // namespace ProcMgr::Agent
