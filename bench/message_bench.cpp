// message_bench [--runs N]
//
// Measures the time to encode and to decode a full record, per record and per item, and compares it
// with a plain memcpy of a record in the same run. Prints medians of N samples.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_support.h"
#include "message/binary_fields.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "message/serialization.h"

namespace {

using namespace ProcMgr;
using Message::RequestMsg;
using Pieces = std::vector<std::pair<uint32_t, std::string>>;

constexpr int REPEATS = 200;
constexpr size_t PAYLOAD_MAX = Message::PM_PIPE_BUF_MAX;
constexpr size_t COUNT_DIGITS = 5;

// Keeps the compiler from leaving out the computation of a value that is not read.
void Use(const void* pointer) {
    asm volatile("" : : "r"(pointer) : "memory");
}

// Nanoseconds that one call takes.
double Measure(int runs, const std::function<void()>& call) {
    std::vector<double> samples;
    for (int run = 0; run < runs; ++run) {
        const uint64_t start = Bench::Now();
        for (int i = 0; i < REPEATS; ++i) {
            call();
        }
        samples.push_back(static_cast<double>(Bench::Now() - start) / REPEATS);
    }
    return Bench::Median(samples);
}

void Print(const char* what, size_t items, double record, double copy) {
    std::printf("| %s | %zu | %.2f us | %.0f ns | %.0f |\n", what, items, record / 1000.0,
                record / static_cast<double>(items), record / copy);
    std::fflush(stdout);
}

std::string Name(size_t number) {
    std::string digits = std::to_string(number);
    return "application_" + std::string(4 - digits.size(), '0') + digits;
}

// A record with as many items as fit, and the items as encoded pieces.
struct Full {
    RequestMsg record;
    size_t items = 0;
    Pieces pieces;
};

Full FillText(Message::RequestType type, const std::function<std::string(size_t)>& textOf) {
    Full full;
    size_t length = 0;
    for (;; ++full.items) {
        const std::string text = textOf(full.items);
        length += text.size();
        if (length + COUNT_DIGITS > PAYLOAD_MAX - 4) {
            break;
        }
        full.pieces.emplace_back(static_cast<uint32_t>(text.size()), text);
    }
    std::vector<RequestMsg> records;
    Serialization::ProcMgrCombinePiecesMsg(type, full.pieces, records);
    if (records.size() != 1) {
        std::fprintf(stderr, "the items do not fill one record\n");
        std::exit(1);
    }
    full.record = records.front();
    return full;
}

Full FillQuery() {
    Full full;
    full.items = (PAYLOAD_MAX - sizeof(uint32_t)) / (sizeof(uint32_t) + Name(0).size());
    Message::BinaryWriter fields;
    fields.AddNumber(full.items);
    for (size_t i = 0; i < full.items; ++i) {
        fields.AddText(Name(i));
    }
    full.record = Message::MakeRecord(Message::QUERY_APP_STATE, fields.Bytes());
    return full;
}

void Expect(bool isRight, const char* what) {
    if (!isRight) {
        std::fprintf(stderr, "%s: not what was packed\n", what);
        std::exit(1);
    }
}

void MeasureGather(const char* what, const Full& full, int runs, double copy) {
    Pieces pieces = full.pieces;
    const auto gather = [&] {
        std::vector<RequestMsg> records;
        Serialization::ProcMgrCombinePiecesMsg(Message::START_APP, pieces, records);
        Use(records.data());
    };
    Print(what, full.items, Measure(runs, gather), copy);
}

// `unpack` fills a list with the items of a record.
template <typename Item>
void MeasureUnpack(const char* what, const Full& full,
                   const std::function<void(const RequestMsg*, std::vector<Item>&)>& unpack,
                   int runs, double copy) {
    std::vector<Item> decoded;
    unpack(&full.record, decoded);
    Expect(decoded.size() == full.items, what);
    const auto unpackOnce = [&] {
        std::vector<Item> items;
        unpack(&full.record, items);
        Use(items.data());
    };
    Print(what, full.items, Measure(runs, unpackOnce), copy);
}

void UnpackStart(const RequestMsg* record, std::vector<Message::StartAppInfo>& out) {
    Serialization::ProcMgrUnpackStartRequest(record, out, "owner");
}

void UnpackQuery(const RequestMsg* record, std::vector<std::string>& out) {
    out = Message::DecodeQuery(*record).value_or(std::vector<std::string>());
}

void UnpackReport(const RequestMsg* record, std::vector<Message::AppStateInfo>& out) {
    out = Message::DecodeAppStates(*record).value_or(std::vector<Message::AppStateInfo>());
}

void MeasureRequests(int runs, double copy) {
    const Full start = FillText(Message::START_APP, [](size_t number) {
        return Name(number) + "#2#--config#/etc/app.conf#1#0#1#/usr/bin/app#";
    });
    const Full term = FillText(Message::TERM_APP, [](size_t number) { return Name(number) + "#"; });
    const Full shortStart =
        FillText(Message::START_APP, [](size_t) { return std::string("a#0#0#"); });
    const Full shortTerm = FillText(Message::TERM_APP, [](size_t) { return std::string("a#"); });
    using Start = Message::StartAppInfo;
    using Term = Message::TermAppInfo;
    const auto unpackTerm = Serialization::ProcMgrUnpackTermRequest;
    MeasureGather("start: gather encoded items", start, runs, copy);
    MeasureUnpack<Start>("start: unpack", start, UnpackStart, runs, copy);
    MeasureUnpack<Start>("start, shortest items: unpack", shortStart, UnpackStart, runs, copy);
    MeasureGather("term: gather encoded items", term, runs, copy);
    MeasureUnpack<Term>("term: unpack", term, unpackTerm, runs, copy);
    MeasureUnpack<Term>("term, shortest items: unpack", shortTerm, unpackTerm, runs, copy);
}

void MeasureQuery(int runs, double copy) {
    MeasureUnpack<std::string>("query: unpack", FillQuery(), UnpackQuery, runs, copy);
    std::map<std::string, uint32_t> statusByName;
    for (size_t i = 0; i < PAYLOAD_MAX / (Name(0).size() + 2 * sizeof(uint32_t)); ++i) {
        statusByName.emplace(Name(i), 2);
    }
    Expect(Message::EncodeDetailStatus(statusByName).has_value(), "detail status");
    const auto encode = [&] {
        const auto record = Message::EncodeDetailStatus(statusByName);
        Use(&record);
    };
    Print("answer of a query: pack", statusByName.size(), Measure(runs, encode), copy);
}

void MeasureReport(int runs, double copy) {
    const auto infoOf = [](size_t number) {
        return Message::AppStateInfo{Name(number), 1000 + static_cast<uint32_t>(number), 500, 0, 0};
    };
    const Full full = FillText(Message::APP_STATE_REPORT, [&](size_t number) {
        Pieces pieces;
        Serialization::ProcMgrPackAppStateRequest({infoOf(number)}, pieces);
        return pieces.front().second;
    });
    std::vector<Message::AppStateInfo> infos;
    for (size_t i = 0; i < full.items; ++i) {
        infos.push_back(infoOf(i));
    }
    const auto pack = [&] {
        Pieces pieces;
        std::vector<RequestMsg> records;
        Serialization::ProcMgrPackAppStateRequest(infos, pieces);
        Serialization::ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces, records);
        Use(records.data());
    };
    Print("state report: pack", full.items, Measure(runs, pack), copy);
    MeasureUnpack<Message::AppStateInfo>("state report: unpack, by its owner", full, UnpackReport,
                                         runs, copy);
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 101;
    if (argc == 3 && std::strcmp(argv[1], "--runs") == 0) {
        runs = static_cast<int>(std::strtol(argv[2], nullptr, 10));
    } else if (argc != 1) {
        std::fprintf(stderr, "usage: message_bench [--runs N]\n");
        return 2;
    }
    std::printf("| | items | per record | per item | in memcpys |\n|---|---|---|---|---|\n");
    const RequestMsg source;
    RequestMsg target;
    const double copy = Measure(runs, [&] {
        Use(&source);
        std::memcpy(&target, &source, sizeof(target));
        Use(&target);
    });
    Print("memcpy of a record", 1, copy, copy);
    MeasureRequests(runs, copy);
    MeasureQuery(runs, copy);
    MeasureReport(runs, copy);
    return 0;
}
