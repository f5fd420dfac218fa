#pragma once

#include "FakeClock.h"
#include "Files.h"
#include "Fixture.h"

#include "server/tools/Server.h"

#include <Registry.h>

const QString kLink = "/etc/localtime";
const QString kOffset = "/etc/time_offset";
const QString kHardwareClock = "/sys/class/rtc/rtc0/since_epoch";
const QString kClockRecord = FAKE_CLOCK_RECORD;
const QString kKey = "%platform.timeInfoSource";
const QString kBerlin = "/usr/share/zoneinfo/Europe/Berlin";

/// \return what the link says, to the letter; empty when there is no link
QString LinkTarget(const QString& path);

/// \return the texts logged since the last call, all of them by the tools server's \a function at error level
QStringList Errors(const QString& function);

/// Base of the test classes: a server on a terminal without zone, source, or hardware clock, on which it is
/// 2023-11-14 22:13:20 UTC.
class ToolsFixture : public Fixture {
    Q_OBJECT

public slots:
    void init();

protected:
    /// Expects no record but one signal, and the source stored. The clock runs while a test does, so the time
    /// may be up to a minute later.
    void ExpectAnnounced(const QString& utcTime, const QString& zone, const QString& source);

    /// Expects that nothing was stored or announced.
    void ExpectNothingChanged();

    core::tools::Server m_server;
    com::veltrasys::Registry m_registry;
    QSignalSpy m_changed{&m_server, &core::tools::Server::TimeInfoChanged};
};
