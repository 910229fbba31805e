// Collects what the platform libraries say, for as long as it exists. One at a time.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/diagnostics.h"

class DiagnosticCapture {
public:
    DiagnosticCapture() {
        Clear();
        SetDiagnosticSink(Take);
    }
    ~DiagnosticCapture() { SetDiagnosticSink(nullptr); }
    DiagnosticCapture(const DiagnosticCapture&) = delete;
    DiagnosticCapture& operator=(const DiagnosticCapture&) = delete;

    static std::vector<std::string> Lines() { return LinesAt(-1); }
    // The lines of one level; -1: of all.
    static std::vector<std::string> LinesAt(int level) {
        const std::lock_guard guard(lock);
        std::vector<std::string> found;
        for (const auto& [itsLevel, text] : lines) {
            if (level == -1 || itsLevel == level) {
                found.push_back(text);
            }
        }
        return found;
    }
    static void Clear() {
        const std::lock_guard guard(lock);
        lines.clear();
    }

private:
    static void Take(int level, const char* text) {
        const std::lock_guard guard(lock);
        lines.emplace_back(level, text);
    }

    static inline std::mutex lock;  // guards lines
    static inline std::vector<std::pair<int, std::string>> lines;
};
