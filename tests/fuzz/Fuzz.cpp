// Random input for what reads what others wrote, see scripts/fuzz. An input is a row of fields with tabs
// between them. Commands are replaced; a command line that is not one of the daemon's own is a finding.
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/system/Server.h"

#include <veltradebug.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>

#include <unistd.h>

#include <cstring>

namespace {

QByteArray g_output;   // of each command
QByteArray g_statuses; // of the commands, a character each; then success

void Require(bool holds, const char* property)
{
    if (!holds) {
        std::fprintf(stderr, "A property does not hold: %s\n", property);
        std::abort();
    }
}

using Fields = QList<QByteArray>; // a field that is missing is empty

QString Text(const QByteArray& field)
{
    return QString::fromUtf8(field).remove(QChar::Null);
}

void PutFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    QDir().mkpath(QFileInfo(path).path());
    Require(file.open(QIODevice::WriteOnly) && file.write(content) == content.size(), "files can be written");
}

struct Daemon {
    core::applications::Server applications;
    core::system::Server system{applications};
};

Daemon* g_daemon = nullptr;

/// An app.conf: a number, the begin, a part that is repeated so often, the middle, another such part, the
/// end. That makes deep elements and large entities, which run out of stack, memory or time.
void TryAppConf(const Fields& fields)
{
    constexpr int kLargestPart = 512 * 1024;
    QByteArray xml;
    for (int n = 1; n <= 5; ++n) {
        const QByteArray part = fields.value(n);
        const int count = qBound(0, fields[0].toInt(), kLargestPart / (part.size() + 1));
        xml += part.repeated(n % 2 == 0 ? count : 1);
    }
    PutFile("/home/pay/app.conf", xml);
    const auto config = core::configuration::Parser::GatherApplicationData("pay");
    for (const auto& item : config.m_desktopItems) {
        Require(item.m_form.startsWith("/html/pay/"), "a form is the application's own");
        Require(item.m_iconPath.isEmpty() || item.m_iconPath.startsWith("/html/pay/"), "so is an icon");
    }
    Require(config.m_runOnBoot.isEmpty() || config.m_runOnBoot.startsWith("/home/pay/"), "so is a program");
    Require(config.m_prompts == QDir::cleanPath(config.m_prompts), "a path is clean");
    Require(config.m_name == "pay" && config.m_uid == 0, "name and owner are not in the file");
}

/// A path of app.conf or of a caller, then the application that has it as a page.
void TryPath(const Fields& fields)
{
    const QString path = Text(fields[0]);
    QString name = Text(fields.value(1));
    const QString normal = FileSystem::NormalizeFilePath(path, "/home/pay");
    Require(path.isEmpty() ? normal.isEmpty() : normal.startsWith('/'), "a path is absolute");
    Require(!normal.contains("//") && !(normal + '/').contains("/./"), "a path is clean");
    Require(FileSystem::NormalizeFilePath(normal, "/home/pay") == normal, "what is normal stays as it is");
    const QString address = g_daemon->applications.PathToURI(path, name);
    Require(address.isEmpty() || address.startsWith("http://localhost"), "a page is this terminal's");
    Require(!address.contains(QRegularExpression("[^!-~]")), "an address is encoded");
}

/// A system call: its number, exit statuses, what a command prints, then keys and values in turn.
void TrySystemCall(const Fields& fields)
{
    const int number = fields[0].toInt();
    g_statuses = fields.value(1);
    g_output = fields.value(2);
    QVariantMap arguments;
    for (int n = 3; n < fields.size(); n += 2) {
        const QString value = Text(fields.value(n + 1));
        arguments.insert(Text(fields[n]), value.startsWith('[') ? QVariant(value.split(' ')) : value);
    }
    const QVariantMap result = g_daemon->system.SystemCall(number, arguments);
    Require(result.value("return").type() == QVariant::Int, "every call returns a status");
    Require((number == 97) == result.contains("response"), "the web server's call tells what happened");
    static const QRegularExpression own("\\A(|/etc/lighttpd/[a-z_-]+\\.conf(\\.HTTPS?)?)\\z");
    for (const QString link : {"lighttpd.conf", "caching.conf", "buffer-resp.conf"}) {
        const QString target = QFile::symLinkTarget("/etc/lighttpd/" + link);
        Require(own.match(target).hasMatch(), "its own file is linked");
    }
    QCoreApplication::processEvents();
}

/// A key of the registry, its value, what `iw dev` prints.
void TryRegistryValue(const Fields& fields)
{
    const QString key = Text(fields[0]);
    const QString value = Text(fields.value(1));
    g_output = fields.value(2);
    QMetaObject::invokeMethod(&g_daemon->system, "valueChanged", Q_ARG(QString, key), Q_ARG(QString, value));
    QFile file("/etc/sysconfig/syslog");
    const QByteArray options = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    static const QRegularExpression plain("\\A(SYSLOGD_OPTIONS=\"( -L -R [0-9.]{7,15}:[0-9]+)?\"\\n)?\\z");
    Require(plain.match(options).hasMatch(), "a script can read the options");
    QMetaObject::invokeMethod(&g_daemon->system, "keyDeleted", Q_ARG(QString, key));
}

using Entry = void (*)(const Fields& fields);
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
void VLS_PrintLog(int, const char*, const char*, const char*, const char*, int, const char* format, ...)
{
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

int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    Require(access("/run/kx-private-root", F_OK) == 0, "this changes the system: run it with scripts/fuzz");
    static const QCoreApplication application(*argc, *argv);
    static Daemon daemon;
    g_daemon = &daemon;
    const QMap<QString, Entry> entries{{"appconf", TryAppConf},
                                       {"path", TryPath},
                                       {"registryvalue", TryRegistryValue},
                                       {"systemcall", TrySystemCall}};
    g_entry = entries.value(qgetenv("KX_FUZZ_ENTRY"));
    Require(g_entry != nullptr, "KX_FUZZ_ENTRY names an entry");
    PutFile("/home/pay/html/index.html", {});
    QDir().mkpath("/etc/lighttpd");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    g_entry(input.trimmed().split('\t')); // without the newline of a text file
    return 0;
}

} // extern "C"
