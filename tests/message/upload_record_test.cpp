// The records of upload registration: exact bytes, the longest texts in both directions, and
// malformed records.
#include "message/upload_record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

namespace ProcMgr::Message {
namespace {

using Bytes = std::vector<uint8_t>;

const UploadRequest REQUEST = {
    0x01020304, "cam era\xC3\xBC", "/usr/bin/camera (deleted)", {"g1", "g2"}};

// From memory of exactly its length, so that the address sanitizer finds a read past the end.
UploadResult Decode(const Bytes& record, UploadRequest& out) {
    const auto copy = std::make_unique<uint8_t[]>(record.size());
    std::copy(record.begin(), record.end(), copy.get());
    return DecodeUploadRequest({copy.get(), record.size()}, out);
}

Bytes RecordOf(size_t length, std::initializer_list<std::pair<size_t, std::string_view>> texts) {
    Bytes record(length);
    for (const auto& [offset, text] : texts) {
        std::copy(text.begin(), text.end(), record.begin() + static_cast<ptrdiff_t>(offset));
    }
    return record;
}

void Fill(Bytes& record, size_t offset, size_t length, uint8_t byte = 'x') {
    std::fill_n(record.begin() + static_cast<ptrdiff_t>(offset), length, byte);
}

TEST(UploadRecord, HasTheseBytes) {
    EXPECT_EQ(EncodeUploadRequest(REQUEST), RecordOf(2192, {{0, {"\1\0\0\0\4\3\2\1\2\0\0\0", 12}},
                                                            {16, REQUEST.name},
                                                            {144, REQUEST.path},
                                                            {1168, "g1"},
                                                            {1232, "g2"}}));
    EXPECT_EQ(EncodeUploadResponse({UploadResult::NOT_THE_SENDER, {"g1"}}),
              RecordOf(1040, {{0, {"\1\0\0\0\3\0\0\0\1\0\0\0", 12}}, {16, "g1"}}));
}

TEST(UploadRecord, LongestTextsComeBackAndLongerOnesAreRefused) {
    const UploadRequest largest = {INT32_MAX, std::string(127, 'n'), "/" + std::string(1022, 'p'),
                                   std::vector(16, std::string(63, 'g'))};
    UploadRequest decoded{1, "old", "old", {"old"}};
    ASSERT_EQ(Decode(EncodeUploadRequest(largest).value(), decoded), UploadResult::REGISTERED);
    EXPECT_EQ(decoded, largest);
    const UploadResponse response{UploadResult::TOO_MANY, largest.groups};
    EXPECT_EQ(DecodeUploadResponse(EncodeUploadResponse(response).value()), response);

    const std::function<void(UploadRequest&)> changes[] = {
        [](auto& r) { r.name += 'n'; },          [](auto& r) { r.path += 'p'; },
        [](auto& r) { r.groups.back() += 'g'; }, [](auto& r) { r.groups.emplace_back("g"); },
        [](auto& r) { r.name[1] = '\0'; },       [](auto& r) { r.groups[1][1] = '\0'; },
    };
    for (size_t i = 0; i < std::size(changes); ++i) {
        UploadRequest changed = largest;
        changes[i](changed);
        EXPECT_FALSE(EncodeUploadRequest(changed)) << i;
    }
}

TEST(UploadRecord, MalformedRequestsAreRefused) {
    constexpr auto GOOD = UploadResult::REGISTERED;
    constexpr auto BAD = UploadResult::BAD_RECORD;
    constexpr auto OTHER = UploadResult::OTHER_VERSION;
    const struct {
        const char* what;
        std::function<void(Bytes&)> change;
        UploadResult result;
    } cases[] = {
        {"no record", [](auto& r) { r.clear(); }, BAD},
        {"part of a version", [](auto& r) { r.assign(3, 2); }, BAD},
        {"cut", [](auto& r) { r.pop_back(); }, BAD},
        {"longer", [](auto& r) { r.push_back(0); }, BAD},
        {"another version, and shorter", [](auto& r) { r.assign(4, 2); }, OTHER},
        {"pid 0", [](auto& r) { Fill(r, 4, 4, 0); }, BAD},
        {"pid -1", [](auto& r) { Fill(r, 4, 4, 0xFF); }, BAD},
        {"an empty group", [](auto& r) { r[8] = 3; }, BAD},
        {"17 groups", [](auto& r) { Fill(r, 1168, 1024), r[8] = 17; }, BAD},
        {"number of groups, high byte", [](auto& r) { r[11] = 0x80; }, BAD},
        {"a group without an end", [](auto& r) { Fill(r, 1232, 64); }, BAD},
        {"no name", [](auto& r) { r[16] = 0; }, BAD},
        {"a name without an end", [](auto& r) { Fill(r, 16, 128); }, BAD},
        {"a line end in the name", [](auto& r) { r[17] = '\n'; }, BAD},
        {"a delete in the name", [](auto& r) { r[17] = 0x7F; }, BAD},
        {"a path for a name", [](auto& r) { r[17] = '/'; }, BAD},
        {"a relative path", [](auto& r) { r[144] = 'x'; }, BAD},
        {"a path without an end", [](auto& r) { Fill(r, 145, 1023); }, BAD},
        {"ignored bytes", [](auto& r) { Fill(r, 12, 4), Fill(r, 100, 44), Fill(r, 1296, 896); },
         GOOD},
    };
    for (const auto& [what, change, result] : cases) {
        Bytes record = EncodeUploadRequest(REQUEST).value();
        change(record);
        UploadRequest decoded;
        EXPECT_EQ(Decode(record, decoded), result) << what;
        EXPECT_TRUE(result != GOOD || decoded == REQUEST) << what;
    }
}

TEST(UploadRecord, MalformedResponsesAreRefused) {
    const Bytes good = EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    EXPECT_TRUE(DecodeUploadResponse(good));
    EXPECT_FALSE(DecodeUploadResponse({}));
    EXPECT_FALSE(DecodeUploadResponse(std::span(good).first(good.size() - 1)));
    // Version, result, number of groups, group.
    const std::pair<size_t, uint8_t> changes[] = {{0, 2}, {4, 6}, {7, 1}, {8, 2}, {8, 17}, {16, 0}};
    for (const auto& [offset, value] : changes) {
        Bytes changed = good;
        changed[offset] = value;
        EXPECT_FALSE(DecodeUploadResponse(changed)) << offset << ": " << int{value};
    }
}

}  // namespace
}  // namespace ProcMgr::Message
