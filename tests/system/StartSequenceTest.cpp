#include "DaemonFixture.h"

#include <QDBusPendingCallWatcher>

#include <csignal>
#include <memory>

using kxtest::InstallApplication;
using kxtest::ProcessesOf;

namespace {

const QString kSleep = QStringLiteral("/usr/bin/sleep");

} // namespace

/// What a start of the terminal does: stop, start. The first page is the subject of tst_server and
/// tst_browser.
class StartSequenceTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        kxtest::RemoveApplications();
        m_daemon = std::make_unique<kxtest::DaemonFixture>();
    }

    void cleanup()
    {
        m_daemon->Applications().Terminate().waitForFinished();
        QCOMPARE(m_daemon->Stop(), 0);
    }

    void StartsAtBootAndAnswersFirst()
    {
        // A program that does not end on request holds the sequence up for a while.
        InstallApplication("pay", 4002, 4002, "<application><run_on_boot>bin/app</run_on_boot></application>",
                           {kxtest::Script("bin/app", "trap '' TERM\nexec /usr/bin/sleep 1000\n")});
        QVERIFY(m_daemon->Start());
        KX_TRY_COMPARE(ProcessesOf(kSleep).size(), 1);
        const pid_t before = ProcessesOf(kSleep).constFirst();
        // Without a cgi-bin directory it serves FastCGI, on a socket in a directory of its own.
        QVERIFY(EntriesOf(before, "environ").contains("APP_FASTCGI_SOCKET=/var/run/sockets/pay/fcgi"));
        QCOMPARE(OwnerAndMode("/var/run/sockets/pay"), QStringLiteral("4002:4002 770"));
        WriteFile("/var/run/sockets/pay/stale");

        QStringList events;
        const QObject scope; // of the connections
        const auto note = [&events](const char* event) {
            return [&events, event](const QVariantMap& data) {
                events.append(data.isEmpty() ? event : "not empty");
            };
        };
        connect(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate, &scope, note("terminated"));
        connect(&m_daemon->Applications(), &ApplicationsProxy::OnStarted, &scope, note("started"));
        QDBusPendingReply<QVariantMap> reply = m_daemon->Applications().Start({});
        const QDBusPendingCallWatcher watcher(reply);
        connect(&watcher, &QDBusPendingCallWatcher::finished, &scope,
                [&events] { events.append("answered"); });
        KX_TRY_COMPARE(events, (QStringList{"answered", "terminated", "started"}));
        QCOMPARE(reply.value(), (QVariantMap{{"return", true}}));
        KX_TRY_COMPARE(ProcessesOf(kSleep).size(), 1);
        QVERIFY(ProcessesOf(kSleep).constFirst() != before);
        QVERIFY(!QFileInfo::exists("/var/run/sockets/pay/stale"));
    }

    void Terminates_data()
    {
        const Table<uint, uint, bool, int>
            row; // ids, whether it ignores the request, the signal that ends it
        row("first ids", 4000, 4000, false, SIGTERM);
        row("last ids", 4999, 4999, false, SIGTERM);
        row("ignores the request", 4001, 4002, true, SIGKILL);
        row("group below", 4001, 3999, false, 0);
        row("user below", 3999, 4000, false, 0);
        row("user above", 5000, 4000, false, 0);
        row("group above", 4000, 5000, false, 0);
    }

    void Terminates()
    {
        const auto [uid, gid, stubborn, signal] = FetchRow<uint, uint, bool, int>();
        QVERIFY(m_daemon->Start());
        const Stray other(uid, gid, stubborn);
        const Stray application(4002, 4002);
        QSignalSpy terminated(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate);
        m_daemon->Applications().Terminate();
        KX_TRY_COMPARE(terminated.size(), 1);
        KX_TRY_COMPARE(application.EndedBy(), SIGTERM);
        KX_TRY_COMPARE(other.EndedBy(), signal);
    }

private:
    std::unique_ptr<kxtest::DaemonFixture> m_daemon;
};

QTEST_GUILESS_MAIN(StartSequenceTest)
#include "StartSequenceTest.moc"
