#pragma once

#include "misc/Log.h"

#include <utility>

namespace Misc {

/// Runs the body of an operation that the bus or the event loop calls, and that no exception may leave. What
/// escapes the body is logged at error level as "Unexpected exception".
///
/// \param prefix  KX_PREFIX of the operation, so that the record names it
/// \param body    the operation; what it had done before an exception stays done
template<typename Body>
void Guarded(const QString& prefix, Body&& body)
{
    try {
        std::forward<Body>(body)();
    } catch (...) {
        com::veltrasys::common::qt::qError() << prefix << "Unexpected exception";
    }
}

} // namespace Misc
