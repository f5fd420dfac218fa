#include "DaemonFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

using kxtest::ContentOf;
using kxtest::DaemonFixture;
using kxtest::InstallApplication;
using kxtest::PlatformCalls;
using kxtest::ProcessesOf;
using kxtest::Script;

namespace {

constexpr int kWebPort = 80;
const QString kScheduled = QStringLiteral("Terminal restart is scheduled");
const QString kStopped = QStringLiteral("/tmp/stopped");

/// Takes the web server's place: accepts connections and never answers.
class SilentServer {
public:
    SilentServer() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kWebPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_socket, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(m_socket, 8) != 0) {
            qFatal("cannot listen on the web server's port");
        }
    }
    ~SilentServer() { close(m_socket); }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

private:
    int m_socket;
};

bool AnswersOnWebPort()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kWebPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int result = connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
    close(fd);
    return result == 0;
}

/// \return how often the terminal was told to reboot
int Reboots()
{
    return PlatformCalls().count("reboot");
}

} // namespace

/// The restart of the terminal against a web server in different moods.
class RestartTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void AsksEveryApplicationToStop();
    void GoesOnWithoutWebServer();
    void DoesNotWaitForASilentWebServer();
    void EndsAfterTheRestart_data();
    void EndsAfterTheRestart();

private:
    /// Asks for the restart and waits until the terminal was told to reboot.
    /// \return how long that took in milliseconds; 0 when it did not happen
    qint64 Restart(int milliseconds);

    std::unique_ptr<DaemonFixture> m_daemon;
};

void RestartTest::init()
{
    kxtest::RemoveApplications();
    QFile::remove(kStopped);
    QVERIFY(QFile::resize("/run/standins/calls", 0));
    m_daemon = std::make_unique<DaemonFixture>();
}

void RestartTest::cleanup()
{
    if (m_daemon->IsRunning()) {
        QCOMPARE(m_daemon->Stop(), 0);
    }
}

qint64 RestartTest::Restart(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    m_daemon->Applications().Restart("tomorrow").waitForFinished();
    const bool rebooted = kxtest::WaitFor([] { return Reboots() > 0; }, milliseconds);
    return rebooted ? timer.elapsed() : 0;
}

void RestartTest::AsksEveryApplicationToStop()
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
    webServer.start("lighttpd", {"-D", "-f", KX_LIGHTTPD_CONF});
    KX_TRY_VERIFY(AnswersOnWebPort());
    KX_TRY_COMPARE(ProcessesOf("/home/shop/bin/idle").size(), 1);
    QSignalSpy terminated(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate);

    QVERIFY2(Restart(10000) >= 2000, "two seconds to finish the stop work");
    QCOMPARE(ContentOf(kStopped), QByteArray("/cgi-bin/pay/stop\n/cgi-bin/shop/stop\n"));
    QVERIFY(ProcessesOf("/home/shop/bin/idle").isEmpty());
    KX_TRY_COMPARE(terminated.size(), 1);
    const auto record = m_daemon->WaitForRecord(kScheduled);
    QCOMPARE(record.priority, QStringLiteral("info"));
    QCOMPARE(record.file + ':' + record.function, QStringLiteral("Server:Restart"));
    QVERIFY(m_daemon->WaitUntilServing());
    for (const auto& other : m_daemon->Records()) {
        QVERIFY2(!other.text.contains("curl"), qPrintable(other.text));
    }
    QCOMPARE(Reboots(), 1);
    webServer.terminate();
    QVERIFY(webServer.waitForFinished());
}

void RestartTest::GoesOnWithoutWebServer()
{
    InstallApplication("pay", 4002, 4002);
    InstallApplication("shop", 4003, 4003);
    QVERIFY(m_daemon->Start());
    QVERIFY(Restart(10000) >= 2000);
    QStringList refused;
    for (const auto& record : m_daemon->Records()) {
        if (record.text.startsWith("curl")) {
            QCOMPARE(record.priority, QStringLiteral("err"));
            QCOMPARE(record.function, QStringLiteral("SendStopToApp"));
            refused.append(record.text.simplified());
        }
    }
    QCOMPARE(refused, (QStringList{"curl \"http://localhost/cgi-bin/pay/stop\" returned 7",
                                   "curl \"http://localhost/cgi-bin/shop/stop\" returned 7"}));
}

void RestartTest::DoesNotWaitForASilentWebServer()
{
    InstallApplication("pay", 4002, 4002);
    QVERIFY(m_daemon->Start());
    const SilentServer server;
    const qint64 elapsed = Restart(20000);
    QVERIFY2(elapsed >= 6900 && elapsed < kxtest::Bound(10000), qPrintable(QString::number(elapsed)));
    QCOMPARE(m_daemon->WaitForRecord("curl").text.simplified(),
             QStringLiteral("curl \"http://localhost/cgi-bin/pay/stop\" returned 28"));
}

void RestartTest::EndsAfterTheRestart_data()
{
    QTest::addColumn<bool>("silent");
    QTest::newRow("during the pause") << false;
    QTest::newRow("during a request") << true;
}

void RestartTest::EndsAfterTheRestart()
{
    QFETCH(bool, silent);
    InstallApplication("pay", 4002, 4002);
    QVERIFY(m_daemon->Start());
    const auto server = silent ? std::make_unique<SilentServer>() : nullptr;
    m_daemon->Applications().Restart({}).waitForFinished();
    // The request for the end comes while the restart is under way, and must not be lost.
    QCOMPARE(m_daemon->WaitForRecord(silent ? kScheduled : QStringLiteral("curl")).line > 0, true);
    QCOMPARE(Reboots(), 0);
    m_daemon->Signal(SIGTERM);
    QCOMPARE(m_daemon->WaitForExit(20000), 0);
    QCOMPARE(Reboots(), 1);
}

QTEST_GUILESS_MAIN(RestartTest)
#include "RestartTest.moc"
