// The steps that change settings of the platform through /System, /Tools and the registry.
#include "Checks.h"
#include "Files.h"

#include <QFileInfo>
#include <QProcess>

namespace {

constexpr auto kZone = "Europe/Berlin";
constexpr auto kVariables = "/etc/rc.d/rc.platform.conf";
constexpr auto kSyslogKey = "%platform.syslog.remoteIP:port";
constexpr auto kSyslogOptions = "/etc/sysconfig/syslog";
constexpr auto kCalls = "/run/standins/calls";
constexpr int kUsbMode = 96;

// Runs the registry's tool; what it prints, or nothing when it fails.
QString Registry(const QStringList& arguments)
{
    QProcess tool;
    tool.start(QStringLiteral("kxregistry"), arguments);
    const bool success =
        tool.waitForFinished() && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    return success ? QString::fromUtf8(tool.readAllStandardOutput()).trimmed() : QString();
}

QString RegistryValue(const char* key)
{
    return Registry({QStringLiteral("get"), QString::fromLatin1(key)});
}

QStringList Calls()
{
    return Contents(kCalls).split(QLatin1Char('\n'));
}

} // namespace

void Checks::SetsTimeZone()
{
    const int before = m_terminal.TimeInfoCount();
    const int result = m_terminal.SetTimeZone(QString::fromLatin1(kZone));
    Expect(result == 0, QStringLiteral("SetTimeZone of %1 returns 0").arg(QLatin1String(kZone)),
           QString::number(result) + m_terminal.LastError());
    const QString target = QFileInfo(QStringLiteral("/etc/localtime")).symLinkTarget();
    Show(QStringLiteral("/etc/localtime"), target);
    Expect(target == QLatin1String("/usr/share/zoneinfo/") + QLatin1String(kZone),
           QStringLiteral("the zone file is linked"), target);
    Expect(WaitFor([&] { return m_terminal.TimeInfoCount() == before + 1; }),
           QStringLiteral("TimeInfoChanged is signalled"));
    const QString source = RegistryValue("%platform.timeInfoSource");
    Show(QStringLiteral("%platform.timeInfoSource"), source);
    Expect(source == QLatin1String("MANUAL"), QStringLiteral("the time is known as set by hand"), source);
    Expect(m_terminal.SetTimeZone(QStringLiteral("../../../etc/passwd")) == 1,
           QStringLiteral("a zone outside of the zone files is refused"));
}

void Checks::SavesVariable()
{
    const auto save = [&](const char* value) {
        return m_terminal.SaveVariable(QStringLiteral("BACKLIGHT_LEVEL"), QString::fromLatin1(value));
    };
    Expect(save("60") == 0, QStringLiteral("SaveVariableValue returns 0"), m_terminal.LastError());
    const QString variables = Contents(kVariables);
    Show(QString::fromLatin1(kVariables), variables.section(QLatin1Char('\n'), 3, 3));
    Expect(variables.contains(QLatin1String("\nexport BACKLIGHT_LEVEL=\"60\"\n")) &&
               !variables.contains(QLatin1String("=\"80\"")),
           QStringLiteral("the variable's line has the new value"), variables);
    Expect(save("$(reboot)") == -1 && Contents(kVariables) == variables,
           QStringLiteral("a value that a shell would run is refused"));
}

void Checks::SwitchesUsbMode()
{
    const int terminated = m_terminal.TerminatedCount();
    const int started = m_terminal.StartedCount();
    const int before = Calls().size() - 1;
    const QVariantMap result =
        m_terminal.CallSystem(kUsbMode, {{QStringLiteral("mode"), QStringLiteral("serial")},
                                         {QStringLiteral("usbForceFullspeed"), QStringLiteral("false")},
                                         {QStringLiteral("dflt"), QStringLiteral("false")},
                                         {QStringLiteral("usbuid"), QStringLiteral("false")}});
    Expect(result.value(QStringLiteral("return"), -1).toInt() == 0,
           QStringLiteral("SystemCall %1 with mode serial returns 0").arg(kUsbMode), m_terminal.LastError());
    Expect(QFile::exists(QStringLiteral("/etc/platform/usb_gadget/serial")),
           QStringLiteral("the mode is kept for the next boot"));
    const QStringList modules = Calls().mid(before).filter(QStringLiteral("mod"));
    for (const QString& call : modules) {
        Show(call.section(QLatin1Char(' '), 0, 0), call.section(QLatin1Char(' '), 1));
    }
    Expect(!modules.filter(QStringLiteral("rmmod u_ether")).isEmpty(),
           QStringLiteral("the modules of the network adapter are unloaded"));
    Expect(!modules.filter(QStringLiteral("modprobe g_serial")).isEmpty(),
           QStringLiteral("the modules of the serial port are loaded"));
    Expect(WaitFor([&] {
               return m_terminal.TerminatedCount() > terminated && m_terminal.StartedCount() > started;
           }),
           QStringLiteral("the applications were stopped and started around it"));
    ExpectRunning(QStringLiteral("pay"), QStringLiteral("/home/pay/bin/payd"));
    ExpectRunning(QStringLiteral("shop"), QStringLiteral("/home/shop/bin/shopd"));
}

void Checks::ChangesRegistry()
{
    const auto set = [](const char* value) {
        Registry({QStringLiteral("set"), QString::fromLatin1(kSyslogKey), QString::fromLatin1(value)});
    };
    const auto options = [] { return Contents(kSyslogOptions).trimmed(); };
    set("10.0.0.5:514");
    const QString remote = QStringLiteral("SYSLOGD_OPTIONS=\" -L -R 10.0.0.5:514\"");
    Expect(WaitFor([&] { return options() == remote; }),
           QStringLiteral("syslog is told to log to 10.0.0.5:514"), options());
    Show(QString::fromLatin1(kSyslogOptions), options());
    Expect(WaitFor([] { return Calls().contains(QStringLiteral("syslog restart")); }),
           QStringLiteral("syslog is restarted"));
    set("10.0.0.5");
    Expect(WaitFor([&] { return options() == QLatin1String("SYSLOGD_OPTIONS=\"\""); }),
           QStringLiteral("a target without a port ends remote logging"), options());
    ExpectLogged(QStringLiteral("and is reported"), QStringLiteral("!!!Attempt to set incorrect ip-address"));
    Expect(WaitFor([] { return RegistryValue(kSyslogKey).isEmpty(); }),
           QStringLiteral("and is taken back from the registry"), RegistryValue(kSyslogKey));
}
