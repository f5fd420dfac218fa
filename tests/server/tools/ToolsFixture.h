#pragma once

#include "server/tools/Server.h"

#include "FakeClock.h"
#include "LogRecorder.h"

#include <Registry.h>

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QtTest>

const QString kLink = "/etc/localtime";
const QString kOffset = "/etc/time_offset";
const QString kHardwareClock = "/sys/class/rtc/rtc0/since_epoch";
const QString kClockRecord = FAKE_CLOCK_RECORD;
const QString kKey = "%platform.timeInfoSource";
const QString kBerlin = "/usr/share/zoneinfo/Europe/Berlin";

/// Writes a file and makes its directories.
void Write(const QString& path, const QByteArray& content);

/// \return the content of a file; "(missing)" when it cannot be read
QByteArray Read(const QString& path);

/// Removes a file, a link or an empty directory.
void Remove(const QString& path);

/// \return what the link says, to the letter; empty when there is no link
QString LinkTarget(const QString& path);

/// \return the texts logged since the last call, all of them by the tools server's \a function at error level
QStringList Errors(const QString& function);

/// \return whether \a utcTime is \a expected or up to a minute later: the clock runs while a test does
bool IsAbout(const QString& utcTime, const QString& expected);

/// Base of the test classes: a server on a terminal without zone, source, or hardware clock, on which it is
/// 2023-11-14 22:13:20 UTC.
class ToolsFixture : public QObject {
    Q_OBJECT

public slots:
    /// Puts the daemon's message handler back in the place that QtTest has taken.
    void initTestCase();
    void init();

protected:
    core::tools::Server m_server;
    com::veltrasys::Registry m_registry;
    QSignalSpy m_changed{&m_server, &core::tools::Server::TimeInfoChanged};
};

/// Ends the program unless it runs in the private root.
void RequirePrivateRoot();

/// main for a class derived from ToolsFixture.
#define KX_TOOLS_TEST_MAIN(Test)                                                                             \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        RequirePrivateRoot();                                                                                \
        const QCoreApplication application(argc, argv);                                                      \
        Test test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                              \
    }
