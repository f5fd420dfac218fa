#include "SystemFixture.h"

#include "misc/Log.h"

namespace {

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

void RecordEvent(const QByteArray& name)
{
    WriteFile(kCalls, ReadFile(kCalls) + name + '\n', 0, 0, 0666);
}

/// What is at a path, as Files has it.
QByteArray ContentAt(const QString& path)
{
    const QFileInfo info(path);
    if (info.isSymLink()) {
        return "-> " + info.symLinkTarget().toUtf8();
    }
    const QByteArray content = ReadFile(path);
    return info.exists() && content.isNull() ? QByteArray("") : content;
}

template<typename Map>
Map Changed(Map map, const Map& changes)
{
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        map[change.key()] = *change;
    }
    return map;
}

} // namespace

QString Answer(const char* name)
{
    return QStringLiteral("/run/standins/") + name;
}

Files With(Files files, const Files& changes)
{
    return Changed(std::move(files), changes);
}

QVariantMap With(QVariantMap args, const QVariantMap& changes)
{
    return Changed(std::move(args), changes);
}

SystemFixture::SystemFixture() : m_applications(std::make_unique<core::applications::Server>())
{
    QCoreApplication::sendPostedEvents();
    connect(m_applications.get(), &core::applications::Server::OnTerminate, this,
            [] { RecordEvent("OnTerminate"); });
    connect(m_applications.get(), &core::applications::Server::OnStarted, this,
            [] { RecordEvent("OnStarted"); });
}

void SystemFixture::init()
{
    m_server.reset();
    for (const QFileInfo& answer : QDir(Answer("")).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        if (answer.filePath() != kCalls) {
            RemoveAll(answer.filePath());
        }
    }
    for (const QString& path : kWritten) {
        RemoveAll(path);
    }
    for (const QString& path : kOnEveryTerminal) {
        MakeDirectory(path);
    }
    TakeCalls();
    Fixture::init();
}

core::system::Server& SystemFixture::Server()
{
    if (!m_server) {
        m_server = std::make_unique<core::system::Server>(*m_applications);
    }
    return *m_server;
}

void SystemFixture::RunCase(int methodId)
{
    const auto [testCase] = FetchRow<Case>();
    Run(methodId, testCase);
}

void SystemFixture::Run(int methodId, const Case& testCase)
{
    core::system::Server& server = Server();
    Create(testCase.before);
    TakeCalls();
    TakeLog();
    const QVariantMap result = server.SystemCall(methodId, testCase.args);
    QCOMPARE(result, testCase.result);
    // A QVariant's comparison converts.
    QCOMPARE(result.value("return").type(), QVariant::Int);
    CompareEffects(testCase);
}

QStringList SystemFixture::TakeCalls()
{
    QFile calls(kCalls);
    calls.open(QIODevice::ReadWrite);
    const QStringList lines = QString::fromUtf8(calls.readAll()).split('\n', Qt::SkipEmptyParts);
    calls.resize(0);
    return lines;
}

void SystemFixture::Create(const Files& files)
{
    for (auto file = files.begin(); file != files.end(); ++file) {
        RemoveAll(file.key());
        if (file->startsWith("-> ")) {
            MakeLink(file->mid(3), file.key());
        } else if (!file->isNull()) {
            WriteFile(file.key(), *file);
        }
    }
}

void SystemFixture::Compare(const Files& files)
{
    for (auto file = files.begin(); file != files.end(); ++file) {
        const QByteArray content = ContentAt(file.key());
        QVERIFY2(content == *file && content.isNull() == file->isNull(),
                 qPrintable(QString("%1 holds '%2', not '%3'").arg(file.key(), content, *file)));
    }
}

void SystemFixture::CompareEffects(const Case& testCase)
{
    QCOMPARE(TakeCalls(), testCase.calls);
    const QStringList lines = TakeLogLines();
    QVERIFY2(lines.size() == testCase.log.size(), qPrintable(lines.join('\n')));
    for (int index = 0; index < lines.size(); ++index) {
        const QString& expected = testCase.log[index];
        QCOMPARE(expected.endsWith('*') ? lines[index].left(expected.size() - 1) + '*' : lines[index],
                 expected);
    }
    Compare(testCase.after);
}
