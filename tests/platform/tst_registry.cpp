#include "Registry.h"
#include "RegistryStore.h"

#include <csignal>
#include <memory>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using com::veltrasys::Registry;
using namespace registrystore;

namespace {

constexpr int kKills = 15;
constexpr int kLooks = 60;

using Records = QList<QVariantList>;

const Records& Seen(const QSignalSpy& spy)
{
    return spy;
}

ino_t Inode()
{
    struct stat status = {};
    return stat(qPrintable(kFile), &status) == 0 ? status.st_ino : 0;
}

/// Does the work in another process, which ends with it or is killed.
template<typename Work>
pid_t Fork(Work work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        work();
    }
    return pid;
}

} // namespace

class RegistryTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { RemoveStore(); }

    void StoresText_data()
    {
        const Table<QString, QVariant, QString> row;
        row("as it stands", "%platform.syslog.remoteIP:port", "10.0.0.5:514",
            "%platform.syslog.remoteIP:port=10.0.0.5:514");
        row("number", "n", -5, "n=-5");
        row("empty", "e", "", "e=");
        row("null text", "e", QVariant(QString()), "e=");
        row("equals sign in value", "k", "a=b;#[", "k=a=b;#[");
        row("equals sign in key", "a=b", "c", R"(a\x003db=c)");
        row("comment sign in key", ";a;", "c", R"(\x003ba;=c)");
        row("section sign in key", "[a]", "c", R"(\x005ba]=c)");
        row("slashes", "/a//b/", "/c//", "/a//b/=/c//");
        row("blanks", " a b ", "\tc d ", R"(\x0020a b\x0020=\tc d\x0020)");
        row("lines", "a\nb", "c\nd\r\n\\n", R"(a\nb=c\nd\r\n\\n)");
        row("controls", "k", QVariant(QString::fromUtf16(u"\x1 \x7f\x85\u2028.", 6)),
            R"(k=\x0001 \x007f\x0085\x2028.)");
        row("NUL", "k", QVariant(QString(1, QChar())), R"(k=\x0000)");
        row("Unicode", QString::fromUtf8("größe"), QVariant(QString::fromUtf8("€ 😀")),
            QString::fromUtf8("größe=€ 😀"));
        row("lone surrogates", "k", QVariant(QString(QChar(0xdc00)) + QChar(0xd83d)), R"(k=\xdc00\xd83d)");
    }

    void StoresText()
    {
        const auto [key, value, line] = FetchRow<QString, QVariant, QString>();
        Registry writer;
        QVERIFY(writer.setValue(key, value));
        QCOMPARE(QString::fromUtf8(ReadFile(kFile)).section('\n', 1), line + '\n');

        const QVariant read = Registry().getValue(key);
        QCOMPARE(read, QVariant(value.toString()));
        QVERIFY(!read.isNull());
    }

    void TellsAbsentFromEmpty()
    {
        Registry registry;
        QVERIFY(registry.getValue("a").isNull());
        QVERIFY(registry.subscribe("a").isNull());
        QVERIFY(registry.deleteKey("a"));
        QVERIFY2(!QFile::exists(kFile), "nothing to delete, nothing to write");
        QVERIFY(registry.setValue("a", ""));
        QVERIFY(!registry.subscribe("a").isNull());
        QVERIFY(registry.deleteKey("a"));
        QVERIFY(registry.getValue("a").isNull());

        QVERIFY(!registry.setValue("", "no key"));
        QVERIFY(!registry.setValue("a", QVariant()));
        QVERIFY(!registry.setValue("a", QVariantList{"no text"}));
        QVERIFY(registry.getValue("a").isNull());
    }

    void ReportsChanges_data()
    {
        const Table<QString> row;
        for (const char* who : {"the object itself", "another object", "another process", "an editor"}) {
            row(who, who);
        }
    }

    void ReportsChanges()
    {
        const QString who = QTest::currentDataTag();
        Registry registry;
        Registry other;
        const auto set = [&](const QString& key, const QString& value) {
            if (who == "another process") {
                return RunTool({"set", key, value}).status == 0;
            }
            if (who == "an editor") {
                QFile file(kFile);
                return file.open(QIODevice::Append) && file.write((key + " = " + value + '\n').toUtf8()) > 0;
            }
            return (who == "another object" ? other : registry).setValue(key, value);
        };
        QVERIFY(other.setValue("old", "1"));
        QCOMPARE(registry.subscribe("old"), QVariant("1"));
        registry.subscribe("new");
        registry.subscribe("marker");
        registry.subscribe("dropped");
        registry.unsubscribe("dropped");
        registry.unsubscribe("never subscribed");
        QSignalSpy values(&registry, &Registry::valueChanged);
        QSignalSpy deletions(&registry, &Registry::keyDeleted);

        QVERIFY(set("new", "x"));
        QCOMPARE(registry.subscribe("new"), QVariant("x"));
        QCOMPARE(values.size(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(Seen(values), (Records{{"new", "x"}}), 1000);

        QVERIFY(set("old", "1"));
        QVERIFY(set("dropped", "2"));
        QVERIFY(set("unknown", "3"));
        QVERIFY(set("marker", "4"));
        QTRY_COMPARE(Seen(values), (Records{{"new", "x"}, {"marker", "4"}}));

        QVERIFY(set("old", ""));
        QTRY_COMPARE(values.last(), (QVariantList{"old", ""}));
        QCOMPARE(values.size(), 3);

        QCOMPARE(deletions.size(), 0);
        QVERIFY(who == "another process" ? RunTool({"delete", "old"}).status == 0 : other.deleteKey("old"));
        QTRY_COMPARE(Seen(deletions), (Records{{"old"}}));
        QCOMPARE(values.size(), 3);
    }

    void ToleratesReactions()
    {
        auto registry = std::make_unique<Registry>();
        QStringList seen;
        for (const char* key : {"a", "b", "c"}) {
            registry->subscribe(key);
        }
        connect(registry.get(), &Registry::valueChanged, this, [&](const QString& key, const QString& value) {
            seen.append(key + '=' + value);
            if (value == "bad") {
                registry->setValue(key, "");
                registry->unsubscribe("b");
            }
            if (value == "worse") {
                registry->deleteKey(key);
            }
        });
        connect(registry.get(), &Registry::keyDeleted, this, [&](const QString& key) {
            seen.append(key);
            registry.reset();
        });

        QVERIFY(Registry().setValue("a", "bad"));
        QVERIFY(Registry().setValue("b", "unsubscribed before its turn"));
        QTRY_COMPARE(seen, (QStringList{"a=bad", "a="}));
        QVERIFY(Registry().setValue("c", "worse"));
        QTRY_COMPARE(seen, (QStringList{"a=bad", "a=", "c=worse", "c"}));
        QVERIFY(!registry);
    }

    void FollowsTheFolder()
    {
        Registry registry;
        registry.subscribe("a");
        QSignalSpy values(&registry, &Registry::valueChanged);
        QSignalSpy deletions(&registry, &Registry::keyDeleted);
        for (int round = 1; round <= 2; ++round) {
            QCOMPARE(RunTool({"set", "a", QString::number(round)}).status, 0);
            QTRY_COMPARE(values.size(), round);
            QVERIFY(QDir(kFolder).removeRecursively());
            QTRY_COMPARE(deletions.size(), round);
        }
    }

    void ReportsUnreadableStore_data()
    {
        const Table<QByteArray> row;
        row("no entry", "a=1\nb\n");
        row("section", "[a]\nb=1\n");
        row("section with equals sign", "[a=1\n");
        row("no key", "a=1\n =2\n");
        row("unknown escape", "a=\\q\n");
        row("short escape", "a=\\x12\n");
        row("half an escape", "a=1\\\n");
        row("not UTF-8", "a=\xff\n");
        row("cut off", "a=\xe2\x82");
        row("zeros of a lost block", QByteArray(512, '\0'));
        row("folder", "folder");
        row("FIFO", "FIFO");
    }

    void ReportsUnreadableStore()
    {
        const auto [text] = FetchRow<QByteArray>();
        Registry registry;
        QVERIFY(registry.setValue("a", "0"));
        registry.subscribe("a");
        QSignalSpy values(&registry, &Registry::valueChanged);
        QSignalSpy deletions(&registry, &Registry::keyDeleted);
        QVERIFY(QFile::remove(kFile));
        if (text == "folder") {
            MakeDirectory(kFile);
        } else if (text == "FIFO") {
            QCOMPARE(mkfifo(qPrintable(kFile), 0600), 0);
        } else {
            WriteFile(kFile, text);
        }
        const ino_t inode = Inode();

        QVERIFY(registry.getValue("a").toString().contains("Error:"));
        QVERIFY(registry.getValue("absent").toString().contains(kFile));
        QVERIFY(registry.subscribe("late").toString().contains("Error:"));
        QVERIFY(!registry.setValue("a", "1"));
        QVERIFY(!registry.deleteKey("a"));
        QCOMPARE(Inode(), inode);

        // Once it can be read again it says what it holds, and the failed change does not come after all.
        QDir().rename(kFile, kFile + ".bad");
        WriteFile(kFile, "a=2\nlate=3\n");
        QTRY_COMPARE(Seen(values), (Records{{"a", "2"}, {"late", "3"}}));
        QVERIFY(registry.setValue("b", "4"));
        QCOMPARE(registry.getValue("a"), QVariant("2"));
        QCOMPARE(deletions.size(), 0);
    }

    void KeepsAccess()
    {
        const mode_t previous = umask(0);
        QVERIFY(Registry().setValue("a", "1"));
        QCOMPARE(OwnerAndMode(kFile), QString("0:0 600"));
        umask(077);
        WriteFile(kFile, {}, 0, 4000, 0664);
        for (const char* value : {"1", "2"}) {
            QVERIFY(Registry().setValue("a", value));
            QCOMPARE(OwnerAndMode(kFile), QString("0:4000 664"));
        }
        umask(previous);
    }

    void LosesNothing()
    {
        constexpr int kWriters = 4;
        constexpr int kKeys = 200;
        const auto writeKeys = [](const QString& writer) {
            Registry registry;
            bool isWritten = true;
            for (int key = 0; key < kKeys; ++key) { // of its own and, in between, one that all share
                isWritten = isWritten && registry.setValue(writer + QString::number(key), key) &&
                            registry.setValue("shared", writer);
            }
            _exit(isWritten ? 0 : 1);
        };
        QVector<pid_t> writers;
        for (int writer = 0; writer < kWriters; ++writer) {
            writers.append(Fork([&] { writeKeys(QStringLiteral("w%1.").arg(writer)); }));
        }
        for (const pid_t writer : writers) {
            int status = -1;
            QCOMPARE(waitpid(writer, &status, 0), writer);
            QCOMPARE(status, 0);
        }
        Registry registry;
        for (int key = 0; key < kWriters * kKeys; ++key) {
            const QString name = QStringLiteral("w%1.%2").arg(key / kKeys).arg(key % kKeys);
            QCOMPARE(registry.getValue(name), QVariant(QString::number(key % kKeys)));
        }
        QVERIFY(registry.getValue("shared").toString().startsWith('w'));
    }

    void StaysWhole()
    {
        const QStringList whole{QString(20000, 'a'), QString(20000, 'b')};
        const auto isWhole = [&whole] { return whole.contains(Registry().getValue("long").toString()); };
        for (int round = 0; round < kKills; ++round) {
            const ino_t before = Inode();
            const pid_t writer = Fork([&] {
                Registry registry;
                for (int turn = 0;; turn = 1 - turn) {
                    registry.setValue("long", whole[turn]);
                }
            });
            QTRY_VERIFY(Inode() != before);
            for (int look = 0; look < kLooks; ++look) {
                QVERIFY2(isWhole(), "while it is being written");
            }
            QVERIFY(kill(writer, SIGKILL) == 0 && waitpid(writer, nullptr, 0) == writer);
            QVERIFY2(isWhole(), "after the writer was killed");
            QVERIFY2(Registry().setValue("round", round), "whoever was killed may have held the lock");
        }
        QCOMPARE(Registry().getValue("round"), QVariant(QString::number(kKills - 1)));
    }

    void OutlivesOrphanedLock()
    {
        constexpr int kBound = 10000;
        QVERIFY(Registry().setValue("a", "1"));
        // What a writer leaves that is killed right after it has made the lock.
        WriteFile(kFile + ".lock");
        QElapsedTimer timer;
        timer.start();
        QVERIFY(Registry().setValue("a", "2"));
        QVERIFY(!timer.hasExpired(kBound));
        QCOMPARE(Registry().getValue("a"), QVariant("2"));
    }

    void ForgetsFailedChange()
    {
        constexpr rlim_t kLimit = 4096;
        rlimit before = {};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &before), 0);
        const rlimit limit = {kLimit, before.rlim_max};
        QVERIFY(std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR);

        Registry registry;
        QVERIFY(registry.setValue("a", "1"));
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const bool written = registry.setValue("big", QString(2 * kLimit, 'x'));
        const bool deleted = registry.deleteKey("a");
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &before), 0);

        QVERIFY(!written);
        QVERIFY(deleted);
        QVERIFY(registry.setValue("b", "2"));
        QVERIFY(ReadFile(kFile).endsWith("kept.\nb=2\n"));
    }
};

KX_TEST_MAIN(RegistryTest)
#include "tst_registry.moc"
