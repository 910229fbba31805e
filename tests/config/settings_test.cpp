#include "config/settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;
using Lines = std::vector<LogLine>;

const std::string PATH = testing::TempDir() + "procmgr_cfg." + std::to_string(getpid()) + ".yaml";
const std::string CONSTRUCTED = "enable=0 timeout=60 action=2 pmupload=0";

class Settings : public testing::Test {
protected:
    void TearDown() override { std::filesystem::remove_all(PATH); }

    // What comes of the file that is there.
    static std::string Load() {
        LogCapture::Clear();
        ProcMgrSettings settings;
        LoadProcMgrCfg(PATH, settings);
        EXPECT_EQ(settings.watchDogFile, "/var/sbsa_gwdt.ko");
        EXPECT_EQ(settings.watchDogModule, "sbsa_gwdt");
        return "enable=" + std::to_string(settings.watchDogEnable) +
               " timeout=" + settings.watchDogTimeout + " action=" + settings.watchDogAction +
               " pmupload=" + std::to_string(settings.pmuploadEnable);
    }
    static std::string Load(const std::string& contents) {
        std::ofstream(PATH) << contents;
        return Load();
    }
};

LogLine Finished(const std::string& enable, const std::string& timeout, const std::string& action) {
    return {LOG_INFO, "PROCMGR: LoadWatchDogCfg finish enable=" + enable +
                          ", wdTimeout=" + timeout + " s, wdAction=" + action};
}

LogLine UploadFinished(const std::string& enable) {
    return {LOG_INFO, "PROCMGR: LoadPmUploadCfg finish enable=" + enable};
}

TEST_F(Settings, AFileThatCannotBeUsedLeavesWhatWasConstructed) {
    const std::string failed = "LoadProcMgrCfg file=" + PATH + " failed. ";
    EXPECT_EQ(Load(), CONSTRUCTED);
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, failed + "errno=2"}}));
    const std::string good = "watch_dog: {enable: true}\npmupload: {enable: true}\n";
    for (const std::string& bad : {std::string("a: [1, 2\n"), std::string(5'000'000, '#')}) {
        EXPECT_EQ(Load(good + bad), CONSTRUCTED);
        EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, failed + "init yaml node failed"}}));
    }
}

TEST_F(Settings, Sections) {
    const LogLine noWatchDog{LOG_ERR, "LoadWatchDogCfg not exist watch_dog key"};
    const LogLine noUpload{LOG_ERR, "LoadPmUploadCfg not exist pmupload key"};
    const Lines empty = {
        {LOG_WARNING, "GetWatchDogEnable is null !"}, {LOG_WARNING, "GetWatchDogTimeout is null !"},
        {LOG_WARNING, "GetWatchDogAction is null !"}, Finished("1", "60", "2"),
        {LOG_WARNING, "GetPmuploadEnable is null !"}, UploadFinished("1")};
    const struct {
        std::string contents;
        std::string settings;
        Lines lines;
    } cases[] = {
        {"- watch_dog\n- pmupload\n", CONSTRUCTED, {noWatchDog, noUpload}},
        {"watch_dog:\npmupload:\n", "enable=1 timeout=60 action=2 pmupload=1", empty},
        {"pmupload: {enable: false}\n", CONSTRUCTED, {noWatchDog, UploadFinished("0")}},
    };
    for (const auto& [contents, settings, lines] : cases) {
        EXPECT_EQ(Load(contents), settings) << contents;
        EXPECT_EQ(LogCapture::Lines(), lines) << contents;
    }
}

// A value that is there but wrong is replaced without a word.
TEST_F(Settings, Values) {
    const std::string huge = "99999999999999999999";
    // As written and as used: enable, timeout, action.
    const std::string cases[][6] = {
        {"true", "30", "0", "1", "30", "0"},  {"false", "\"120\"", "'1'", "0", "120", "1"},
        {"false", "0", "2", "0", "0", "2"},   {"perhaps", "30s", "3", "0", "60", "2"},
        {"", "", "", "0", "60", "2"},         {"[true]", "[30]", "{a: 1}", "0", "60", "2"},
        {"true", "+5", "01", "1", "60", "2"}, {"true", "\"30\\n\"", "\"1\\n\"", "1", "60", "2"},
        {"true", huge, "1", "1", huge, "1"},
    };
    for (const auto& [enable, timeout, action, isEnabled, usedTimeout, usedAction] : cases) {
        SCOPED_TRACE(timeout);
        EXPECT_EQ(Load("watch_dog:\n  enable: " + enable + "\n  timeout: " + timeout +
                       "\n  action: " + action + "\npmupload:\n  enable: " + enable + "\n"),
                  "enable=" + isEnabled + " timeout=" + usedTimeout + " action=" + usedAction +
                      " pmupload=" + isEnabled);
        EXPECT_EQ(LogCapture::Lines(),
                  (Lines{Finished(isEnabled, usedTimeout, usedAction), UploadFinished(isEnabled)}));
    }
}

}  // namespace
}  // namespace ProcMgr
