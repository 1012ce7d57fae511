// Trace capture for the HID access tests: runs a piece of code with a given
// trace mask and returns what it wrote to standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "karvex/karvex_api.h"

namespace hid_test {

// Restores the trace mask on scope exit.
class TraceMaskGuard {
public:
    explicit TraceMaskGuard(unsigned int mask) : mSaved(TPosixGetTraceMask()) { TPosixSetTraceMask(mask); }
    ~TraceMaskGuard() { TPosixSetTraceMask(mSaved); }
    TraceMaskGuard(const TraceMaskGuard&) = delete;
    TraceMaskGuard& operator=(const TraceMaskGuard&) = delete;

private:
    unsigned int mSaved;
};

template <typename F>
std::string CaptureTrace(unsigned int mask, F f)
{
    TraceMaskGuard guard(mask);
    fflush(stdout);
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Number of non-overlapping occurrences of needle in text.
inline size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
        ++count;
    return count;
}

} // namespace hid_test
