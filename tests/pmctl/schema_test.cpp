// The JSON Schema of manifests says what the parser does: the same keys, and for each key the same
// type, range, values and default, found by asking the parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>

#include "platform/host/manifest_data.h"
#include "platform/host/manifest_keys.h"
#include "platform/host/manifest_loader.h"

namespace ProcMgr {
namespace {

using Json = nlohmann::json;
using PlatformHost::FindManifestKey;

// Makes the value of a key of the value of a part of it.
using Wrap = std::function<Json(const Json&)>;

class ManifestSchema : public testing::Test {
protected:
    ManifestSchema() { std::ifstream(MANIFEST_SCHEMA) >> schema_; }

    // The definition behind a reference; parts beside the reference are added.
    Json Resolve(Json part) const {
        if (part.contains("allOf")) {
            Json merged = Resolve(part["allOf"][0]);
            part.erase("allOf");
            merged.update(part);
            return merged;
        }
        if (!part.contains("$ref")) {
            return part;
        }
        return Resolve(schema_.at(Json::json_pointer(part["$ref"].get<std::string>().substr(1))));
    }
    Json KeyOf(const std::string& key) const { return Resolve(schema_["$defs"]["key." + key]); }

    // Whether the parser takes a file with this entry, without a warning.
    static bool IsEntryTaken(const Json& entry, const char* list) {
        const std::string text = Json{{list, Json::array({entry})}}.dump();
        const auto load = PlatformHost::LoadManifests("f.yaml", [&text](const std::string& path) {
            return PlatformHost::YamlFile{text, path, {}};
        });
        return load.error.empty() && load.warnings.empty();
    }
    static bool IsTaken(const std::string& key, const Json& value) {
        Json entry{{"name", "a"}, {"bin", "/b"}};
        entry[key] = value;
        return IsEntryTaken(entry, "applications");
    }

    // Asks the parser about the values of `part`; `wrap` makes a value of the key of one of part.
    void Probe(const std::string& key, const Json& part, const Wrap& wrap) const {
        SCOPED_TRACE(key);
        const auto takes = [&](const Json& value) { return IsTaken(key, wrap(value)); };
        EXPECT_EQ(takes(Json(nullptr)), MayBeNull(part));
        if (part.contains("oneOf")) {
            for (const Json& choice : part["oneOf"]) {
                ProbeChoice(key, Resolve(choice), wrap);
            }
        } else if (part.value("type", Json()) == "array") {
            EXPECT_TRUE(takes(Json::array()));
            EXPECT_FALSE(takes("text"));
            Probe(key, Resolve(part["items"]),
                  [&](const Json& value) { return wrap(Json::array({value})); });
        } else if (part.value("type", Json()) == "object") {
            ProbeObject(key, part, wrap);
        } else {
            EXPECT_FALSE(takes(Json::array()));
            EXPECT_FALSE(takes(Json::object()));
            ProbeValues(part, takes);
        }
    }

    // Whether null is among the values of one of the choices.
    static bool MayBeNull(const Json& part) {
        const Json choices = part.value("oneOf", Json::array());
        return std::any_of(choices.begin(), choices.end(), [](const Json& choice) {
            const Json values = choice.value("enum", Json::array());
            return std::find(values.begin(), values.end(), Json(nullptr)) != values.end();
        });
    }
    void ProbeChoice(const std::string& key, const Json& choice, const Wrap& wrap) const {
        if (choice.value("type", Json()) == "object") {
            ProbeObject(key, choice, wrap);
        } else {
            ProbeValues(choice, [&](const Json& value) { return IsTaken(key, wrap(value)); });
        }
    }

    void ProbeObject(const std::string& key, const Json& part, const Wrap& wrap) const {
        EXPECT_FALSE(IsTaken(key, wrap("text")));
        if (!part.contains("properties")) {
            EXPECT_TRUE(IsTaken(key, wrap(Json::object())));
            Probe(key, Resolve(part["additionalProperties"]), [&](const Json& value) {
                return wrap(Json{{"member", value}});
            });
            for (const std::string& sample : Samples()) {
                EXPECT_EQ(IsTaken(key, wrap(Json{{sample, "text"}})),
                          IsAdmitted(part.value("propertyNames", Json::object()), sample))
                    << sample;
            }
            return;
        }
        Json whole;
        for (const auto& [name, member] : part["properties"].items()) {
            whole[name] = SampleOf(Resolve(member));
        }
        EXPECT_TRUE(IsTaken(key, wrap(whole)));
        for (const auto& [name, member] : part["properties"].items()) {
            Json less = whole;
            less.erase(name);
            EXPECT_EQ(IsTaken(key, wrap(less)),
                      std::find(part["required"].begin(), part["required"].end(), name) ==
                          part["required"].end());
            const Json resolved = Resolve(member);
            if (resolved.contains("minimum") || resolved.contains("pattern")) {
                ProbeValues(resolved, [&, field = name](const Json& value) {
                    Json changed = whole;
                    changed[field] = value;
                    return IsTaken(key, wrap(changed));
                });
            }
        }
        whole["other"] = "text";
        EXPECT_EQ(IsTaken(key, wrap(whole)), part["additionalProperties"] != false);
    }

    // A value that the schema admits.
    static Json SampleOf(const Json& part) {
        if (part.contains("minimum")) {
            return part["minimum"];
        }
        return IsAdmitted(part, "text") ? "text" : "/path";
    }
    // Texts that some pattern or length of the schema refuses.
    static std::vector<std::string> Samples() {
        return {"",
                "text",
                "/path",
                "a b",
                "a=b",
                "a,",
                "a#",
                "match(a)",
                std::string(127, 'n'),
                std::string(128, 'n')};
    }
    static bool IsAdmitted(const Json& part, const std::string& text) {
        const std::string pattern = part.value("pattern", ".*");
        return text.size() >= part.value("minLength", size_t{0}) &&
               text.size() <= part.value("maxLength", size_t{4096}) &&
               std::regex_search(std::wstring(text.begin(), text.end()),
                                 std::wregex(std::wstring(pattern.begin(), pattern.end())));
    }

    static void ProbeValues(const Json& part, const std::function<bool(const Json&)>& takes) {
        if (part.contains("enum")) {
            for (const Json& value : part["enum"]) {
                EXPECT_TRUE(takes(value)) << value;
            }
            EXPECT_FALSE(takes("none of these"));
        } else if (part["type"] == "integer") {
            const int64_t lowest = part.at("minimum");
            const int64_t highest = part.at("maximum");
            EXPECT_TRUE(takes(lowest) && takes(highest));
            EXPECT_FALSE(takes(lowest - 1));
            EXPECT_FALSE(takes(highest + 1));
            EXPECT_FALSE(takes("text") || takes(true) || takes(0.5));
        } else {
            for (const std::string& sample : Samples()) {
                EXPECT_EQ(takes(sample), IsAdmitted(part, sample)) << sample;
            }
        }
    }

    Json schema_;
};

TEST_F(ManifestSchema, HasTheKeysOfTheParser) {
    for (const auto& [definition, list, text] :
         {std::tuple("service", ManifestList::SERVICES, "services"),
          std::tuple("application", ManifestList::APPLICATIONS, "applications")}) {
        const Json entry = schema_["$defs"][definition];
        for (const auto& [key, part] : entry["properties"].items()) {
            EXPECT_NE(FindManifestKey(key, list), nullptr) << key;
            EXPECT_EQ(part, Json({{"$ref", "#/$defs/key." + key}}));
        }
        for (const PlatformHost::ManifestKey& key : PlatformHost::ManifestKeys()) {
            EXPECT_EQ(entry["properties"].contains(key.name),
                      FindManifestKey(key.name, list) != nullptr)
                << key.name;
        }
        EXPECT_EQ(entry["required"], Json({"name", "bin"}));
        EXPECT_EQ(entry["additionalProperties"], false);
        EXPECT_FALSE(IsEntryTaken({{"name", "a"}}, text) || IsEntryTaken({{"bin", "/b"}}, text));
    }
    EXPECT_EQ(schema_["properties"].size(), PlatformHost::ManifestTopKeys().size());
    for (const std::string_view key : PlatformHost::ManifestTopKeys()) {
        EXPECT_TRUE(schema_["properties"].contains(key)) << key;
    }
}

TEST_F(ManifestSchema, HasTheValuesOfTheParser) {
    for (const PlatformHost::ManifestKey& key : PlatformHost::ManifestKeys()) {
        const std::string name(key.name);
        EXPECT_TRUE(KeyOf(name)["description"].is_string()) << name;
        Probe(name, KeyOf(name), [](const Json& value) { return value; });
    }
}

// The values of all keys, with a default in place of each key that is not written.
std::string ValuesOf(const ManifestData& d) {
    return testing::PrintToString(std::tuple(
        d.args, d.env, d.uid, d.depends, d.reporting, d.restart, d.termTimeoutMs, d.forceTerm,
        d.nice, d.coreAffinity, d.delayCoreAffinity, d.resourceGroup, d.cpuset, d.blkioGroup,
        d.cgroups, d.setRtPrio, d.setRtType, d.securityContext, d.nodeType, d.numaType,
        d.startupPriority, d.startupEntry, d.heartbeat, d.sharepoolGroups, d.vfId, d.vfIdPattern,
        d.dynamic, d.match, std::tuple(d.output.kind, d.output.file, d.output.size)));
}

TEST_F(ManifestSchema, HasTheDefaultsOfTheParser) {
    for (const PlatformHost::ManifestKey& key : PlatformHost::ManifestKeys()) {
        const std::string name(key.name);
        const Json part = KeyOf(name);
        const bool hasDefault = name != "name" && name != "bin" && name != "gid";
        ASSERT_EQ(part.contains("default"), hasDefault) << name;
        if (hasDefault) {
            const std::string text = Json{{name, part["default"]}}.dump();
            PlatformHost::YamlError error;
            const auto root = PlatformHost::ParseYamlText(text, error);
            std::vector<PlatformHost::ManifestProblem> warnings;
            ManifestData data;
            key.read({text, root->children.front(), warnings}, data);
            EXPECT_EQ(ValuesOf(data), ValuesOf(ManifestData())) << name;
        }
    }
}

}  // namespace
}  // namespace ProcMgr
