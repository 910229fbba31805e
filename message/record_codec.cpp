#include "message/record_codec.h"

#include <algorithm>

#include "message/text_fields.h"
#include "wire/little_endian.h"

namespace ProcMgr::Message {
namespace {

constexpr size_t TYPE_OFFSET = offsetof(RequestMsg, type);
constexpr size_t SIZE_OFFSET = offsetof(RequestMsg, size);
constexpr size_t DATA_OFFSET = offsetof(RequestMsg, data);

}  // namespace

RecordBytes EncodeRecord(const RequestMsg& record) {
    RecordBytes bytes{};
    Wire::StoreLittleEndian(record.type, bytes.data() + TYPE_OFFSET);
    Wire::StoreLittleEndian(record.size, bytes.data() + SIZE_OFFSET);
    std::copy_n(record.data, PM_PIPE_BUF_MAX, bytes.data() + DATA_OFFSET);
    return bytes;
}

std::optional<RequestMsg> DecodeRecord(std::span<const uint8_t> bytes) {
    if (bytes.size() != sizeof(RequestMsg)) {
        return std::nullopt;
    }
    std::optional<RequestMsg> record(std::in_place);
    record->type = Wire::LoadLittleEndian<uint32_t>(bytes.data() + TYPE_OFFSET);
    record->size = Wire::LoadLittleEndian<uint64_t>(bytes.data() + SIZE_OFFSET);
    std::copy_n(bytes.data() + DATA_OFFSET, PM_PIPE_BUF_MAX, record->data);
    return record;
}

std::string_view PayloadOf(const RequestMsg& record) {
    return {reinterpret_cast<const char*>(record.data),
            std::min<uint64_t>(record.size, PM_PIPE_BUF_MAX)};
}

RequestMsg MakeRecord(RequestType type, std::string_view payload) {
    RequestMsg record;
    record.type = type;
    record.size = payload.size();
    std::copy(payload.begin(), payload.end(), record.data);
    return record;
}

void ItemGroups::Add(std::string_view item, size_t length) {
    if (groups_.empty() || length_ + length > GROUP_MAX || groups_.back().count == itemsMax_) {
        groups_.emplace_back();
        length_ = 0;
    }
    groups_.back().body += item;
    ++groups_.back().count;
    length_ += length;
}

std::string PayloadOf(const ItemGroup& group) {
    return std::to_string(group.count) + SEPARATOR + group.body;
}

}  // namespace ProcMgr::Message
