// The record as bytes, its payload, and the distribution of a list of encoded items over records.
// Called by the codecs of requests and reports, and by the daemon's channel/ and the client
// library, which send and receive records. Pure functions for any thread; none reads outside of its
// argument.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "message/request_msg.h"

namespace ProcMgr::Message {

using Records = std::vector<RequestMsg>;
using RecordBytes = std::array<uint8_t, sizeof(RequestMsg)>;

RecordBytes EncodeRecord(const RequestMsg& record);
// Nothing when `bytes` are not as many as a record has. The record's `size` may be any number.
std::optional<RequestMsg> DecodeRecord(std::span<const uint8_t> bytes);

// The bytes in use: at most PM_PIPE_BUF_MAX, even when the sender has given a larger `size`.
std::string_view PayloadOf(const RequestMsg& record);
// `payload`: at most PM_PIPE_BUF_MAX bytes.
RequestMsg MakeRecord(RequestType type, std::string_view payload);

// The encoded items of one record may have this many bytes together. The rest of the payload is for
// their number and its separator.
inline constexpr size_t GROUP_MAX = 3955;

struct ItemGroup {
    uint32_t count = 0;
    std::string body;  // the items, joined
};

// Distributes encoded items over groups, one for each record, in the order of the calls.
class ItemGroups {
public:
    // `itemsMax`: items of one group.
    explicit ItemGroups(uint32_t itemsMax = std::numeric_limits<uint32_t>::max())
        : itemsMax_(itemsMax) {}

    // Adds to the last group, or to a new one if the item does not fit there. `length`, the number
    // of bytes that the item is counted with, is at most GROUP_MAX.
    void Add(std::string_view item, size_t length);
    const std::vector<ItemGroup>& Groups() const { return groups_; }

private:
    const uint32_t itemsMax_;
    std::vector<ItemGroup> groups_;
    size_t length_ = 0;  // of the last group
};

// The payload of a record that carries the group.
std::string PayloadOf(const ItemGroup& group);

}  // namespace ProcMgr::Message
