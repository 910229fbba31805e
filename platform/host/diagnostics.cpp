#include "platform/host/diagnostics.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "platform/diagnostics.h"

namespace PlatformHost {
namespace {

constexpr size_t MAX_QUOTED = 80;
constexpr size_t MAX_LINE = 2048;

std::atomic<DiagnosticSink> currentSink{nullptr};

}  // namespace

void WriteDiagnostic(int level, std::string_view text) {
    const DiagnosticSink sink = currentSink;
    if (sink == nullptr) {
        return;
    }
    std::array<char, MAX_LINE> line{};
    const size_t length = std::min(text.size(), line.size() - 1);
    std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length), line.begin(),
                   [](char c) {
                       const auto byte = static_cast<unsigned char>(c);
                       return byte < 0x20 || byte == 0x7f ? '?' : c;
                   });
    sink(level, line.data());
}

std::string Quoted(std::string_view value) {
    if (value.size() <= MAX_QUOTED) {
        return "'" + std::string(value) + "'";
    }
    return "'" + std::string(value.substr(0, MAX_QUOTED)) + "...'";
}

}  // namespace PlatformHost

void SetDiagnosticSink(DiagnosticSink sink) {
    PlatformHost::currentSink = sink;
}
