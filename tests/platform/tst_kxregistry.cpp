#include "RegistryStore.h"

#include <QtTest>

#include <csignal>

#include <sys/stat.h>

using namespace registrystore;

/// The tool from outside: exit status, standard output, standard error.
class ToolTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void Answers_data();
    void Answers();
    void ChangesTheStore();
    void FollowsConfiguration_data();
    void FollowsConfiguration();
    void NeedsNoLocale();
    void DeniesOtherAccounts();
    void Watches_data();
    void Watches();
};

namespace {

constexpr auto kHint = "\nTry 'kxregistry --help'.\n";
constexpr auto kStored = "a=1\nempty=\nlines=x\\ny\n-d=-1\n";

unsigned ModeOf(const QString& path)
{
    struct stat status = {};
    return stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777U : 0U;
}

} // namespace

void ToolTest::initTestCase()
{
    QVERIFY2(IsPrivateRoot(), "run this test through scripts/sandbox");
}

void ToolTest::cleanup()
{
    Remove();
}

void ToolTest::Answers_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("errors");
    const auto row = [](const QStringList& arguments, int status, const QByteArray& output,
                        const QByteArray& errors = {}, const QByteArray& stored = kStored) {
        const QByteArray name = arguments.join(' ').toUtf8() + (stored == kStored ? "" : ", other store");
        QTest::newRow(name.constData()) << arguments << stored << status << output << errors;
    };
    const auto misuse = [&](const QStringList& arguments, const QByteArray& why) {
        row(arguments, 2, "", "kxregistry: " + why + kHint);
    };
    row({"get", "a"}, 0, "1\n");
    row({"get", "empty"}, 0, "\n");
    row({"get", "lines"}, 0, "x\ny\n");
    row({"get", "-d"}, 0, "-1\n");
    row({"get", "absent"}, 1, "", "kxregistry: no key 'absent'\n");
    row({"list"}, 0, "-d=-1\na=1\nempty=\nlines=x\\ny\n");
    row({"list"}, 0, "", "", "");
    row({"set", "a", "-2"}, 0, "");
    row({"delete", "a"}, 0, "");
    row({"delete", "absent"}, 0, "");
    row({"--version"}, 0, "kxregistry " KX_VERSION "\n");

    const QByteArray unreadable = QByteArray("kxregistry: ") + kFile + ": line 2 is not KEY=VALUE\n";
    for (const char* command : {"get|a", "set|a|1", "delete|a", "list", "watch"}) {
        row(QString(command).split('|'), 1, "", unreadable, "a=1\nb\n");
    }

    misuse({}, "command missing");
    misuse({"put"}, "unknown command 'put'");
    misuse({"get"}, "usage: kxregistry get KEY");
    misuse({"get", "a", "b"}, "usage: kxregistry get KEY");
    misuse({"set", "a"}, "usage: kxregistry set KEY VALUE");
    misuse({"set", "", "1"}, "a key must not be empty");
    misuse({"--frob", "list"}, "Unknown option 'frob'.");
}

void ToolTest::Answers()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, stored);
    QVERIFY(QDir().mkpath(kFolder));
    QVERIFY(Write(kFile, stored));
    const Outcome outcome = RunTool(arguments);
    QTEST(outcome.errors, "errors");
    QTEST(outcome.output, "output");
    QTEST(outcome.status, "status");
}

void ToolTest::ChangesTheStore()
{
    QCOMPARE(RunTool({"set", "a", "-2"}).status, 0);
    QCOMPARE(RunTool({"set", "b", ""}).status, 0);
    QCOMPARE(RunTool({"list"}).output, QByteArray("a=-2\nb=\n"));
    QCOMPARE(RunTool({"delete", "a"}).status, 0);
    QCOMPARE(RunTool({"list"}).output, QByteArray("b=\n"));
}

void ToolTest::FollowsConfiguration_data()
{
    QTest::addColumn<QByteArray>("configuration");
    QTest::addColumn<QString>("file");
    QTest::addColumn<unsigned>("mode");
    QTest::addColumn<unsigned>("folderMode");
    QTest::addColumn<QByteArray>("errors");
    const QString elsewhere = QString(kFolder) + "/else/where/store";
    const QByteArray complaint = QByteArray("kxregistry: ") + kConfiguration + ": ";
    QTest::newRow("nothing") << QByteArray("") << QString(kFile) << 0600U << 0700U << QByteArray();
    QTest::newRow("mode") << QByteArray("mode=0644\n") << QString(kFile) << 0644U << 0755U << QByteArray();
    QTest::newRow("path") << "path=" + elsewhere.toUtf8() << elsewhere << 0600U << 0700U << QByteArray();
    QTest::newRow("both") << "path=" + elsewhere.toUtf8() + "\nmode=660\n"
                          << elsewhere << 0660U << 0770U << QByteArray();
    QTest::newRow("relative path") << QByteArray("path=store\n") << QString() << 0U << 0U
                                   << complaint + "path is not absolute\n";
    for (const char* mode : {"0400", "0777", "0688", "rw"}) {
        QTest::newRow(mode) << QByteArray("mode=") + mode << QString() << 0U << 0U
                            << complaint + "mode is not octal from 0600 to 0666\n";
    }
}

void ToolTest::FollowsConfiguration()
{
    QFETCH(QByteArray, configuration);
    QFETCH(QString, file);
    QFETCH(unsigned, mode);
    QVERIFY(Write(kConfiguration, configuration));
    const Outcome outcome = RunTool({"set", "a", "1"});
    QTEST(outcome.errors, "errors");
    QCOMPARE(outcome.status, file.isEmpty() ? 1 : 0);
    QCOMPARE(ModeOf(file), mode);
    QTEST(ModeOf(file.isEmpty() ? file : QFileInfo(file).path()), "folderMode");
}

void ToolTest::NeedsNoLocale()
{
    const QString script =
        QStringLiteral("export LC_ALL=C; %1 set '%2' '%2' && %1 get '%2'; %1 get $(printf '\\377')")
            .arg(KX_REGISTRY_TOOL, QString::fromUtf8("größe €"));
    const Outcome outcome = Run("/bin/sh", {"-c", script});
    QCOMPARE(outcome.output, QByteArray("größe €\n"));
    QCOMPARE(outcome.errors, QByteArray("kxregistry: arguments must be UTF-8") + kHint);
    QCOMPARE(outcome.status, 2);
}

void ToolTest::DeniesOtherAccounts()
{
    QCOMPARE(RunTool({"set", "a", "1"}).status, 0);
    for (const QStringList& command : {QStringList{"get", "a"}, {"set", "a", "2"}, {"delete", "a"}}) {
        const Outcome outcome =
            Run("setpriv",
                QStringList{"--reuid=4000", "--regid=4000", "--clear-groups", KX_REGISTRY_TOOL} + command);
        // Counting programs of other accounts complain below that their counts cannot be written.
        QCOMPARE(outcome.errors.split('\n').first(),
                 QByteArray("kxregistry: ") + kFile + ": Permission denied");
        QCOMPARE(outcome.status, 1);
    }
    QCOMPARE(RunTool({"get", "a"}).output, QByteArray("1\n"));
}

void ToolTest::Watches_data()
{
    QTest::addColumn<QStringList>("keys");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QByteArray>("output");
    QTest::newRow("all keys") << QStringList() << SIGTERM
                              << QByteArray("a=1\nb\\x003d=x\\ny\n"
                                            "a deleted\nend=1\n");
    QTest::newRow("some keys") << QStringList{"a", "end"} << SIGINT << QByteArray("a=1\na deleted\nend=1\n");
}

void ToolTest::Watches()
{
    QFETCH(QStringList, keys);
    QFETCH(int, signal);
    QFETCH(QByteArray, output);
    QProcess watch;
    watch.start(KX_REGISTRY_TOOL, QStringList("watch") + keys);
    QByteArray notice;
    QTRY_VERIFY((notice += watch.readAllStandardError()).endsWith('\n'));
    QCOMPARE(notice, QByteArray("kxregistry: watching ") + kFile + '\n');

    QByteArray seen;
    const auto lines = [&] { return (seen += watch.readAllStandardOutput()).count('\n'); };
    int expected = 0;
    for (const QStringList& command :
         {QStringList{"set", "a", "1"}, {"set", "b=", "x\ny"}, {"delete", "a"}, {"set", "end", "1"}}) {
        QCOMPARE(RunTool(command).status, 0);
        expected += keys.isEmpty() || keys.contains(command[1]) ? 1 : 0;
        QTRY_COMPARE(lines(), expected);
    }
    QCOMPARE(seen, output);

    QCOMPARE(kill(static_cast<pid_t>(watch.processId()), signal), 0);
    QVERIFY(watch.waitForFinished());
    QCOMPARE(watch.exitStatus(), QProcess::NormalExit);
    QCOMPARE(watch.exitCode(), 0);
}

QTEST_GUILESS_MAIN(ToolTest)

#include "tst_kxregistry.moc"
