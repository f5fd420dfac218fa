#pragma once

#include "misc/Log.h"

namespace core::tools {

/// Runs the steps of a D-Bus method. What a caller sends may need more memory than there is: that must not
/// end the daemon.
///
/// \param function  name of the method, for the log ("Unexpected exception", error level)
/// \param failure   result when an exception leaves the steps
/// \return the result of the steps, or \a failure
template<typename Steps>
int Attempt(const char* function, int failure, Steps steps)
{
    try {
        return steps();
    } catch (...) {
        com::veltrasys::common::qt::qError()
            << KX_PREFIX_AS("/pkgs/kx-core/src/server/tools/Server", function) << "Unexpected exception";
        return failure;
    }
}

} // namespace core::tools
