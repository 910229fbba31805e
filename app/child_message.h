// The message of one child about the steps of its set-up that failed: a fixed buffer, because the
// child allocates nothing. The whole text fits into one write to the child error pipe.
#pragma once

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace ProcMgr::App {

// A text that would not fit is cut off: a pipe takes up to PIPE_BUF bytes as a whole, and a longer
// message could mix with the message of another child. Not thread-safe.
class ChildMessage {
public:
    ChildMessage& operator+=(std::string_view text) {
        const size_t taken = std::min(text.size(), text_.size() - size_);
        std::memcpy(text_.data() + size_, text.data(), taken);
        size_ += taken;
        return *this;
    }

    // Declares the text so far the head of the message.
    void EndHead() { head_ = size_; }
    // Removes everything but the head.
    void Clear() { size_ = head_; }
    // True while nothing follows the head.
    bool IsEmpty() const { return size_ == head_; }
    std::string_view Get() const { return {text_.data(), size_}; }

private:
    std::array<char, PIPE_BUF> text_;  // only the first size_ bytes have a value
    size_t size_ = 0;
    size_t head_ = 0;
};

}  // namespace ProcMgr::App
