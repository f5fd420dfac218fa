#pragma once

#include <QStringList>

#include <functional>

namespace kxctl::check {

/// \return what the daemon's code logs during \a action, without prefixes and quotes. Not to be nested.
QStringList MessagesOf(const std::function<void()>& action);

} // namespace kxctl::check
