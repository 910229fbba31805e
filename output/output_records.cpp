#include "output/output_records.h"

#include <algorithm>

namespace ProcMgr::Output {
namespace {

constexpr const char* INHERIT_TEXT = "inherit";

}  // namespace

std::string OutputText(const OutputConfig& config) {
    switch (config.kind) {
        case OutputKind::INHERIT:
            break;
        case OutputKind::DISCARD:
            return "null";
        case OutputKind::SYSLOG:
            return "syslog";
        case OutputKind::FILE:
            return "file:" + config.file;
    }
    return INHERIT_TEXT;
}

void OutputRecords::SetOutput(const std::string& service, const OutputConfig& config) {
    const LockGuard lock(mutex_);
    if (config.kind == OutputKind::INHERIT) {
        records_.erase(service);
        return;
    }
    MakeRoom();
    Record& record = records_[service];
    record.output = OutputText(config);
    record.start = ++starts_;
}

// Removes the record whose last start is longest ago.
void OutputRecords::MakeRoom() {
    if (records_.size() >= RECORDS_MAX) {
        records_.erase(std::min_element(records_.begin(), records_.end(),
                                        [](const auto& one, const auto& other) {
                                            return one.second.start < other.second.start;
                                        }));
    }
}

void OutputRecords::AddLines(const std::string& service, LineTail& lines) {
    const LockGuard lock(mutex_);
    const auto record = records_.find(service);
    if (record != records_.end()) {
        record->second.lines.Take(lines);
    }
    lines = {};
}

std::string OutputRecords::GetOutput(const std::string& service) const {
    const LockGuard lock(mutex_);
    const auto record = records_.find(service);
    return record == records_.end() ? INHERIT_TEXT : record->second.output;
}

std::vector<std::string> OutputRecords::LastLines(const std::string& service) const {
    const LockGuard lock(mutex_);
    const auto record = records_.find(service);
    return record == records_.end() ? std::vector<std::string>() : record->second.lines.Get();
}

}  // namespace ProcMgr::Output
