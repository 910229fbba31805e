#include "pmctl/find_name.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "pmctl/context.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t NEAREST_MAX = 3;
constexpr size_t NAME_MAX_COMPARED = 128;  // bytes; the comparison takes the product of both sizes

// The number of bytes to insert, to remove or to replace.
size_t Distance(std::string_view left, std::string_view right) {
    std::vector<size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < left.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < right.size(); ++j) {
            const size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// The sizes to which daemons cut names in events, in bytes.
constexpr std::array<size_t, 2> EVENT_NAME_SIZES = {63, 127};

// The first `size` bytes as the status document has them: each byte of a character that is cut is a
// character of its own there.
std::string CutName(std::string_view name, size_t size) {
    size_t whole = size;
    while (whole > 0 && (static_cast<unsigned char>(name[whole]) & 0xc0U) == 0x80) {
        --whole;
    }
    std::string cut(name.substr(0, whole));
    for (const char next : name.substr(whole, size - whole)) {
        const auto byte = static_cast<unsigned char>(next);
        cut += static_cast<char>(0xc0U | (byte >> 6U));
        cut += static_cast<char>(0x80U | (byte & 0x3fU));
    }
    return cut;
}

struct Near {
    size_t distance;
    std::string name;

    auto operator<=>(const Near&) const = default;
};

}  // namespace

std::vector<const Service*> FindNamed(const Snapshot& snapshot, std::string_view name) {
    std::vector<const Service*> found;
    for (const auto* list : {&snapshot.services, &snapshot.applications}) {
        const auto service = std::find_if(list->begin(), list->end(),
                                          [name](const Service& s) { return s.name == name; });
        if (service != list->end()) {
            found.push_back(&*service);
        }
    }
    return found;
}

bool IsNameInEvent(std::string_view inEvent, std::string_view name) {
    return inEvent == name ||
           std::any_of(EVENT_NAME_SIZES.begin(), EVENT_NAME_SIZES.end(), [&](size_t size) {
               return name.size() > size && inEvent.size() >= size &&
                      inEvent == CutName(name, size);
           });
}

std::vector<std::string> NearestNames(const Snapshot& snapshot, std::string_view name) {
    const std::string_view wanted = name.substr(0, NAME_MAX_COMPARED);
    const size_t limit = std::max<size_t>(2, wanted.size() / 3);
    std::vector<Near> near;
    for (const auto* list : {&snapshot.services, &snapshot.applications}) {
        for (const Service& service : *list) {
            const std::string_view known =
                std::string_view(service.name).substr(0, NAME_MAX_COMPARED);
            const size_t distance = Distance(wanted, known);
            const bool isPart = !wanted.empty() && known.find(wanted) != std::string_view::npos;
            if (isPart || distance <= limit) {
                near.push_back({distance, service.name});
            }
        }
    }
    std::sort(near.begin(), near.end());
    std::vector<std::string> names;
    for (const Near& one : near) {
        if (names.size() < NEAREST_MAX && (names.empty() || names.back() != one.name)) {
            names.push_back(one.name);
        }
    }
    return names;
}

void FailUnknown(const Snapshot& snapshot, std::string_view name) {
    std::string text = "there is no service or application '" + Printable(name) + "'";
    const std::vector<std::string> nearest = NearestNames(snapshot, name);
    for (size_t i = 0; i < nearest.size(); ++i) {
        text += (i == 0 ? "; did you mean '" : " or '") + Printable(nearest[i]) + '\'';
    }
    throw CommandError(EXIT_NO, text + (nearest.empty() ? ": see pmctl status" : "?"));
}

}  // namespace ProcMgr::Pmctl
