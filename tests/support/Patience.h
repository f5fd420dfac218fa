#pragma once

#include <QtTest>

namespace kxtest {

constexpr int kPatience = 10000; ///< for what takes milliseconds on an idle machine

/// \return \a milliseconds times the factor in the environment variable KX_TIME_FACTOR (slow machines,
///         emulation); 1 when it is not set
inline int Bound(int milliseconds)
{
    static const double factor = qMax(1.0, qgetenv("KX_TIME_FACTOR").toDouble());
    return static_cast<int>(milliseconds * factor);
}

/// Runs the event loop until \a condition holds.
/// \return false when it does not hold within the scaled bound
template<typename Condition>
bool WaitFor(Condition condition, int milliseconds = kPatience)
{
    return QTest::qWaitFor(condition, Bound(milliseconds));
}

} // namespace kxtest

/// Fail the test unless the expression becomes true, or equal, within the usual bound.
#define KX_TRY_VERIFY(expression) QTRY_VERIFY_WITH_TIMEOUT(expression, kxtest::Bound(kxtest::kPatience))
#define KX_TRY_COMPARE(actual, expected)                                                                     \
    QTRY_COMPARE_WITH_TIMEOUT(actual, expected, kxtest::Bound(kxtest::kPatience))
