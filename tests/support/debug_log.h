// Pointing the daemon's debug log at a private directory for one test, and
// reading back the messages written to it.
#pragma once

#include <string>
#include <vector>

#include "support/tempdir.h"

class DebugLogCapture {
public:
    DebugLogCapture();
    // Leaves the log unset again, so no test depends on another.
    ~DebugLogCapture();
    DebugLogCapture(const DebugLogCapture&) = delete;
    DebugLogCapture& operator=(const DebugLogCapture&) = delete;

    // The message part of every line so far ("[pid] [time] " cut off).
    std::vector<std::string> messages() const;
    // The messages that contain text.
    std::vector<std::string> messages_with(const std::string& text) const;
    void clear();

private:
    TempDir dir_;
    std::string file_;
};
