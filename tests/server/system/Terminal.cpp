#include "Terminal.h"

#include "misc/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

constexpr auto kAnswers = "/run/standins";
constexpr auto kCalls = "/run/standins/calls";

/// What the operations write to. The platform's scripts, which are stand-ins, stay.
const QStringList kWritten{"/etc/platform/usb_gadget",
                           "/etc/platform/usbphy0",
                           "/etc/platform/sys",
                           "/etc/platform/settings",
                           "/etc/lighttpd",
                           "/etc/sysconfig",
                           "/sys/bus",
                           "/sys/kernel",
                           "/tmp/kxcore_poweroff",
                           "/var/lib/kxregistry"};
const QStringList kOnEveryTerminal{"/etc/platform/sys", "/etc/platform/settings", "/etc/lighttpd"};

QByteArray Read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void Write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

void Remove(const QString& path)
{
    if (!QFile::remove(path)) {
        QDir(path).removeRecursively();
    }
}

void RecordEvent(const char* name)
{
    QFile calls(kCalls);
    calls.open(QIODevice::Append);
    calls.write(QByteArray(name) + '\n');
}

/// What is at a path, as Files has it.
QByteArray ContentAt(const QString& path)
{
    const QFileInfo info(path);
    if (info.isSymLink()) {
        return "-> " + info.symLinkTarget().toUtf8();
    }
    const QByteArray content = Read(path);
    return info.exists() && content.isNull() ? QByteArray("") : content;
}

} // namespace

void RequirePrivateRoot()
{
    if (!QFile::exists("/run/kx-private-root")) {
        qFatal("not in the private root: run this test through scripts/sandbox");
    }
}

QString Answer(const char* name)
{
    return QString(kAnswers) + '/' + name;
}

Terminal::Terminal() : m_applications(std::make_unique<core::applications::Server>())
{
    QCoreApplication::sendPostedEvents();
    connect(m_applications.get(), &core::applications::Server::OnTerminate, this,
            [] { RecordEvent("OnTerminate"); });
    connect(m_applications.get(), &core::applications::Server::OnStarted, this,
            [] { RecordEvent("OnStarted"); });
}

void Terminal::Reset()
{
    // QtTest has put its own message handler in the daemon's place.
    const com::veltrasys::common::qt::LogInitializer daemonsHandler;
    m_server.reset();
    for (const QFileInfo& answer : QDir(kAnswers).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        if (answer.filePath() != kCalls) {
            Remove(answer.filePath());
        }
    }
    for (const QString& path : kWritten) {
        Remove(path);
    }
    for (const QString& path : kOnEveryTerminal) {
        QDir().mkpath(path);
    }
    TakeCalls();
    TakeLog();
}

core::system::Server& Terminal::Server()
{
    if (!m_server) {
        m_server = std::make_unique<core::system::Server>(*m_applications);
    }
    return *m_server;
}

void Terminal::Run(int methodId, const Case& testCase)
{
    core::system::Server& server = Server();
    Create(testCase.before);
    TakeCalls();
    TakeLog();
    const QVariantMap result = server.SystemCall(methodId, testCase.args);
    QCOMPARE(result, testCase.result);
    // A QVariant's comparison converts.
    QCOMPARE(result.value("return").type(), QVariant::Int);
    QCOMPARE(TakeCalls(), testCase.calls);
    CompareLog(testCase.log);
    Compare(testCase.after);
}

QStringList Terminal::TakeCalls()
{
    QFile calls(kCalls);
    calls.open(QIODevice::ReadWrite);
    const QStringList lines = QString::fromUtf8(calls.readAll()).split('\n', Qt::SkipEmptyParts);
    calls.resize(0);
    return lines;
}

void Terminal::Create(const Files& files)
{
    for (auto file = files.begin(); file != files.end(); ++file) {
        Remove(file.key());
        if (!file->isNull()) {
            QDir().mkpath(QFileInfo(file.key()).path());
        }
        if (file->startsWith("-> ")) {
            QFile::link(file->mid(3), file.key());
        } else if (!file->isNull()) {
            Write(file.key(), *file);
        }
    }
}

void Terminal::Compare(const Files& files)
{
    for (auto file = files.begin(); file != files.end(); ++file) {
        const QByteArray content = ContentAt(file.key());
        QVERIFY2(content == *file && content.isNull() == file->isNull(),
                 qPrintable(QString("%1 holds '%2', not '%3'").arg(file.key(), content, *file)));
    }
}

void Terminal::CompareLog(const QStringList& expected)
{
    const QStringList lines = TakeLogLines();
    QVERIFY2(lines.size() == expected.size(), qPrintable(lines.join('\n')));
    for (int index = 0; index < lines.size(); ++index) {
        QString line = lines[index];
        if (expected[index].endsWith('*')) {
            line = line.left(expected[index].size() - 1) + '*';
        }
        QCOMPARE(line, expected[index]);
    }
}
