#include "DaemonFixture.h"
#include "WebServer.h"

#include <QTcpServer>

#include <csignal>
#include <memory>

using kxtest::DaemonFixture;
using kxtest::InstallApplication;
using kxtest::kWebPort;
using kxtest::ProcessesOf;
using kxtest::Script;

namespace {

const QString kScheduled = QStringLiteral("Terminal restart is scheduled");

/// \return how often the terminal was told to reboot
int Reboots()
{
    return kxtest::PlatformCalls().count("reboot");
}

} // namespace

/// The restart of the terminal against a web server in different moods.
class RestartTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        kxtest::RemoveApplications();
        WriteFile("/run/standins/calls", {}, 0, 0, 0666);
        m_daemon = std::make_unique<DaemonFixture>();
    }

    void cleanup()
    {
        if (m_daemon->IsRunning()) {
            QCOMPARE(m_daemon->Stop(), 0);
        }
    }

    void AsksEveryApplicationToStop()
    {
        const kxtest::HomeFile stop = Script("cgi-bin/stop", R"(echo "$SCRIPT_NAME" >>/tmp/stopped
printf 'Content-Type: text/plain\r\n\r\n'
)");
        InstallApplication("shop", 4003, 4003,
                           "<application><run_on_boot>bin/idle 1000</run_on_boot></application>",
                           {stop, kxtest::IdleProgram()});
        InstallApplication("pay", 4002, 4002, {}, {stop});
        InstallApplication("mute", 4005, 4005); // has no stop program, which is no error
        QVERIFY(m_daemon->Start());
        QProcess webServer;
        QVERIFY(kxtest::StartWebServer(webServer, KX_LIGHTTPD_CONF));
        KX_TRY_COMPARE(ProcessesOf("/home/shop/bin/idle").size(), 1);
        QSignalSpy terminated(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate);

        QVERIFY2(Restart(10000) >= 2000, "two seconds to finish the stop work");
        QCOMPARE(ReadFile("/tmp/stopped"), QByteArray("/cgi-bin/pay/stop\n/cgi-bin/shop/stop\n"));
        QVERIFY(ProcessesOf("/home/shop/bin/idle").isEmpty());
        KX_TRY_COMPARE(terminated.size(), 1);
        const auto record = m_daemon->WaitForRecord(kScheduled);
        QCOMPARE(record.priority + ' ' + record.file + ' ' + record.function,
                 QStringLiteral("info Server Restart"));
        QVERIFY(m_daemon->WaitUntilServing());
        QCOMPARE(CurlRecords(), QStringList());
        QCOMPARE(Reboots(), 1);
        webServer.terminate();
        QVERIFY(webServer.waitForFinished());
    }

    void GoesOnWithoutWebServer()
    {
        InstallApplication("pay", 4002, 4002);
        InstallApplication("shop", 4003, 4003);
        QVERIFY(m_daemon->Start());
        QVERIFY(Restart(10000) >= 2000);
        const QString record("err SendStopToApp curl \"http://localhost/cgi-bin/%1/stop\" returned 7");
        QCOMPARE(CurlRecords(), (QStringList{record.arg("pay"), record.arg("shop")}));
        QVERIFY(m_daemon->WaitUntilServing());
        QCOMPARE(Reboots(), 1);
    }

    void DoesNotWaitForASilentWebServer()
    {
        InstallApplication("pay", 4002, 4002);
        QVERIFY(m_daemon->Start());
        QTcpServer silent; // its connections are made, never answered
        QVERIFY(silent.listen(QHostAddress::LocalHost, kWebPort));
        const qint64 elapsed = Restart(20000);
        QVERIFY2(elapsed >= 6900 && elapsed < kxtest::Bound(10000), qPrintable(QString::number(elapsed)));
        QCOMPARE(CurlRecords(),
                 QStringList("err SendStopToApp curl \"http://localhost/cgi-bin/pay/stop\" returned 28"));
    }

    void EndsAfterTheRestart()
    {
        for (const bool duringRequest : {false, true}) {
            init();
            InstallApplication("pay", 4002, 4002);
            QVERIFY(m_daemon->Start());
            QTcpServer silent;
            QVERIFY(!duringRequest || silent.listen(QHostAddress::LocalHost, kWebPort));
            m_daemon->Applications().Restart({}).waitForFinished();
            // The request for the end comes while the restart is under way, and must not be lost.
            QVERIFY(m_daemon->WaitForRecord(duringRequest ? kScheduled : QStringLiteral("curl")).line > 0);
            QCOMPARE(Reboots(), 0);
            m_daemon->Signal(SIGTERM);
            QCOMPARE(m_daemon->WaitForExit(20000), 0);
            QCOMPARE(Reboots(), 1);
        }
    }

private:
    /// Asks for the restart and waits until the terminal was told to reboot.
    /// \return how long that took in milliseconds; 0 when it did not happen
    qint64 Restart(int milliseconds)
    {
        QElapsedTimer timer;
        timer.start();
        m_daemon->Applications().Restart("tomorrow").waitForFinished();
        return kxtest::WaitFor([] { return Reboots() > 0; }, milliseconds) ? timer.elapsed() : 0;
    }

    /// \return what was logged of stop requests, each as "priority function text"
    QStringList CurlRecords() const
    {
        QStringList found;
        for (const auto& record : m_daemon->Records()) {
            if (record.text.contains("curl")) {
                found.append(record.priority + ' ' + record.function + ' ' + record.text.simplified());
            }
        }
        return found;
    }

    std::unique_ptr<DaemonFixture> m_daemon;
};

QTEST_GUILESS_MAIN(RestartTest)
#include "RestartTest.moc"
