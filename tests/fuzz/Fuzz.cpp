// Random input for what reads what others wrote: kx_fuzz ENTRY [OPTION...], see scripts/fuzz. An input is a
// row of fields with tabs between them. Commands and the clock are replaced; a command line that is not one
// of the daemon's own is a finding.
#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/system/Server.h"
#include "server/tools/Server.h"

#include <veltradebug.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>

#include <unistd.h>

#include <cstring>

namespace {

QByteArray g_output;          // of each command
QByteArray g_statuses;        // of the commands, a character each; then success
QVector<std::time_t> g_clock; // what it was set to

void Require(bool holds, const char* property)
{
    if (!holds) {
        std::fprintf(stderr, "A property does not hold: %s\n", property);
        std::abort();
    }
}

/// The first field, which is taken out of the input.
QByteArray NextField(QByteArray& input)
{
    const int end = input.indexOf('\t');
    const QByteArray field = input.left(end);
    input = end < 0 ? QByteArray() : input.mid(end + 1);
    return field;
}

QString NextText(QByteArray& input)
{
    return QString::fromUtf8(NextField(input)).remove(QChar::Null);
}

void PutFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    QDir().mkpath(QFileInfo(path).path());
    Require(file.open(QIODevice::WriteOnly) && file.write(content) == content.size(), "files can be written");
}

QByteArray FileContent(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct Daemon {
    core::applications::Server applications;
    core::system::Server system{applications};
    core::tools::Server tools;
};

Daemon* g_daemon = nullptr;

/// An app.conf: a number, the begin, a part that is repeated so often, the middle, another such part, the
/// end. That makes deep elements and large entities, which run out of stack, memory or time.
void TryAppConf(QByteArray input)
{
    using core::configuration::Parser;
    constexpr int kLargestPart = 512 * 1024;
    const int count = NextField(input).toInt();
    QByteArray xml;
    for (const bool repeats : {false, true, false, true, false}) {
        const QByteArray part = NextField(input);
        xml += part.repeated(repeats ? qBound(0, count, kLargestPart / (part.size() + 1)) : 1);
    }
    PutFile("/home/pay/app.conf", xml);
    const auto config = Parser::GatherApplicationData("pay");
    for (const auto& item : config.m_desktopItems) {
        Require(item.m_form.startsWith("/html/pay/"), "a form is the application's own");
        Require(item.m_iconPath.isEmpty() || item.m_iconPath.startsWith("/html/pay/"), "so is an icon");
    }
    Require(config.m_runOnBoot.isEmpty() || config.m_runOnBoot.startsWith("/home/pay/"), "so is a program");
    Require(config.m_prompts == QDir::cleanPath(config.m_prompts), "a path is clean");
    Require(config.m_name == "pay" && config.m_uid == 0, "name and owner are not in the file");
}

/// A path of app.conf or of a caller, then the application that has it as a page.
void TryPath(QByteArray input)
{
    const QString path = NextText(input);
    QString name = NextText(input);
    const QString normal = FileSystem::NormalizeFilePath(path, "/home/pay");
    Require(path.isEmpty() ? normal.isEmpty() : normal.startsWith('/'), "a path is absolute");
    Require(!normal.contains("//") && !(normal + '/').contains("/./"), "a path is clean");
    Require(FileSystem::NormalizeFilePath(normal, "/home/pay") == normal, "what is normal stays as it is");
    const QString address = g_daemon->applications.PathToURI(path, name);
    Require(address.isEmpty() || address.startsWith("http://localhost"), "a page is this terminal's");
    Require(!address.contains(QRegularExpression("[^!-~]")), "an address is encoded");
}

/// A system call: its number, exit statuses, what a command prints, then keys and values in turn.
void TrySystemCall(QByteArray input)
{
    const int number = NextField(input).toInt();
    g_statuses = NextField(input);
    g_output = NextField(input);
    QVariantMap arguments;
    while (!input.isEmpty()) {
        const QString key = NextText(input);
        const QString value = NextText(input);
        arguments.insert(key, value.startsWith('[') ? QVariant(value.split(' ')) : value);
    }
    const QVariantMap result = g_daemon->system.SystemCall(number, arguments);
    Require(result.value("return").type() == QVariant::Int, "every call returns a status");
    Require((number == 97) == result.contains("response"), "the web server's call tells what happened");
    static const QRegularExpression own("\\A(|/etc/lighttpd/[a-z_-]+\\.conf(\\.HTTPS?)?)\\z");
    for (const QString link : {"lighttpd.conf", "caching.conf", "buffer-resp.conf"}) {
        Require(own.match(QFile::symLinkTarget("/etc/lighttpd/" + link)).hasMatch(),
                "its own file is linked");
    }
    QCoreApplication::processEvents();
}

/// A key of the registry, its value, what `iw dev` prints.
void TryRegistryValue(QByteArray input)
{
    const QString key = NextText(input);
    const QString value = NextText(input);
    g_output = input;
    QMetaObject::invokeMethod(&g_daemon->system, "valueChanged", Q_ARG(QString, key), Q_ARG(QString, value));
    static const QRegularExpression plain("\\A(SYSLOGD_OPTIONS=\"( -L -R [0-9.]{7,15}:[0-9]+)?\"\\n)?\\z");
    Require(plain.match(FileContent("/etc/sysconfig/syslog")).hasMatch(), "a script can read the options");
    QMetaObject::invokeMethod(&g_daemon->system, "keyDeleted", Q_ARG(QString, key));
}

/// A time, a zone, the hardware clock's file.
void TryTime(QByteArray input)
{
    const QString text = NextText(input);
    const QString zone = NextText(input);
    PutFile("/sys/class/rtc/rtc0/since_epoch", input);
    g_clock.clear();
    g_daemon->tools.SetTimeZone("");
    const int result = g_daemon->tools.SetSystemTime(text);
    Require(g_clock.size() == (result == 0 ? 1 : 0), "the clock is set for a valid time only");
    const QDateTime expected = QDateTime::fromString(text, "yyyy-MM-dd HH:mm:ss"); // another parser's opinion
    Require(g_clock.isEmpty() || !expected.isValid() || g_clock[0] == expected.toSecsSinceEpoch(),
            "the clock is set to the given time");
    g_daemon->tools.SetTimeZone(zone);
    const QString link = QFileInfo("/etc/localtime").canonicalFilePath();
    Require(link.isEmpty() || link.startsWith("/usr/share/zoneinfo/"), "the link leads to a zone");
}

/// A platform variable's name and value, the file that is there.
void TryVariable(QByteArray input)
{
    const QString path = "/etc/rc.d/rc.platform.conf";
    const QString name = NextText(input).left(64); // a long pattern may take long
    const QString value = NextText(input);
    const QByteArray before = input.replace('\r', ' ').replace('\0', ' ');
    PutFile(path, before);
    const bool saved = g_daemon->tools.SaveVariableValue(name, value) == 0;
    const QByteArray after = FileContent(path);
    const QByteArray line = QStringLiteral("export %1=\"%2\"\n").arg(name, value).toLocal8Bit();
    Require(saved ? after.contains(line) : after == before, "a value is saved, or nothing changes");
    Require(!saved || !value.contains(QRegularExpression("[!-/:-@[-`{-~]")), "a value stays in its quotes");
}

/// A text on its way to the log.
void TryLog(QByteArray input)
{
    using com::veltrasys::common::qt::LogInitializer;
    QString file, function, text;
    int line = 0;
    const QString message = QString::fromUtf8(input);
    if (LogInitializer::SplitMsg(message, file, function, line, text)) {
        Require(!file.isEmpty() && !function.isEmpty() && line != 0, "a prefix is complete");
    }
    const QString prefix = '"' + com::veltrasys::common::qt::GetPrefix("/a/Server", "Start", 42, false) + '"';
    LogInitializer::SplitMsg(prefix + message, file, function, line, text);
    Require(function == "Start" && line == 42 && text == message, "a prefix comes off");
    LogInitializer::QtMsgHandler(input.isEmpty() ? 0 : input.at(0), input.constData());
}

using Entry = void (*)(QByteArray input);
Entry g_entry = nullptr;

/// Only the daemon's own lines, some of which are of harmless characters alone.
void RequireOwn(const char* command)
{
    static const QRegularExpression own(
        "\\A([ \\w/.=-]+( \\| grep [ \\w-]+)?( \\| awk -F '#' '\\{ print \\$2 "
        "\\}')?|/sred/root/hwtest/hwtest -f &"
        "|touch /tmp/kxcore_poweroff && poweroff|echo [0-9]+ > [\\w/]+"
        "|err=`rmmod \\w+ 2>&1`; rc=\\$\\? ; logger \\$err ; return \\$rc)\\z");
    Require(own.match(command).hasMatch(), command);
}

} // namespace

// In place of the platform's library: nothing of this is to reach a log.
void VLS_PrintLog(int priority, const char*, const char*, const char*, const char*, int, const char* format,
                  ...)
{
    Require(priority >= 0 && priority <= 7, "a priority is syslog's");
    Require(std::strcmp(format, "%s") == 0, "no text is used as a format");
}

extern "C" {

int __wrap_system(const char* command)
{
    RequireOwn(command);
    const int status = g_statuses.isEmpty() ? 0 : (g_statuses[0] ^ '0') & 0xFF;
    g_statuses.remove(0, 1);
    return status << 8;
}

FILE* __wrap_popen(const char* command, const char*)
{
    RequireOwn(command);
    return fmemopen(g_output.data(), static_cast<std::size_t>(g_output.size()), "r");
}

int __wrap_clock_settime(clockid_t, const timespec* time)
{
    g_clock.append(time->tv_sec);
    return 0;
}

int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    Require(access("/run/kx-private-root", F_OK) == 0, "this changes the system: run it with scripts/fuzz");
    static const QCoreApplication application(*argc, *argv);
    static Daemon daemon;
    g_daemon = &daemon;
    const QMap<QString, Entry> entries{{"appconf", TryAppConf},
                                       {"log", TryLog},
                                       {"path", TryPath},
                                       {"registryvalue", TryRegistryValue},
                                       {"systemcall", TrySystemCall},
                                       {"time", TryTime},
                                       {"variable", TryVariable}};
    g_entry = entries.value((*argv)[1]);
    Require(g_entry != nullptr, "the first argument is an entry");
    (*argv)[1] = (*argv)[0];
    ++*argv;
    --*argc;
    PutFile("/home/pay/html/index.html", {});
    QDir().mkpath("/etc/lighttpd");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (input.endsWith('\n')) { // of a text file
        input.chop(1);
    }
    g_entry(input);
    return 0;
}

} // extern "C"
