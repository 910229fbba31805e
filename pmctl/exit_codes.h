// The exit codes of pmctl. Scripts depend on them: they never change.
#pragma once

namespace ProcMgr::Pmctl {

inline constexpr int EXIT_OK = 0;
inline constexpr int EXIT_NO = 1;             // the answer is no, or a check has found errors
inline constexpr int EXIT_USAGE = 2;          // wrong command line
inline constexpr int EXIT_NO_ANSWER = 3;      // the daemon or the console does not answer
inline constexpr int EXIT_NO_PERMISSION = 4;  // the socket belongs to a group of others
inline constexpr int EXIT_BAD_ANSWER = 5;     // an answer that this version does not understand
inline constexpr int EXIT_TIMED_OUT = 6;      // --wait ran out of time

}  // namespace ProcMgr::Pmctl
