#include "config/settings.h"

#include <gtest/gtest.h>

#include "config/settings_keys.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using Lines = std::vector<Fakes::LogLine>;

const std::string CONSTRUCTED = "enable=0 timeout=60 action=2 pmupload=0";

class Settings : public testing::Test {
protected:
    // The settings that the file gives, as text.
    std::string Load() const {
        LogCapture::Clear();
        ProcMgrSettings settings;
        LoadProcMgrCfg(path_, settings);
        return "enable=" + std::to_string(settings.watchDogEnable) +
               " timeout=" + settings.watchDogTimeout + " action=" + settings.watchDogAction +
               " pmupload=" + std::to_string(settings.pmuploadEnable) +
               (settings.statusEnable ? " status=" + settings.statusGroup : "");
    }
    std::string Load(const std::string& contents) const {
        Tests::WriteFile(path_, contents);
        return Load();
    }

    const Tests::TempDirectory directory_;
    const std::string path_ = directory_ / "procmgr_cfg.yaml";
};

TEST_F(Settings, AnUnusableFileChangesNothing) {
    const std::string failed = "LoadProcMgrCfg file=" + path_ + " failed. ";
    EXPECT_EQ(Load(), CONSTRUCTED);
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, failed + "errno=2"}}));
    const std::string good = "watch_dog: {enable: true}\npmupload: {enable: true}\n";
    for (const std::string& bad : {std::string("a: [1, 2\n"), std::string(5'000'000, '#')}) {
        EXPECT_EQ(Load(good + bad), CONSTRUCTED);
        EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, failed + "init yaml node failed"}}));
    }
}

TEST_F(Settings, MissingSectionsAndKeysAreLogged) {
    EXPECT_EQ(Load("- watch_dog\n- pmupload\n"), CONSTRUCTED);
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, "LoadWatchDogCfg not exist watch_dog key"},
                                          {LOG_ERR, "LoadPmUploadCfg not exist pmupload key"}}));
    EXPECT_EQ(Load("watch_dog:\npmupload:\n"), "enable=1 timeout=60 action=2 pmupload=1");
    EXPECT_EQ(
        LogCapture::Lines(),
        (Lines{{LOG_WARNING, "GetWatchDogEnable is null !"},
               {LOG_WARNING, "GetWatchDogTimeout is null !"},
               {LOG_WARNING, "GetWatchDogAction is null !"},
               {LOG_INFO, "PROCMGR: LoadWatchDogCfg finish enable=1, wdTimeout=60 s, wdAction=2"},
               {LOG_WARNING, "GetPmuploadEnable is null !"},
               {LOG_INFO, "PROCMGR: LoadPmUploadCfg finish enable=1"}}));
}

// A present but wrong value is replaced by its default without a line.
TEST_F(Settings, Values) {
    const std::string huge = "99999999999999999999";
    // The values in the file, and the settings: enable, timeout, action.
    const std::string cases[][6] = {
        {"true", "30", "0", "1", "30", "0"},
        {"false", "\"120\"", "'1'", "0", "120", "1"},
        {"perhaps", "30s", "3", "0", "60", "2"},
        {"", "", "", "0", "60", "2"},
        {"[true]", "[30]", "{a: 1}", "0", "60", "2"},
        {"true", "+5", "01", "1", "60", "2"},
        {"true", "\"30\\n\"", "\"1\\n\"", "1", "60", "2"},
        {"true", huge, "1", "1", huge, "1"},
    };
    for (const auto& [enable, timeout, action, isEnabled, usedTimeout, usedAction] : cases) {
        EXPECT_EQ(Load("watch_dog:\n  enable: " + enable + "\n  timeout: " + timeout +
                       "\n  action: " + action + "\npmupload:\n  enable: " + enable + "\n"),
                  "enable=" + isEnabled + " timeout=" + usedTimeout + " action=" + usedAction +
                      " pmupload=" + isEnabled);
        EXPECT_EQ(LogCapture::Lines().size(), 2U) << timeout;
    }
}

// Each row of the table is a key that the daemon reads, with the daemon's rule for its value.
TEST_F(Settings, TheTableOfKeysIsWhatTheDaemonReads) {
    // Two values of each SettingKind that the daemon does not take for the same.
    const std::pair<const char*, const char*> values[] = {
        {"true", "false"}, {"7", "8"}, {"0", "1"}, {"one", "other"}};
    for (const SettingKey& key : SettingKeys()) {
        if (key.section == std::string("status")) {
            continue;  // see TheStatusEndpointIsOffUnlessEnabled
        }
        const auto load = [&](const std::string& value) {
            return Load(std::string(key.section) + ":\n  " + key.name + ": " + value + "\n");
        };
        const auto& [value, other] = values[static_cast<size_t>(key.kind)];
        EXPECT_TRUE(IsSettingValue(key.kind, value));
        EXPECT_NE(load(value), load(other)) << key.section << '.' << key.name;
        if (!IsSettingValue(key.kind, "x")) {
            EXPECT_EQ(load("x"), Load(std::string(key.section) + ":\n"));
        }
    }
}

// The status endpoint opens a door: only a clear "enable" switches it on, and an absent section is
// not logged.
TEST_F(Settings, TheStatusEndpointIsOffUnlessEnabled) {
    const std::string others = "watch_dog: {}\npmupload: {}\n";
    const std::string off = Load(others);
    const size_t lines = LogCapture::Lines().size();
    for (const char* section : {"", "{}", "{group: g}", "{enable: perhaps}", "{enable: false}"}) {
        EXPECT_EQ(Load(others + "status: " + section + "\n"), off) << section;
        EXPECT_EQ(LogCapture::Lines().size(), lines + 1);
    }
    EXPECT_EQ(Load(others + "status: {enable: true, group: [g]}\n"), off + " status=");
    EXPECT_EQ(Load(others + "status: {enable: true, group: adm}\n"), off + " status=adm");
    EXPECT_EQ(LogCapture::Lines().back().text, "PROCMGR: LoadStatusCfg finish enable=1, group=adm");
}

}  // namespace
}  // namespace ProcMgr
