// Test helper: this process's memory figures from /proc/self/status.
#pragma once

#include <string>

namespace velacam::test {

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM", "VmSize"), or -1.
long statusKiB(const std::string& field);

}  // namespace velacam::test
