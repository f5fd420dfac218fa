#pragma once

#include <functional>

/// While it lives, one function of the C library does not do its work when the daemon's code calls it, in
/// forked children too. For programs that are linked with kx_failing_calls in CMake, which routes the calls
/// of the object files linked, not those of shared libraries, through FailingCall.cpp.
class FailingCall {
public:
    /// \param name   the function, one of those in FailingCall.cpp
    /// \param error  errno that it fails with; kHalfDone for a write of half of what was asked for; kThrow
    ///               for std::bad_alloc thrown; poll reports that the time is over, whatever the number
    /// \param skip   how many calls succeed before
    FailingCall(const char* name, int error, int skip = 0);
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    static constexpr int kHalfDone = 0;
    static constexpr int kThrow = -1;
};
