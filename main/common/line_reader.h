// Reads a text file line by line through a buffer of fixed size, so that a long line cannot take
// much memory. For files that other programs write. Each object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "wire/unique_fd.h"

namespace ProcMgr {

class LineReader {
public:
    static constexpr size_t DEFAULT_LENGTH_MAX = 1023;

    // Opens the file, close-on-exec. A line of more than `lengthMax` characters is read in pieces.
    explicit LineReader(const std::string& path, size_t lengthMax = DEFAULT_LENGTH_MAX);
    // Reads from an open descriptor. With an invalid descriptor there is no line.
    explicit LineReader(Wire::UniqueFd fd, size_t lengthMax = DEFAULT_LENGTH_MAX);

    // False when the file could not be opened. Right after the construction errno holds the reason.
    bool IsOpen() const { return file_ != nullptr; }

    // The next line without its line end, valid until the next call; nothing at the end of the
    // file. A line is cut at its first null character.
    std::optional<std::string_view> Next();

private:
    struct Close {
        void operator()(FILE* file) const { std::fclose(file); }
    };

    std::string buffer_;
    std::unique_ptr<FILE, Close> file_;
};

}  // namespace ProcMgr
