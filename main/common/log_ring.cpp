#include "main/common/log_ring.h"

#include <sys/mman.h>

#include <algorithm>

namespace ProcMgr {
namespace {

// The bytes that an empty ring keeps; it gives the rest of its memory back to the system.
constexpr size_t KEPT = size_t{16} << 10;

}  // namespace

LogRing::LogRing(size_t size) : size_(size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memory_ = memory == MAP_FAILED ? nullptr : static_cast<char*>(memory);
}

LogRing::~LogRing() {
    if (memory_ != nullptr) {
        munmap(memory_, size_);
    }
}

char* LogRing::Reserve(size_t length) {
    const size_t needed = Footprint(length);
    // Room for one more header is left free, so that a filler always has room for its own.
    const size_t end = size_ - head_ % size_;
    const bool isWrapped = end < needed + sizeof(Header);
    const size_t filler = isWrapped ? end : 0;
    if (memory_ == nullptr || head_ - tail_ + filler + needed + sizeof(Header) > size_) {
        return nullptr;
    }
    if (isWrapped) {
        HeaderAt(head_)->length = FILLER;
        head_ += filler;
        SkipFiller();
    }
    return TextOf(HeaderAt(head_));
}

void LogRing::Commit(size_t length, uint32_t second, bool isMinor) {
    Header* header = HeaderAt(head_);
    header->length = static_cast<uint32_t>(length);
    header->isMinor = isMinor ? 1 : 0;
    TextOf(header)[length] = '\0';
    CountLine(second);
    head_ += Footprint(length);
}

size_t LogRing::Peek(std::span<std::string_view> lines) const {
    size_t count = 0;
    for (uint64_t at = tail_; at < head_ && count < lines.size();) {
        const Header* header = HeaderAt(at);
        if (header->length == FILLER) {
            at += size_ - at % size_;
            continue;
        }
        lines[count++] = std::string_view(TextOf(header), header->length);
        at += Footprint(header->length);
    }
    return count;
}

void LogRing::Pop() {
    tail_ += Footprint(HeaderAt(tail_)->length);
    SkipFiller();
    if (--spans_.front().lines == 0) {
        RemoveFirstSpan();
    }
    if (IsEmpty()) {
        Restart();
    }
}

size_t LogRing::DropUpTo(uint32_t second) {
    size_t dropped = 0;
    while (spanCount_ > 0 && spans_.front().second <= second) {
        dropped += spans_.front().lines;
        RemoveFirstSpan();
        tail_ = spanCount_ > 0 ? spans_.front().begin : head_.load();
    }
    if (dropped > 0 && IsEmpty()) {
        Restart();
    }
    return dropped;
}

void LogRing::CountLine(uint32_t second) {
    const bool isNew =
        spanCount_ == 0 || (spans_[spanCount_ - 1].second != second && spanCount_ < spans_.size());
    if (isNew) {
        spans_[spanCount_++] = {.begin = head_};
    }
    Span& last = spans_[spanCount_ - 1];
    last.second = second;
    ++last.lines;
}

void LogRing::RemoveFirstSpan() {
    std::copy(spans_.begin() + 1, spans_.end(), spans_.begin());
    --spanCount_;
}

void LogRing::SkipFiller() {
    if (!IsEmpty() && HeaderAt(tail_)->length == FILLER) {
        tail_ += size_ - tail_ % size_;
    }
}

void LogRing::Restart() {
    if (head_ > KEPT) {
        madvise(memory_ + KEPT, size_ - KEPT, MADV_DONTNEED);
    }
    // The tail is moved first, so that a signal handler sees an empty ring after every step.
    tail_ = UINT64_MAX;
    head_ = 0;
    tail_ = 0;
}

}  // namespace ProcMgr
