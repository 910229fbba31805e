// The records of upload registration against literal bytes, and against what a careless or hostile
// peer may send.
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

// From memory of exactly its length, so that the address sanitizer sees a read past the end.
UploadResult Decode(const Bytes& record, UploadRequest& out) {
    const auto copy = std::make_unique<uint8_t[]>(record.size());
    std::copy(record.begin(), record.end(), copy.get());
    return DecodeUploadRequest({copy.get(), record.size()}, out);
}

void Put(Bytes& record, size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), record.begin() + static_cast<ptrdiff_t>(offset));
}

void Fill(Bytes& record, size_t offset, size_t length) {
    std::fill_n(record.begin() + static_cast<ptrdiff_t>(offset), length, uint8_t{'x'});
}

TEST(UploadRecord, HasTheseBytes) {
    Bytes expected(2192);
    Put(expected, 0, {"\1\0\0\0\4\3\2\1\2\0\0\0", 12});
    Put(expected, 16, REQUEST.name);
    Put(expected, 144, REQUEST.path);
    Put(expected, 1168, "g1");
    Put(expected, 1232, "g2");
    EXPECT_EQ(EncodeUploadRequest(REQUEST), expected);

    Bytes response(1040);
    Put(response, 0, {"\1\0\0\0\3\0\0\0\1\0\0\0", 12});
    Put(response, 16, "g1");
    EXPECT_EQ(EncodeUploadResponse({UploadResult::NOT_THE_SENDER, {"g1"}}), response);
}

TEST(UploadRecord, LongestTextsComeBackAndLongerOnesAreRefused) {
    const UploadRequest largest = {INT32_MAX, std::string(127, 'n'), "/" + std::string(1022, 'p'),
                                   std::vector(16, std::string(63, 'g'))};
    UploadRequest decoded{1, "old", "old", {"old"}};
    ASSERT_EQ(Decode(EncodeUploadRequest(largest).value(), decoded), UploadResult::REGISTERED);
    EXPECT_EQ(decoded.pid, largest.pid);
    EXPECT_EQ(decoded.name, largest.name);
    EXPECT_EQ(decoded.path, largest.path);
    EXPECT_EQ(decoded.groups, largest.groups);
    const auto response = DecodeUploadResponse(
        EncodeUploadResponse({UploadResult::TOO_MANY, largest.groups}).value());
    EXPECT_TRUE(response && response->result == UploadResult::TOO_MANY &&
                response->groups == largest.groups);

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

TEST(UploadRecord, WhatIsMalformedIsRefused) {
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
        {"version, high byte", [](auto& r) { r[3] = 1; }, OTHER},
        {"pid 0", [](auto& r) { std::fill_n(r.begin() + 4, 4, uint8_t{0}); }, BAD},
        {"pid -1", [](auto& r) { std::fill_n(r.begin() + 4, 4, uint8_t{0xFF}); }, BAD},
        {"reserved", [](auto& r) { Fill(r, 12, 4); }, GOOD},
        {"no groups", [](auto& r) { r[8] = 0; }, GOOD},
        {"an empty group", [](auto& r) { r[8] = 3; }, BAD},
        {"17 groups", [](auto& r) { Fill(r, 1168, 1024), r[8] = 17; }, BAD},
        {"count, high byte", [](auto& r) { r[11] = 0x80; }, BAD},
        {"a group without an end", [](auto& r) { Fill(r, 1232, 64); }, BAD},
        {"groups beyond the count", [](auto& r) { Fill(r, 1296, 896); }, GOOD},
        {"no name", [](auto& r) { r[16] = 0; }, BAD},
        {"a name without an end", [](auto& r) { Fill(r, 16, 128); }, BAD},
        {"behind the name's end", [](auto& r) { Fill(r, 100, 44); }, GOOD},
        {"a line end in the name", [](auto& r) { r[17] = '\n'; }, BAD},
        {"a delete in the name", [](auto& r) { r[17] = 0x7F; }, BAD},
        {"a path for a name", [](auto& r) { r[17] = '/'; }, BAD},
        {"a relative path", [](auto& r) { r[144] = 'x'; }, BAD},
        {"a path without an end", [](auto& r) { Fill(r, 145, 1023); }, BAD},
    };
    for (const auto& [what, change, result] : cases) {
        Bytes record = EncodeUploadRequest(REQUEST).value();
        change(record);
        UploadRequest decoded;
        EXPECT_EQ(Decode(record, decoded), result) << what;
        if (result == GOOD) {
            EXPECT_EQ(decoded.name, REQUEST.name) << what;
            EXPECT_EQ(decoded.groups.size(), record[8]) << what;
        }
    }
}

TEST(UploadRecord, MalformedResponsesAreRefused) {
    const Bytes good = EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    EXPECT_TRUE(DecodeUploadResponse(good));
    EXPECT_FALSE(DecodeUploadResponse({}));
    EXPECT_FALSE(DecodeUploadResponse(std::span(good).first(good.size() - 1)));
    // Version, result, count, group.
    const std::pair<size_t, uint8_t> changes[] = {{0, 2}, {4, 6}, {7, 1}, {8, 2}, {8, 17}, {16, 0}};
    for (const auto& [offset, value] : changes) {
        Bytes changed = good;
        changed[offset] = value;
        EXPECT_FALSE(DecodeUploadResponse(changed)) << offset << ": " << int{value};
    }
}

}  // namespace
}  // namespace ProcMgr::Message
