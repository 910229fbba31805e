#include "main/common/line_reader.h"

namespace ProcMgr {

LineReader::LineReader(const std::string& path, size_t lengthMax)
    : buffer_(lengthMax + 1, '\0'), file_(std::fopen(path.c_str(), "re")) {}

LineReader::LineReader(Wire::UniqueFd fd, size_t lengthMax)
    : buffer_(lengthMax + 1, '\0'), file_(fd.IsValid() ? fdopen(fd.Get(), "r") : nullptr) {
    if (file_ != nullptr) {
        fd.Release();
    }
}

std::optional<std::string_view> LineReader::Next() {
    if (file_ == nullptr ||
        std::fgets(buffer_.data(), static_cast<int>(buffer_.size()), file_.get()) == nullptr) {
        return std::nullopt;
    }
    std::string_view line(buffer_.c_str());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.remove_suffix(1);
    }
    return line;
}

}  // namespace ProcMgr
