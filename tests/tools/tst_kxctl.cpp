#include "CommandRun.h"
#include "DaemonFixture.h"

#include <csignal>

using kxtest::CommandRun;
using kxtest::PlatformCalls;
using kxtest::RunCommand;
using kxtest::RunKxctl;

namespace {

const QByteArray kPayConf = R"(<application>
  <run_on_boot>bin/idle 100</run_on_boot>
  <show_on_boot>html/index.html</show_on_boot>
  <desktop_item icon_path="html/pay.svg" title="Pay&#x9b;2J" icon_position="2">html/index.html</desktop_item>
</application>)";

void InstallSamples()
{
    kxtest::RemoveApplications();
    kxtest::InstallApplication("pay", 4002, 4002, kPayConf,
                               {kxtest::IdleProgram(),
                                kxtest::Script("bin/receipt", "echo \"$@\" >\"$APP_TMP_DIR/receipt\"\n"),
                                {"html/index.html", "<p>pay</p>"},
                                {"cgi-bin/amount", "", 0755}});
    // The name of a home is anything that an installer lets through.
    kxtest::InstallApplication("shop\033[31m", 4003, 4003);
}

QJsonDocument Json(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8());
}

/// Runs kxctl with a terminal for standard input and output.
CommandRun RunOnTerminal(const QString& command, const QString& input = {})
{
    return RunCommand("sh",
                      {"-c", "printf '%s' \"$1\" | script -qec \"$2\" /dev/null", "sh", input, command});
}

} // namespace

class KxctlTest : public QObject {
    Q_OBJECT

private:
    /// Compares what a monitor with these options shows of three signals.
    static void ExpectEvents(const QStringList& options, const QString& lines)
    {
        RunKxctl({"zone", "set", ""});
        QProcess monitor;
        monitor.start("kxctl", QStringList("monitor") + options);
        QByteArray err;
        KX_TRY_VERIFY((err += monitor.readAllStandardError()).endsWith("Ctrl-C ends\n"));
        QCOMPARE(RunKxctl({"zone", "set", "Europe/Berlin"}).status, 0);
        QCOMPARE(RunKxctl({"start"}).status, 0);
        QByteArray out;
        KX_TRY_VERIFY((out += monitor.readAllStandardOutput()).count('\n') == 3);
        KX_VERIFY_MATCH(QString(out), lines);

        kill(static_cast<pid_t>(monitor.processId()), SIGINT);
        QVERIFY(monitor.waitForFinished(kxtest::Bound(kxtest::kPatience)));
        QCOMPARE(monitor.exitStatus(), QProcess::NormalExit);
        QCOMPARE(monitor.exitCode(), 0);
        QCOMPARE(monitor.readAllStandardError(), QByteArray());
    }

    kxtest::DaemonFixture m_daemon;

private slots:
    void initTestCase()
    {
        InstallSamples();
        QVERIFY(m_daemon.Start());
    }

    void Answers_data()
    {
        const Table<QStringList, int, QString, QString> table;
        const auto row = [&](const QStringList& arguments, int status, const QString& out,
                             const QString& err = "") {
            table("kxctl " + arguments.join(' ').toUtf8(), arguments, status, out, err);
        };
        row({"apps"}, 0,
            "NAME +USER +UID/GID +SERVED BY +BOOT PROGRAM +BOOT PAGE\n"
            "pay +pay +4002/4002 +CGI +/home/pay/bin/idle 100 +/home/pay/html/index.html\n"
            R"(shop\\u001b\[31m +shop +4003/4003 +FastCGI +- +-\n)");
        row({"apps", "--names"}, 0, "pay\nshop\\\\u001b\\[31m\n");
        row({"app", "pay"}, 0,
            "name +pay\nuser +pay \\(4002\\)\n.*boot program +/home/pay/bin/idle 100\n.*"
            "Desktop:\n  POSITION  TITLE +FORM +ICON\n  2 +Pay\\\\u009b2J +/html/pay/index.html  "
            "/html/pay/pay.svg\n");
        row({"app", "none"}, 1, "", "kxctl: no application 'none' is installed\n");
        row({"start", "pay", "receipt", "a", "--json"}, 0, "pay: started receipt\n");
        row({"start", "pay", "none"}, 1, "",
            "kxctl: Binary file /home/pay/bin/none for app pay doesn't exist\n");
        row({"start", "--json", "none", "x"}, 1, "\\{\n *\"errorCode\": -1,\n *\"errorText\": .*\\}\n",
            "kxctl: Application none doesn't exist\n");
        row({"start"}, 0, "all applications are being restarted\n");
        row({"home"}, 0, "the default form is being shown\n");
        row({"stop"}, 0, "all applications are stopped\n");
        row({"time"}, 0, R"(local time +\d{4}-.*\nUTC +\d{4}-.*\nzone +UTC\nsource +not known\n)");
        row({"time", "set", "yesterday"}, 1, "",
            "kxctl: this is neither [^\n]+ \\(the daemon answered -1\\)\n");
        row({"time", "set", "2024-05-17 13:45:00"}, 1, "",
            "kxctl: the system clock could not be set \\(the daemon answered -2\\)\n");
        row({"zone", "set", "Europe/Berlin"}, 0, "");
        row({"zone"}, 0, "Europe/Berlin\n");
        row({"zone", "set", "../../etc"}, 1, "", "kxctl: the zone '../../etc' was not set[^\n]+\n");
        row({"timeinfo", "", "UTC", "HUB"}, 1, "", "kxctl: time and zone were not set[^\n]+\n");
        row({"timeinfo", "reset"}, 0, "");
        row({"timeinfo", "", "UTC", "HUB", "--json"}, 0, "\\{\n    \"result\": 0\n\\}\n");
        row({"time", "--json"}, 0, ".*\"source\": \"HUB\",\n.*\"zone\": \"(Etc/)?UTC\"\n\\}\n");
        row({"var", "set", "MSG", "hello world"}, 0, "");
        row({"var", "set", "MSG", "a/b"}, 1, "", "kxctl: the variable was not stored: [^\n]+\n");
        row({"audiopayd"}, 0, "off\n");
        row({"audiopayd", "on"}, 0, "on\n");
        row({"audiopayd", "--json"}, 0, "\\{\n    \"enabled\": true\n\\}\n");
        row({"audiopayd", "off"}, 0, "off\n");
        row({"system", "kernel"}, 0, "none runs\n");
        row({"system", "kernel", "--json"}, 0, "\\{\n    \"return\": 0\n\\}\n");
        row({"system", "battery"}, 1, "", "kxctl: the operation failed[^\n]* \\(the daemon answered -1\\)\n");
        row({"system", "call", "103"}, 0, "return  0\n");
        row({"system", "call", "42", "--json"}, 1, "\\{\n    \"return\": -1\n\\}\n",
            "kxctl: the operation failed[^\n]* \\(the daemon answered -1\\)\n");
        row({"system", "log", ""}, 1, "", "kxctl: the operation failed[^\n]*\n");
        row({"system", "call", "97", "caching=maybe"}, 1, "",
            "kxctl: Invalid caching status: maybe \\(the daemon answered -1\\)\n");
    }

    void Answers()
    {
        const auto [arguments, status, out, err] = FetchRow<QStringList, int, QString, QString>();
        const CommandRun run = RunKxctl(arguments);
        KX_VERIFY_MATCH(run.err, err);
        KX_VERIFY_MATCH(run.out, out);
        QCOMPARE(run.status, status);
    }

    void PassesParametersToTheProgram()
    {
        KX_TRY_COMPARE(ReadFile("/tmp/pay/receipt"), QByteArray("a --json\n"));
        QVERIFY(ReadFile("/etc/rc.d/rc.platform.conf").contains("export MSG=\"hello world\"\n"));
    }

    void JsonHasAllOfAnApplication()
    {
        const QString text = RunKxctl({"apps", "--json"}).out;
        QVERIFY(!text.contains(QChar(0x9B))); // as much to a terminal as ESC [
        const QJsonArray all = Json(text).array();
        QCOMPARE(all.size(), 2);
        QCOMPARE(all.at(1).toObject().value("name").toString(), QString("shop\033[31m"));
        const QJsonObject pay = Json(RunKxctl({"--json", "app", "pay"}).out).object();
        QCOMPARE(pay, all.at(0).toObject());
        QCOMPARE(pay.size(), 23);
        QCOMPARE(pay.value("uid").toDouble(), 4002.0);
        QCOMPARE(pay.value("fastCgi"), QJsonValue(false));
        const QJsonObject icon = pay.value("desktopItems").toArray().at(0).toObject();
        QCOMPARE(icon.value("iconPosition").toInt(), 2);
        QCOMPARE(icon.value("title").toString(), QString("Pay\u009b2J"));
        QCOMPARE(icon.value("form").toString(), QString("/html/pay/index.html"));
    }

    void ReachesThePlatform_data()
    {
        const Table<QStringList, QString> table;
        const auto row = [&](const QStringList& arguments, const QString& call) {
            table(arguments.join(' ').toUtf8(), QStringList("system") + arguments, call);
        };
        row({"reboot"}, "reboot");
        row({"poweroff"}, "poweroff");
        row({"hwtest", "--url", "http://localhost/x"}, "hwtest -f OPEN_ON_EXIT_URL=http://localhost/x");
        row({"hwtest"}, "hwtest -f");
        row({"console", "disable"}, "console disable");
        row({"kernel", "set", "2"}, "34-sredd restart");
        row({"web", "--protocol", "HTTPS", "--caching", "off", "--buffering", "on"}, "lighthttpd restart");
        row({"usb", "--mode", "ethernet"}, "modprobe -a usb_f_rndis .*g_ether");
        row({"usb", "--mode", "serial", "--full-speed", "--unit-serial", "--hub-id", "AB", "--lte-connected"},
            "modprobe g_serial .*gadget_uid=y");
        row({"call", "96", "mode=serial", "usbForceFullspeed:=true", "dflt:=true", "usbuid:=false",
             "lteConnected:=true"},
            "modprobe g_serial sernum_str=12345678");
    }

    void ReachesThePlatform()
    {
        const auto [arguments, call] = FetchRow<QStringList, QString>();
        QFile::remove("/run/standins/calls");
        const CommandRun run = RunKxctl(arguments);
        QCOMPARE(run.err, QString());
        QCOMPARE(run.status, 0);
        const QRegularExpression wanted(QRegularExpression::anchoredPattern(call));
        KX_TRY_VERIFY(PlatformCalls().indexOf(wanted) >= 0);
    }

    void SetsWhatTheOptionsSay()
    {
        const QString gadget = "/etc/platform/usb_gadget/";
        QCOMPARE(RunKxctl({"system", "usb", "--mode", "serial", "--full-speed", "--hub-id", "AB"}).status, 0);
        QCOMPARE(QDir(gadget).entryList(QDir::Files, QDir::Name),
                 QStringList({"serial", "usb_force_fullspeed"}));
        QCOMPARE(ReadFile("/etc/platform/sys/hubID"), QByteArray("ab"));
        QCOMPARE(RunKxctl({"system", "usb", "--mode", "ethernet", "--default-ids", "--unit-serial"}).status,
                 0);
        QCOMPARE(QDir(gadget).entryList(QDir::Files, QDir::Name),
                 QStringList({"default_vid_pid", "usb_uid"}));
        QCOMPARE(ReadFile("/etc/platform/sys/hubID"), QByteArray("ab"));

        QCOMPARE(QFile::symLinkTarget("/etc/lighttpd/lighttpd.conf"),
                 QString("/etc/lighttpd/lighttpd.conf.HTTPS"));
        QCOMPARE(QFile::symLinkTarget("/etc/lighttpd/caching.conf"),
                 QString("/etc/lighttpd/disable_cache.conf"));
        QCOMPARE(QFile::symLinkTarget("/etc/lighttpd/buffer-resp.conf"),
                 QString("/etc/lighttpd/buffer-resp-on.conf"));

        WriteFile("/run/standins/pidof.d/sredd2.status", "0\n");
        QCOMPARE(RunKxctl({"system", "kernel"}).out, QString("2\n"));

        const qint64 mark = kxtest::LogMark();
        QCOMPARE(RunKxctl({"system", "log", "--", "-- mark --"}).status, 0);
        const auto records = kxtest::LogSince(mark);
        QVERIFY(std::any_of(records.begin(), records.end(), [](const kxtest::LogRecord& record) {
            return record.priority == "info" && record.text.contains("-- mark --");
        }));
    }

    void MonitorShowsTheSignalsOfAllObjects()
    {
        const QString time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";
        ExpectEvents({}, time + "  /Tools  TimeInfoChanged  [^\n]+  Europe/Berlin  MANUAL\n" + time +
                             "  /Applications  OnTerminate  \\{\\}\n" + time +
                             "  /Applications  OnStarted  \\{\\}\n");
        const QString json = R"(\{"arguments":\[%1\],"object":"/%2","signal":"%3",[^\n]+\n)";
        ExpectEvents({"--json"}, json.arg(R"([^\n]+,"Europe/Berlin","MANUAL")", "Tools", "TimeInfoChanged") +
                                     json.arg(R"(\{\})", "Applications", "OnTerminate") +
                                     json.arg(R"(\{\})", "Applications", "OnStarted"));
    }

    void ColoursOnlyOnATerminal()
    {
        const QString bold = "\033[1mNAME";
        QVERIFY(!RunKxctl({"apps"}).out.contains('\033'));
        QVERIFY(RunOnTerminal("TERM=xterm kxctl apps").out.contains(bold));
        QVERIFY(!RunOnTerminal("TERM=xterm NO_COLOR=1 kxctl apps").out.contains('\033'));
        QVERIFY(!RunOnTerminal("TERM=dumb kxctl apps").out.contains('\033'));
    }

    void TellsWhenThePolicyForbids()
    {
        const CommandRun run = kxtest::RunAs("guest", {"kxctl", "apps"});
        // A counting program complains below that its counts cannot be written.
        KX_VERIFY_MATCH(run.err.section('\n', 0, 0),
                        QString("kxctl: the system bus does not let this account ask for that[^\n]+"));
        QCOMPARE(run.status, 1);
    }

    void ReportsOutputThatCannotBeWritten()
    {
        const CommandRun run = RunCommand("sh", {"-c", "kxctl apps >/dev/full"});
        QCOMPARE(run.err, QString("kxctl: cannot write to standard output\n"));
        QCOMPARE(run.status, 1);
    }

    void GivesUpOnADaemonThatDoesNotAnswer()
    {
        m_daemon.Signal(SIGSTOP);
        const CommandRun run = RunKxctl({"apps", "--timeout", "1"});
        m_daemon.Signal(SIGCONT);
        KX_VERIFY_MATCH(run.err, "kxctl: the daemon did not answer[^\n]+\n");
        QCOMPARE(run.status, 3);
    }

    // Last: it brings the daemon down to the point of the reboot.
    void RestartAsksOnATerminal()
    {
        QFile::remove("/run/standins/calls");
        const CommandRun no = RunOnTerminal("kxctl restart", "n\n");
        KX_VERIFY_MATCH(no.out, ".*restart the terminal\\? \\[y/N\\] .*kxctl:.* nothing was done\r\n");
        QCOMPARE(no.status, 1);
        const CommandRun yes = RunOnTerminal("kxctl restart", "y\n");
        KX_VERIFY_MATCH(yes.out, ".*the terminal is being restarted\r\n");
        QCOMPARE(yes.status, 0);
        KX_TRY_VERIFY(PlatformCalls().contains("reboot"));
        QCOMPARE(PlatformCalls().count("reboot"), 1);
        QCOMPARE(RunKxctl({"restart", "--yes"}).out, QString("the terminal is being restarted\n"));
        KX_TRY_COMPARE(PlatformCalls().count("reboot"), 2);
    }
};

QTEST_GUILESS_MAIN(KxctlTest)
#include "tst_kxctl.moc"
