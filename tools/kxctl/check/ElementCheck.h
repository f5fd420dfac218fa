#pragma once

#include "AppCheck.h"

class QDomElement;

namespace kxctl::check {

/// Checks what app.conf says, element by element: each is given to the daemon's own parser, and what the
/// parser passes over in silence is added.
///
/// \param directory  where the application lies now
/// \param name       what it will be called; its home will be /home/<name>
void CheckElements(const QString& directory, const QString& name, const QDomElement& root,
                   Problems& problems);

} // namespace kxctl::check
