// What the manifest parser finds wrong, with its place. The loader makes one text of each for the
// log; a checker also shows the parts.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace PlatformHost {

struct ManifestProblem {
    // What the place is: the file, a line of it, a key in that line, or a place after the key.
    enum class Place { FILE, LINE, KEY, NEAR_KEY };

    std::string file;
    uint32_t line = 0;  // counted from 1; 0 for Place::FILE
    std::string key;
    std::string what;
    Place place = Place::KEY;
    // For an unknown key: the keys that are known at this place.
    std::span<const std::string_view> known = {};

    // "FILE:LINE: key 'KEY': WHAT"; without the parts that the place does not have.
    std::string Text() const;
};

// Ends the parse; what() is the whole message.
struct ManifestFault : std::runtime_error {
    explicit ManifestFault(ManifestProblem found)
        : std::runtime_error(found.Text()), problem(std::move(found)) {}
    ManifestProblem problem;
};

}  // namespace PlatformHost
