// The daemon's debug log pointed at a private directory for one test (and
// unset again after it), its messages read back without "[pid] [time] ".
#pragma once

#include <string>
#include <vector>

#include "support/tempdir.h"

class DebugLogCapture {
public:
    DebugLogCapture();
    ~DebugLogCapture();
    DebugLogCapture(const DebugLogCapture&) = delete;
    DebugLogCapture& operator=(const DebugLogCapture&) = delete;

    std::vector<std::string> messages() const;

private:
    TempDir dir_;
    std::string file_;
};
