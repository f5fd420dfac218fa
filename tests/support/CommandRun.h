#pragma once

#include "Patience.h"

#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace kxtest {

/// What a program left behind.
struct CommandRun {
    int status = -1;
    QString out;
    QString err;
};

/// Runs a program to its end, without a terminal.
inline CommandRun
RunCommand(const QString& program, const QStringList& arguments,
           const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForFinished(Bound(2 * kPatience)) || process.exitStatus() != QProcess::NormalExit) {
        return {};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

/// The same under the account's ids and groups.
inline CommandRun RunAs(const QString& account, const QStringList& command)
{
    return RunCommand("setpriv",
                      QStringList{"--reuid", account, "--regid", account, "--init-groups"} + command);
}

inline CommandRun RunKxctl(const QStringList& arguments)
{
    return RunCommand("kxctl", arguments);
}

/// \return whether the whole text matches the pattern; "." matches line ends too
inline bool Matches(const QString& text, const QString& pattern)
{
    const QRegularExpression expression(QRegularExpression::anchoredPattern(pattern),
                                        QRegularExpression::DotMatchesEverythingOption);
    return expression.isValid() && expression.match(text).hasMatch();
}

} // namespace kxtest

/// Fails the test with the whole text when it does not match.
#define KX_VERIFY_MATCH(text, pattern)                                                                       \
    QVERIFY2(kxtest::Matches(text, pattern),                                                                 \
             qPrintable("does not match " + QString(pattern) + ":\n" + QString(text)))
