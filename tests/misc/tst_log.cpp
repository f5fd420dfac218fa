#include "misc/Log.h"

#include "Fixture.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using namespace com::veltrasys::common::qt;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/misc/Log";

/// The record that was logged before QtTest put its own handler in place.
LogRecord g_early;

} // namespace

class LogTest : public Fixture {
    Q_OBJECT

private slots:
    void HandlerIsInPlaceBeforeMain()
    {
        QCOMPARE(QStringList({g_early.category, g_early.tag, g_early.file, g_early.function}),
                 QStringList({"platform", "kx-core", "Log", "main"}));
        QVERIFY(g_early.priority == 3 && g_early.line > 0);
        QCOMPARE(g_early.text, QStringLiteral(" 100% \"said \\\"%s\\\"\" a|b 7"));
    }

    void EachFactoryHasItsPriority()
    {
        QDebug(qDebug()) << KX_PREFIX(kSource) << "text";
        qInfo() << KX_PREFIX(kSource) << "text";
        qNotice() << KX_PREFIX(kSource) << "text";
        QDebug(qWarning()) << KX_PREFIX(kSource) << "text";
        qError() << KX_PREFIX(kSource) << "text";
        QDebug(qCritical()) << KX_PREFIX(kSource) << "text";
        qAlert() << KX_PREFIX(kSource) << "text";
        qEmerg() << KX_PREFIX(kSource) << "text";
        QString priorities;
        for (const LogRecord& record : TakeLog()) {
            priorities += QString::number(record.priority) + record.text;
        }
        QCOMPARE(priorities, QStringLiteral("7 text6 text5 text4 text3 text2 text1 text0 text"));
        for (const int unknown : {3, 4, 9, 15, -1}) {
            LogInitializer::QtMsgHandler(unknown, "text");
            QCOMPARE(TakeLogLines(), QStringList("7 text"));
        }
    }

    void FatalMessageIsLoggedAtDebugLevel()
    {
        const pid_t pid = fork();
        if (pid == 0) {
            static_cast<void>(std::signal(SIGABRT, SIG_DFL)); // QtTest catches it
            qFatal("the end");
        }
        int status = 0;
        waitpid(pid, &status, 0);
        QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
        QCOMPARE(TakeLogLines(), QStringList("7 the end"));
    }

    void SplitsMessages_data()
    {
        const Table<QByteArray, QString, QString> row;
        row("usual", R"("Utils|LockFile|340|" text)", "Utils/LockFile/340", " text");
        row("bars and quotes in the text", R"("F|f|1|" a|b|"c"|)", "F/f/1", R"( a|b|"c"|)");
        row("text before", R"(x "F|f|1|" text)", "F/f/1", " text");
        row("no closing quote", R"("F|f|1| text)", "F/f/1", R"("F|f|1| text)");
        // What has no complete prefix is passed on whole.
        for (const char* whole : {"", "text", R"("quoted" text)", R"("F|f|0|" text)", R"("F|f|x|" text)",
                                  R"("F||1|" text)", R"("|f|1|" text)", R"("F|f|1)", "F|f|1| text", "%n"}) {
            row(whole, whole, "//0", whole);
        }
    }

    void SplitsMessages()
    {
        const auto [message, prefix, text] = FetchRow<QByteArray, QString, QString>();
        LogInitializer::QtMsgHandler(12, message.constData());
        const LogRecord record = TakeLog().value(0);
        QCOMPARE(QStringLiteral("%1/%2/%3").arg(record.file, record.function).arg(record.line), prefix);
        QCOMPARE(record.text, text);
    }

    void PrefixNamesTheStatement()
    {
        QCOMPARE(GetPrefix("/a/b/Utils", "LockFile", 340, false), QStringLiteral("Utils|LockFile|340|"));
        QCOMPARE(GetPrefix("a/", "%2", 3, false), QStringLiteral("|%2|3|"));
        const QString prefix = GetPrefix("/a/Utils", "f", 3, true);
        const QRegularExpression form(R"(^\[\d\d:\d\d:\d\d\.\d{3}\] Utils - f\(\),3:$)");
        QVERIFY2(form.match(prefix).hasMatch(), qPrintable(prefix));
    }
};

int main(int argc, char** argv)
{
    EnterPrivateRoot();
    qError() << KX_PREFIX(kSource) << "100%" << QStringLiteral("said \"%s\"") << "a|b" << 7;
    g_early = TakeLog().value(0);
    const QCoreApplication application(argc, argv);
    LogTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_log.moc"
