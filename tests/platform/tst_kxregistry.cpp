#include "RegistryStore.h"

#include <csignal>

using kxtest::CommandRun;
using kxtest::RunCommand;
using namespace registrystore;

namespace {

constexpr auto kHint = "\nTry 'kxregistry --help'.\n";
constexpr auto kStored = "a=1\nempty=\nlines=x\\ny\n-d=-1\n";

} // namespace

/// The tool from outside: exit status, standard output, standard error.
class ToolTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { RemoveStore(); }

    void Answers_data()
    {
        const Table<QStringList, QByteArray, int, QString, QString> table;
        const auto row = [&](const QStringList& arguments, int status, const QString& output,
                             const QString& errors = "", const QByteArray& stored = kStored) {
            table(arguments.join(' ').toUtf8() + (stored == kStored ? "" : ", other store"), arguments,
                  stored, status, output, errors);
        };
        const auto misuse = [&](const QStringList& arguments, const QString& why) {
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

        const QString unreadable = "kxregistry: " + kFile + ": line 2 is not KEY=VALUE\n";
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

    void Answers()
    {
        const auto [arguments, stored, status, output, errors] =
            FetchRow<QStringList, QByteArray, int, QString, QString>();
        WriteFile(kFile, stored);
        const CommandRun run = RunTool(arguments);
        QCOMPARE(run.err, errors);
        QCOMPARE(run.out, output);
        QCOMPARE(run.status, status);
    }

    void FollowsConfiguration_data()
    {
        // The configuration; the file made, its mode and that of its folder; or the complaint.
        const Table<QByteArray, QString, QString, QString, QString> table;
        const auto row = [&](const QByteArray& configuration, const QString& file, const QString& mode,
                             const QString& folderMode) {
            table(configuration, configuration, file, "0:0 " + mode, "0:0 " + folderMode, "");
        };
        const QString elsewhere = kFolder + "/else/where/store";
        row("", kFile, "600", "700");
        row("mode=0644\n", kFile, "644", "755");
        row("path=" + elsewhere.toUtf8(), elsewhere, "600", "700");
        row("path=" + elsewhere.toUtf8() + "\nmode=660\n", elsewhere, "660", "770");
        const auto refused = [&](const QByteArray& configuration, const QString& complaint) {
            table(configuration, configuration, kFile, {}, {},
                  "kxregistry: " + kConfiguration + ": " + complaint + '\n');
        };
        refused("path=store\n", "path is not absolute");
        for (const char* mode : {"0400", "0777", "0688", "rw"}) {
            refused(QByteArray("mode=") + mode, "mode is not octal from 0600 to 0666");
        }
    }

    void FollowsConfiguration()
    {
        const auto [configuration, file, mode, folderMode, errors] =
            FetchRow<QByteArray, QString, QString, QString, QString>();
        WriteFile(kConfiguration, configuration);
        const CommandRun run = RunTool({"set", "a", "1"});
        QCOMPARE(run.err, errors);
        QCOMPARE(run.status, errors.isEmpty() ? 0 : 1);
        QCOMPARE(OwnerAndMode(file), mode);
        QCOMPARE(OwnerAndMode(QFileInfo(file).path()), folderMode);
    }

    void NeedsNoLocale()
    {
        const QString script =
            QStringLiteral("export LC_ALL=C; %1 set '%2' '%2' && %1 get '%2'; %1 get $(printf '\\377')")
                .arg(KX_REGISTRY_TOOL, QString::fromUtf8("größe €"));
        const CommandRun run = RunCommand("/bin/sh", {"-c", script});
        QCOMPARE(run.out, QString::fromUtf8("größe €\n"));
        QCOMPARE(run.err, QString("kxregistry: arguments must be UTF-8") + kHint);
        QCOMPARE(run.status, 2);
    }

    void DeniesOtherAccounts()
    {
        QCOMPARE(RunTool({"set", "a", "1"}).status, 0);
        for (const QStringList& command : {QStringList{"get", "a"}, {"set", "a", "2"}, {"delete", "a"}}) {
            const CommandRun run = kxtest::RunAs("desktop", QStringList(KX_REGISTRY_TOOL) + command);
            // Counting programs of other accounts complain below that their counts cannot be written.
            QCOMPARE(run.err.section('\n', 0, 0), "kxregistry: " + kFile + ": Permission denied");
            QCOMPARE(run.status, 1);
        }
        QCOMPARE(RunTool({"get", "a"}).out, QString("1\n"));
    }

    void Watches_data()
    {
        const Table<QStringList, int, QByteArray> row;
        row("all keys", {}, SIGTERM, "a=1\nb\\x003d=x\\ny\na deleted\nend=1\n");
        row("some keys", {"a", "end"}, SIGINT, "a=1\na deleted\nend=1\n");
    }

    void Watches()
    {
        const auto [keys, signal, output] = FetchRow<QStringList, int, QByteArray>();
        QProcess watch;
        watch.start(KX_REGISTRY_TOOL, QStringList("watch") + keys);
        QByteArray notice;
        QTRY_VERIFY((notice += watch.readAllStandardError()).endsWith('\n'));
        QCOMPARE(notice, "kxregistry: watching " + kFile.toUtf8() + '\n');

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
};

KX_TEST_MAIN(ToolTest)
#include "tst_kxregistry.moc"
