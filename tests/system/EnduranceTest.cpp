#include "DaemonFixture.h"

#include <algorithm>
#include <csignal>

using kxtest::ChildrenOf;
using kxtest::DaemonFixture;
using kxtest::InstallApplication;
using kxtest::ProcessesOf;

namespace {

constexpr int kEnumerations = 2000;
constexpr int kStarts = 200;
constexpr int kSettledAfter = 200;
constexpr int kSimultaneous = 50;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHoldsFreedMemory = true; // a sanitizer keeps what was freed, or who used it
#elif defined(__has_feature)
constexpr bool kHoldsFreedMemory = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kHoldsFreedMemory = false;
#endif

} // namespace

/// What many calls leave behind: nothing.
class EnduranceTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        kxtest::RemoveApplications();
        InstallApplication("desktop", 4001, 4001, {}, {{"html/index.html", "i"}});
        InstallApplication(
            "pay", 4002, 4002,
            "<application><desktop_item title=\"Pay\">html/a.html</desktop_item></application>",
            {kxtest::IdleProgram()});
        QVERIFY(m_daemon.Start());
    }

    void cleanup() { QCOMPARE(m_daemon.Stop(), 0); }

    void EnumeratesWithoutGrowth()
    {
        ExpectNoGrowth(kEnumerations, [this] { QCOMPARE(m_daemon.Enumerate().size(), 2); });
    }

    void StartsWithoutGrowth()
    {
        const QVariantMap request{{"application", "pay"}, {"binary", "idle"}, {"params", "0"}};
        const QVariantMap started{{"errorCode", 0}};
        ExpectNoGrowth(kStarts, [&] { QCOMPARE(m_daemon.StartRequest(request), started); });
    }

    void ReapsChildrenThatEndAtOnce()
    {
        const QString program = QStringLiteral("/home/pay/bin/idle");
        for (int i = 0; i < kSimultaneous; ++i) {
            QCOMPARE(m_daemon.StartRequest({{"application", "pay"}, {"binary", "idle"}, {"params", "1000"}}),
                     (QVariantMap{{"errorCode", 0}}));
        }
        KX_TRY_COMPARE(ProcessesOf(program).size(), kSimultaneous);
        // While the daemon stands still, their signals merge into one.
        m_daemon.Signal(SIGSTOP);
        for (const pid_t child : ProcessesOf(program)) {
            QCOMPARE(kill(child, SIGKILL), 0);
        }
        KX_TRY_VERIFY(ProcessesOf(program).isEmpty());
        QVERIFY(HasZombies());
        m_daemon.Signal(SIGCONT);
        QVERIFY(kxtest::WaitFor([this] { return !HasZombies(); }, 1000));
    }

private:
    long ResidentKilobytes() const
    {
        return StatusOf(m_daemon.Pid()).value("VmRSS").split(' ').first().toLong();
    }

    bool HasZombies() const
    {
        const auto children = ChildrenOf(m_daemon.Pid());
        return std::any_of(children.begin(), children.end(),
                           [](const auto& child) { return child.second == 'Z'; });
    }

    /// Calls \a call \a times times and compares what the daemon holds afterwards with an early sample.
    template<typename Call>
    void ExpectNoGrowth(int times, Call call)
    {
        const int settled = std::min(kSettledAfter, times / 2);
        int descriptors = 0;
        long resident = 0;
        for (int done = 0; done < times; ++done) {
            if (done == settled) {
                descriptors = m_daemon.OpenDescriptors();
                resident = ResidentKilobytes();
            }
            call();
            if (QTest::currentTestFailed()) {
                return;
            }
        }
        QCOMPARE(m_daemon.OpenDescriptors(), descriptors);
        if (!kHoldsFreedMemory) {
            const long growth = ResidentKilobytes() - resident;
            qInfo("resident memory: %ld kB, %+ld kB since call %d", resident, growth, settled);
            QVERIFY2(growth <= 256, qPrintable(QString::number(growth)));
        }
        QVERIFY2(kxtest::WaitFor([this] { return !HasZombies(); }, 1000), "a zombie is left after a second");
    }

    DaemonFixture m_daemon;
};

QTEST_GUILESS_MAIN(EnduranceTest)
#include "EnduranceTest.moc"
