#include "wire/socket_paths.h"

#include <cstdint>

namespace Wire {
namespace {

// Not isalnum(): the path must not depend on the locale of the process.
bool IsPlain(char character) {
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return PLAIN.find(character) != std::string_view::npos;
}

std::string SocketPath(const char* directory, std::string_view name) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    if (name.empty() || name == "." || name == "..") {
        return {};
    }
    std::string path(directory);
    path += '/';
    for (const char character : name) {
        if (IsPlain(character)) {
            path += character;
            continue;
        }
        const auto byte = static_cast<uint8_t>(character);
        path += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
    }
    return path;
}

}  // namespace

std::string PipePath(std::string_view service) {
    return SocketPath(PIPE_DIRECTORY, service);
}

std::string ServerPath(std::string_view server) {
    return SocketPath(SERVER_DIRECTORY, server);
}

}  // namespace Wire
