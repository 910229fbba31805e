// The part of PipeLoop that handles lines: limits, the hand-over, lines without an end, and the
// reports about what is left out.
#include <algorithm>

#include "main/common/log.h"
#include "output/line_text.h"
#include "output/pipe_loop.h"

namespace ProcMgr::Output {
namespace {

// What one service may hand on within a second: lines for the system logger, bytes for its file.
constexpr uint64_t LINES_PER_SECOND = 1000;
constexpr uint64_t BYTES_PER_SECOND = uint64_t{1} << 20;
// A line without an end is taken as it is after this time.
constexpr std::chrono::seconds LINE_PATIENCE{1};
// The lines that are left out are reported so long after the first of them, and not more often than
// once in the second time.
constexpr std::chrono::seconds REPORT_DELAY{1};
constexpr std::chrono::seconds REPORT_PAUSE{10};

}  // namespace

void PipeLoop::SetKind(Flow& flow, OutputKind kind) {
    if (flow.kind != kind) {
        flow.kind = kind;
        flow.limit = RateLimit(kind == OutputKind::FILE ? BYTES_PER_SECOND : LINES_PER_SECOND);
    }
}

void PipeLoop::BeginBytes() {
    tail_ = {};
    fileLines_.clear();
    lineCount_ = 0;
}

void PipeLoop::TakeBytes(Pipe& pipe, std::string_view bytes) {
    BeginBytes();
    OutputPipe& of = pipe.second;
    Flow& flow = flows_[of.service];
    if (flow.limit.IsUsedUp(now_)) {
        bytes = SkipLines(of, flow, bytes);
    }
    of.lines.Add(bytes, [&](std::string_view line) { TakeLine(of, flow, line); });
    const bool isNewLine = lineCount_ > 0;
    HandOn(of);
    SetFlush(pipe, isNewLine);
}

// A service may write far more lines than it may hand on, so they are only counted.
std::string_view PipeLoop::SkipLines(OutputPipe& pipe, Flow& flow, std::string_view bytes) {
    size_t begin = bytes.size();
    for (size_t kept = 0; kept <= LineTail::LINES_MAX; ++kept) {
        begin = begin == 0 ? std::string_view::npos : bytes.rfind('\n', begin - 1);
        if (begin == std::string_view::npos) {
            return bytes;
        }
    }
    const std::string_view skipped = bytes.substr(0, begin + 1);
    LeaveOut(pipe.service, flow,
             static_cast<uint64_t>(std::count(skipped.begin(), skipped.end(), '\n')));
    pipe.lines.Drop();
    ++lineCount_;
    return bytes.substr(skipped.size());
}

// Empty lines count as well: they cost as much as others.
void PipeLoop::TakeLine(const OutputPipe& pipe, Flow& flow, std::string_view line) {
    ++lineCount_;
    if (!line.empty()) {
        tail_.Add(line);
    }
    if (!flow.limit.Take(now_, flow.kind == OutputKind::FILE ? line.size() + 1 : 1)) {
        LeaveOut(pipe.service, flow, 1);
    } else if (pipe.config.kind == OutputKind::FILE) {
        fileLines_ += line;
        fileLines_ += '\n';
    } else if (!line.empty() &&
               !LogServiceLine(pipe.service.c_str(), pipe.pid, MakeHarmless(line))) {
        ++dropped_;
    }
}

void PipeLoop::LeaveOut(const std::string& service, Flow& flow, uint64_t count) {
    dropped_ += count;
    if (flow.leftOut == 0) {
        flow.reportAt = std::max(flow.reportAt, now_ + REPORT_DELAY);
        reports_.emplace(flow.reportAt, service);
    }
    flow.leftOut += count;
}

void PipeLoop::HandOn(const OutputPipe& pipe) {
    if (!fileLines_.empty()) {
        files_.Add(pipe.service, pipe.config, fileLines_);
    }
    if (!tail_.IsEmpty()) {
        records_.AddLines(pipe.service, tail_);
    }
}

// The time of a line without an end counts from its beginning.
void PipeLoop::SetFlush(Pipe& pipe, bool isNewLine) {
    auto& [fd, of] = pipe;
    const bool isTimed = of.flushAt != SteadyTime();
    if (of.lines.HasPartial() && isTimed && !isNewLine) {
        return;
    }
    if (isTimed) {
        flushes_.erase({of.flushAt, fd});
        of.flushAt = {};
    }
    if (of.lines.HasPartial()) {
        flushes_.emplace(now_ + LINE_PATIENCE, fd);
        of.flushAt = now_ + LINE_PATIENCE;
    }
}

void PipeLoop::Flush(Pipe& pipe) {
    BeginBytes();
    OutputPipe& of = pipe.second;
    Flow& flow = flows_[of.service];
    of.lines.Flush([&](std::string_view line) { TakeLine(of, flow, line); });
    HandOn(of);
    SetFlush(pipe, true);
}

void PipeLoop::FlushDue() {
    while (!flushes_.empty() && flushes_.begin()->first <= now_) {
        Flush(*pipes_.find(flushes_.begin()->second));
    }
}

void PipeLoop::ReportDue(SteadyTime until) {
    while (!reports_.empty() && reports_.begin()->first <= until) {
        const std::string service = reports_.begin()->second;
        reports_.erase(reports_.begin());
        Flow& flow = flows_[service];
        const bool isFile = flow.kind == OutputKind::FILE;
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : %llu lines of the output of %s are left out, it may write %llu %s "
                   "in a second",
                   static_cast<unsigned long long>(flow.leftOut), service.c_str(),
                   static_cast<unsigned long long>(isFile ? BYTES_PER_SECOND : LINES_PER_SECOND),
                   isFile ? "bytes" : "lines");
        flow.leftOut = 0;
        flow.reportAt = now_ + REPORT_PAUSE;
    }
}

}  // namespace ProcMgr::Output
