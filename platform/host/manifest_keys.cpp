#include "platform/host/manifest_keys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "platform/host/diagnostics.h"
#include "platform/host/pattern.h"

namespace PlatformHost {
namespace {

constexpr size_t MAX_NAME = 127;
constexpr int64_t MAX_ID = 4294967294;  // 4294967295 means "no change" to the kernel
constexpr int64_t MAX_CORE = 1023;
constexpr int64_t MAX_UINT32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t MIN_INT32 = std::numeric_limits<int32_t>::min();
constexpr int64_t MAX_INT32 = std::numeric_limits<int32_t>::max();

const char* KindName(YamlKind kind) {
    static constexpr std::array<const char*, 4> NAMES{"nothing", "text", "a list", "a mapping"};
    return NAMES[static_cast<size_t>(kind)];
}

// Finds the blank and the control characters of ASCII, and the control characters of Latin-1 in
// their UTF-8 form.
bool HasBlankOrControl(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte <= 0x20 || byte == 0x7f) {
            return true;
        }
        if (byte == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
            return true;
        }
    }
    return false;
}

void ReadBin(const ManifestValue& value, ManifestData& data) {
    data.bin = value.TextOrPattern();
    if (!IsPattern(data.bin) && !data.bin.starts_with('/')) {
        value.Fail("expected an absolute path or match(EXPR), got " + Quoted(data.bin));
    }
}

void ReadArgs(const ManifestValue& value, ManifestData& data) {
    for (const YamlChild& element : value.List()) {
        data.args.push_back(value.Element(element).TextOrPattern());
    }
}

void ReadEnv(const ManifestValue& value, ManifestData& data) {
    for (const YamlChild& element : value.Map()) {
        const ManifestValue entry = value.Element(element);
        if (element.key.empty() || element.key.find('=') != std::string::npos) {
            entry.Fail("the name of an environment variable is not empty and holds no '='");
        }
        data.env.emplace(element.key, entry.TextOrPattern());
    }
}

void ReadDepends(const ManifestValue& value, ManifestData& data) {
    for (const YamlChild& element : value.List()) {
        data.depends.insert(value.Element(element).Name());
    }
}

void ReadRestart(const ManifestValue& value, ManifestData& data) {
    static constexpr std::array<std::string_view, 4> WORDS{"on-failure", "on-forever",
                                                           "on-until-succeed", "no"};
    data.restart = value.Text();
    if (std::find(WORDS.begin(), WORDS.end(), data.restart) == WORDS.end()) {
        value.Fail("expected on-failure, on-forever, on-until-succeed or no, got " +
                   Quoted(data.restart));
    }
}

void ReadCoreAffinity(const ManifestValue& value, ManifestData& data) {
    for (const YamlChild& element : value.List()) {
        const int64_t core = value.Element(element).Number(0, MAX_CORE);
        data.coreAffinity.push_back(static_cast<uint32_t>(core));
    }
}

void ReadSharepoolGroup(const ManifestValue& value, ManifestData& data) {
    static constexpr std::array<std::string_view, 2> MEMBERS{"group", "access"};
    std::string group;
    std::string access;
    for (const YamlChild& member : value.Map()) {
        const ManifestValue part = value.Element(member);
        if (member.key == "group") {
            group = part.NonEmptyText();
        } else if (member.key == "access") {
            access = part.NonEmptyText();
        } else {
            part.WarnUnknown(MEMBERS);
        }
    }
    if (group.empty() || access.empty()) {
        value.Fail("expected a mapping with 'group' and 'access'");
    }
    data.sharepoolGroups.emplace_back(std::move(group), std::move(access));
}

void ReadSharepoolGroups(const ManifestValue& value, ManifestData& data) {
    for (const YamlChild& element : value.List()) {
        ReadSharepoolGroup(value.Element(element), data);
    }
}

void ReadVfId(const ManifestValue& value, ManifestData& data) {
    if (IsPattern(value.Text())) {
        data.vfIdPattern = value.TextOrPattern();
        return;
    }
    data.vfId = static_cast<int32_t>(value.Number(MIN_INT32, MAX_INT32));
}

// Readers for the keys whose value is stored without further checks: one for each type.
template <std::string ManifestData::*Field>
void ReadText(const ManifestValue& value, ManifestData& data) {
    data.*Field = value.Text();
}

template <bool ManifestData::*Field>
void ReadBool(const ManifestValue& value, ManifestData& data) {
    data.*Field = value.Bool();
}

template <uint32_t ManifestData::*Field, int64_t Highest = MAX_UINT32>
void ReadUnsigned(const ManifestValue& value, ManifestData& data) {
    data.*Field = static_cast<uint32_t>(value.Number(0, Highest));
}

template <int32_t ManifestData::*Field, int64_t Lowest = MIN_INT32, int64_t Highest = MAX_INT32>
void ReadSigned(const ManifestValue& value, ManifestData& data) {
    data.*Field = static_cast<int32_t>(value.Number(Lowest, Highest));
}

template <std::map<std::string, std::string> ManifestData::*Field>
void ReadTextMap(const ManifestValue& value, ManifestData& data) {
    data.*Field = value.TextMap();
}

using Data = ManifestData;

constexpr auto KEYS = std::to_array<ManifestKey>({
    {"name", false, [](const ManifestValue& value, Data& data) { data.name = value.Name(); }},
    {"bin", false, ReadBin},
    {"args", false, ReadArgs},
    {"env", false, ReadEnv},
    {"uid", false, ReadUnsigned<&Data::uid, MAX_ID>},
    {"gid", false, ReadUnsigned<&Data::gid, MAX_ID>},
    {"depends", false, ReadDepends},
    {"reporting", false, ReadBool<&Data::reporting>},
    {"restart", false, ReadRestart},
    {"term_timeout", false, ReadUnsigned<&Data::termTimeoutMs>},
    {"force_term", false, ReadBool<&Data::forceTerm>},
    {"nice", false, ReadSigned<&Data::nice, -20, 19>},
    {"core_affinity", false, ReadCoreAffinity},
    {"delay_core_affinity", false, ReadBool<&Data::delayCoreAffinity>},
    {"resource_group", false, ReadText<&Data::resourceGroup>},
    {"cpuset", false, ReadText<&Data::cpuset>},
    {"blkio_group", false, ReadText<&Data::blkioGroup>},
    {"cgroups", false, ReadTextMap<&Data::cgroups>},
    {"set_rt_prio", false, ReadText<&Data::setRtPrio>},
    {"set_rt_type", false, ReadText<&Data::setRtType>},
    {"security_context", false, ReadText<&Data::securityContext>},
    {"node_type", false, ReadUnsigned<&Data::nodeType>},
    {"numa_type", false, ReadUnsigned<&Data::numaType>},
    {"startup_priority", false, ReadSigned<&Data::startupPriority, -1>},
    {"startup_entry", false, ReadText<&Data::startupEntry>},
    {"heartbeat", false, ReadBool<&Data::heartbeat>},
    {"sharepool_groups", false, ReadSharepoolGroups},
    {"vf_id", false, ReadVfId},
    {"dynamic", false, ReadBool<&Data::dynamic>},
    {"match", true, ReadTextMap<&Data::match>},
    {"output", false, ReadOutput},
});

}  // namespace

ManifestValue::ManifestValue(const std::string& file, const YamlChild& child,
                             std::vector<ManifestProblem>& warnings)
    : file_(file), child_(child), warnings_(warnings) {}

ManifestValue ManifestValue::Element(const YamlChild& element) const {
    ManifestValue value(file_, element, warnings_);
    value.list_ = this;
    return value;
}

std::string ManifestValue::ElementText() const {
    if (list_ == nullptr) {
        return {};
    }
    const auto index = &child_ - list_->child_.node->children.data();
    return list_->ElementText() + "element " +
           (child_.key.empty() ? std::to_string(index + 1) : Quoted(child_.key)) + ": ";
}

ManifestProblem ManifestValue::Problem(const std::string& problem) const {
    return {file_, child_.line, std::string(Key()), ElementText() + problem};
}

std::string ManifestValue::Text() const {
    if (child_.node->kind != YamlKind::TEXT) {
        Fail(std::string("expected text, got ") + KindName(child_.node->kind));
    }
    return std::string(child_.node->text);
}

bool ManifestValue::IsNullWord() const {
    return child_.node->kind == YamlKind::NOTHING && child_.node->text == "null";
}

std::string ManifestValue::NonEmptyText() const {
    std::string text = Text();
    if (text.empty()) {
        Fail("expected text that is not empty");
    }
    return text;
}

std::string ManifestValue::Name() const {
    std::string name = Text();
    if (name.empty() || name.size() > MAX_NAME) {
        Fail("expected a name of 1 to " + std::to_string(MAX_NAME) + " characters, got " +
             std::to_string(name.size()));
    }
    if (name.find_first_of("#/=,") != std::string::npos || HasBlankOrControl(name)) {
        Fail("a name holds no '#', '/', '=', ',', blank or control character, got " + Quoted(name));
    }
    return name;
}

std::string ManifestValue::TextOrPattern() const {
    std::string text = Text();
    if (IsPattern(text)) {
        const std::string fault = PatternFault(text);
        if (!fault.empty()) {
            Fail("unusable pattern " + Quoted(text) + ": " + fault);
        }
    }
    return text;
}

bool ManifestValue::Bool() const {
    const std::string text = Text();
    const std::optional<bool> parsed = ParseYamlBool(text);
    if (!parsed) {
        Fail("expected true or false, got " + Quoted(text));
    }
    return *parsed;
}

// Decimal or 0x hexadecimal. A leading zero is refused: YAML versions differ on whether it means
// octal, and the number may be a user id.
int64_t ManifestValue::ParsedNumber() const {
    const std::string text = Text();
    std::string_view digits = text;
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) {
        digits.remove_prefix(1);
    }
    const int base = digits.starts_with("0x") ? 16 : 10;
    if (base == 16) {
        digits.remove_prefix(2);
    }
    const bool leadingZero = base == 10 && digits.size() > 1 && digits.front() == '0';
    uint64_t magnitude = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
    const bool complete = !digits.empty() && end == digits.data() + digits.size();
    if (!complete || leadingZero || error == std::errc::invalid_argument) {
        Fail("expected a whole number, got " + Quoted(text));
    }
    // Larger than the range of any key, so that the caller reports the range of its key.
    constexpr uint64_t OUT_OF_RANGE = uint64_t{1} << 62;
    if (error == std::errc::result_out_of_range) {
        magnitude = OUT_OF_RANGE;
    }
    const auto value = static_cast<int64_t>(std::min(magnitude, OUT_OF_RANGE));
    return negative ? -value : value;
}

int64_t ManifestValue::Number(int64_t lowest, int64_t highest) const {
    const int64_t number = ParsedNumber();
    if (number < lowest || number > highest) {
        Fail("expected a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
             ", got " + Quoted(child_.node->text));
    }
    return number;
}

std::map<std::string, std::string> ManifestValue::TextMap() const {
    std::map<std::string, std::string> result;
    for (const YamlChild& element : Map()) {
        result.emplace(element.key, Element(element).Text());
    }
    return result;
}

std::span<const YamlChild> ManifestValue::List() const {
    if (child_.node->kind != YamlKind::LIST) {
        Fail(std::string("expected a list, got ") + KindName(child_.node->kind));
    }
    return child_.node->children;
}

std::span<const YamlChild> ManifestValue::Map() const {
    if (child_.node->kind != YamlKind::MAP) {
        Fail(std::string("expected a mapping, got ") + KindName(child_.node->kind));
    }
    return child_.node->children;
}

void ManifestValue::Fail(const std::string& problem) const {
    throw ManifestFault(Problem(problem));
}

void ManifestValue::Warn(const std::string& problem) const {
    warnings_.push_back(Problem(problem));
}

void ManifestValue::WarnUnknown(std::span<const std::string_view> known) const {
    Warn("unknown key, ignored");
    warnings_.back().known = known;
}

std::span<const ManifestKey> ManifestKeys() {
    return KEYS;
}

const ManifestKey* FindManifestKey(std::string_view name, ManifestList list) {
    const auto found = std::find_if(KEYS.begin(), KEYS.end(),
                                    [name](const ManifestKey& key) { return key.name == name; });
    if (found == KEYS.end() || (found->applicationsOnly && list != ManifestList::APPLICATIONS)) {
        return nullptr;
    }
    return &*found;
}

}  // namespace PlatformHost
