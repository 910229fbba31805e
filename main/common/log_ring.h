// A bounded queue of lines in one block of memory. The log queue calls it under the queue's lock.
// The whole block is mapped at the construction, but only the pages that lines have touched take
// memory: an emptied ring starts at its first page again.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ProcMgr {

class LogRing {
public:
    // A ring of `size` bytes. When there is no memory for them, Reserve() returns null.
    explicit LogRing(size_t size);
    ~LogRing();
    LogRing(const LogRing&) = delete;
    LogRing& operator=(const LogRing&) = delete;

    // Returns room for one line of at most `length` bytes; null when there is none. Commit() puts
    // the line, with the length that it has and the present second, into the ring. `isMinor`: see
    // VisitInSignal().
    char* Reserve(size_t length);
    void Commit(size_t length, uint32_t second, bool isMinor = false);

    bool IsEmpty() const { return tail_ == head_; }
    // The bytes that the lines take.
    size_t GetUsed() const { return head_ - tail_; }
    // Fills `lines` with the oldest lines; returns their number. Each is followed by a NUL and
    // stays in place until it is removed.
    size_t Peek(std::span<std::string_view> lines) const;
    // Removes the oldest line. Only when the ring is not empty.
    void Pop();
    // Removes the lines that were committed in `second` or before, without a look at each. Returns
    // their number. While the ring holds lines of more than 16 different seconds, the newest of
    // them count as lines of one second, the last.
    size_t DropUpTo(uint32_t second);

    // Calls `take` for every line that can be read without a lock: for the minor ones, or for the
    // others and the oldest line, of which a part may have been written. For a signal handler of a
    // process that is about to end: a line that another thread adds at that moment may be missing.
    template <typename Take>
    void VisitInSignal(bool isMinor, Take take) const {
        const uint64_t oldest = tail_;
        for (uint64_t at = oldest, end = head_; at < end;) {
            const Header* header = HeaderAt(at);
            if (header->length == FILLER) {
                at += size_ - at % size_;
                continue;
            }
            if (header->length > size_) {
                return;
            }
            if (isMinor == (header->isMinor != 0 && at != oldest)) {
                take(std::string_view(TextOf(header), header->length));
            }
            at += Footprint(header->length);
        }
    }

private:
    struct Header {
        uint32_t length;   // of the text, or FILLER: the next line is at the ring's first byte
        uint32_t isMinor;  // 1 or 0
    };
    static constexpr uint32_t FILLER = UINT32_MAX;

    // Lines that follow each other: those of one second, or of several when SPANS_MAX are in use.
    struct Span {
        uint64_t begin = 0;   // position of the first line; not kept up when lines are popped
        uint32_t second = 0;  // of the newest line
        size_t lines = 0;
    };
    static constexpr size_t SPANS_MAX = 16;

    static size_t Footprint(size_t length) {
        constexpr size_t ALIGNMENT = alignof(Header);
        return (sizeof(Header) + length + 1 + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    }
    Header* HeaderAt(uint64_t position) const {
        return reinterpret_cast<Header*>(memory_ + position % size_);
    }
    static char* TextOf(Header* header) { return reinterpret_cast<char*>(header + 1); }
    static const char* TextOf(const Header* header) {
        return reinterpret_cast<const char*>(header + 1);
    }
    void SkipFiller();
    void Restart();
    // Adds the line at head_ to the last span.
    void CountLine(uint32_t second);
    void RemoveFirstSpan();

    const size_t size_;
    char* memory_ = nullptr;
    // Positions in bytes since the last restart; they only grow in between.
    std::atomic<uint64_t> head_{0};
    std::atomic<uint64_t> tail_{0};
    std::array<Span, SPANS_MAX> spans_{};  // of all lines in the ring
    size_t spanCount_ = 0;
};

}  // namespace ProcMgr
