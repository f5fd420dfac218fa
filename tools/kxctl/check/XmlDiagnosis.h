#pragma once

#include "AppCheck.h"

#include <QByteArray>

namespace kxctl::check {

/// Tells why the daemon does not read a text that its reader has refused, with line and column.
Problem DiagnoseXml(const QByteArray& xml);

} // namespace kxctl::check
