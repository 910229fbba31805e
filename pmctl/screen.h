// The alternate screen of the terminal behind standard output.
#pragma once

#include <string>
#include <vector>

namespace ProcMgr::Pmctl {

// From the constructor to the destructor the terminal shows an empty screen without a cursor;
// afterwards, what it showed before. SIGINT, SIGTERM, SIGHUP and SIGQUIT restore it as well, then
// they end the process as usual. One object at a time.
class Screen {
public:
    Screen();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Replaces what the screen shows by the lines, which fit its size.
    void Draw(const std::vector<std::string>& lines) const;
};

}  // namespace ProcMgr::Pmctl
