// The keys of the settings file, as one table with the rule for the value of each. The functions of
// settings.h read the file by the same names and rules; a checker of the file walks the table.
#pragma once

#include <span>
#include <string>

namespace ProcMgr {

enum class SettingKind {
    SWITCH,   // true or false
    SECONDS,  // decimal digits
    ACTION,   // 0, 1 or 2
    GROUP,    // the name of a group of users
};

struct SettingKey {
    const char* section;
    const char* name;
    SettingKind kind;
};

// Every key that the daemon reads.
std::span<const SettingKey> SettingKeys();

// Whether a text is a value of that kind; any text is for SWITCH, which the YAML library reads.
bool IsSettingValue(SettingKind kind, const std::string& text);

}  // namespace ProcMgr
