#pragma once

#include "AppCheck.h"

class QDomElement;

namespace kxctl::check {

/// Checks what app.conf says, element by element: each is given to the daemon's own parser, and what the
/// parser passes over in silence is added.
///
/// \param report  names the application and its directory; receives the problems
void CheckElements(Report& report, const QDomElement& root);

} // namespace kxctl::check
