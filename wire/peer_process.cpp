#include "wire/peer_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <string>

#include "wire/unique_fd.h"

namespace Wire {
namespace {

// The bytes of the file that are read. Pid, name, state and parent come first and need fewer.
constexpr size_t STAT_HEAD = 256;

}  // namespace

std::optional<pid_t> ParentOf(std::string_view stat) {
    // "PID (NAME) STATE PARENT ...": the name may contain any character, also ')'; the fields after
    // the name cannot.
    const size_t name = stat.rfind(')');
    constexpr std::string_view STATE = ") S ";
    if (name == std::string_view::npos || stat.size() - name <= STATE.size()) {
        return std::nullopt;
    }
    const std::string_view number = stat.substr(name + STATE.size());
    pid_t parent = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), parent);
    const bool isWhole = error == std::errc() && end != number.data() + number.size();
    return isWhole ? std::optional(parent) : std::nullopt;
}

std::optional<pid_t> ReadParent(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, STAT_HEAD> text{};
    const ssize_t length = file.IsValid() ? read(file.Get(), text.data(), text.size()) : 0;
    return length > 0 ? ParentOf({text.data(), static_cast<size_t>(length)}) : std::nullopt;
}

bool IsSameOrDescendant(pid_t pid, pid_t ancestor) {
    if (ancestor <= 0) {
        return false;
    }
    for (int i = 0; i <= GENERATIONS_MAX && pid > 0; ++i) {
        if (pid == ancestor) {
            return true;
        }
        pid = ReadParent(pid).value_or(0);
    }
    return false;
}

}  // namespace Wire
