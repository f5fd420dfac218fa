#include "server/SignalHandling.h"

#include "FailingCall.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include "misc/UniqueFd.h"
#include "misc/Utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>

namespace {

constexpr int kChildren = 50;
constexpr std::array<int, 5> kHandled{SIGTERM, SIGINT, SIGCHLD, SIGALRM, SIGHUP};

struct sigaction ActionOf(int signo)
{
    struct sigaction action = {};
    sigaction(signo, nullptr, &action);
    return action;
}

/// Children that end together as soon as the result is closed.
UniqueFd MakeChildren()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        qFatal("no pipe");
    }
    for (int child = 0; child < kChildren; ++child) {
        if (fork() == 0) {
            close(ends[1]);
            char byte = 0;
            _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
        }
    }
    close(ends[0]);
    return UniqueFd(ends[1]);
}

} // namespace

class SignalHandlingTest : public Fixture {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Fixture::initTestCase();
        m_notifier = std::make_unique<SignalNotifier>();
    }

    void init()
    {
        Fixture::init();
        SignalHandlerSet({SIGTERM, SIGINT, SIGCHLD, SIGALRM, SIGHUP},
                         {SIGUSR1, SIGUSR2, SIGPIPE, SIGIO, SIGSYS, SIGPWR}, sigHandler);
    }

    void Dispositions()
    {
        for (const int signo : kHandled) {
            const struct sigaction action = ActionOf(signo);
            QVERIFY(action.sa_handler == sigHandler);
            QCOMPARE(action.sa_flags & (SA_RESTART | SA_NOCLDSTOP), SA_RESTART);
            for (const int other : kHandled) {
                QCOMPARE(sigismember(&action.sa_mask, other), 1);
            }
        }
        for (const int signo : {SIGUSR1, SIGUSR2, SIGPIPE, SIGIO, SIGSYS, SIGPWR}) {
            QVERIFY(ActionOf(signo).sa_handler == SIG_IGN);
        }
        for (int signo = SIGRTMIN; signo <= SIGRTMAX; ++signo) {
            QVERIFY(ActionOf(signo).sa_handler == (signo < SIGRTMIN + 2 ? SIG_DFL : SIG_IGN));
        }
        SignalHandlerSet({SIGTERM}, {}, sigHandler); // adds SIGCHLD
        QVERIFY(ActionOf(SIGCHLD).sa_handler == sigHandler);
        QCOMPARE(ActionOf(SIGCHLD).sa_flags & (SA_RESTART | SA_NOCLDSTOP), SA_RESTART | SA_NOCLDSTOP);
    }

    void FailuresGoToSyslog()
    {
        static_cast<void>(std::signal(SIGTERM, SIG_DFL));
        SignalHandlerSet({99, SIGTERM}, {SIGKILL}, sigHandler);
        QVERIFY(ActionOf(SIGTERM).sa_handler == sigHandler);
        QTRY_VERIFY(ReadFile("/var/log/messages").contains("signal 9 "));
        const QByteArray log = ReadFile("/var/log/messages");
        for (const char* line : {"err", "Could not add signal 99 (Invalid argument)",
                                 "Could not change signal action signal 99 (Invalid argument)",
                                 "Could not change signal action signal 9 (Invalid argument)"}) {
            QVERIFY2(log.contains(line), line);
        }
    }

    void ForkedChildSetsHandlersAside()
    {
        const auto countWrong = [](const char*) {
            RestoreDefaultSignals();
            int wrong = ActionOf(SIGPIPE).sa_handler == SIG_IGN ? 0 : 1;
            for (const int signo : kHandled) {
                wrong += ActionOf(signo).sa_handler == SIG_DFL ? 0 : 1;
            }
            return wrong;
        };
        static_cast<void>(std::signal(SIGCHLD, SIG_DFL)); // the child's status is wanted here
        QCOMPARE(InChild(countWrong, ""), 0);
    }

    void ExecShellKeepsItsStatusWhileChildrenEnd()
    {
        MakeChildren().Reset();
        for (int run = 0; run < 20; ++run) {
            QCOMPARE(Misc::ExecShell("exit 3"), 3);
        }
        QTRY_COMPARE(Children(), QList<pid_t>());
    }

    void HandlerLeavesErrnoAlone()
    {
        for (const int signo : {SIGINT, SIGCHLD}) {
            errno = EXDEV;
            const int sent = raise(signo);
            const int error = errno;
            QVERIFY(sent == 0 && error == EXDEV);
        }
    }

    void NoPipeThrows()
    {
        const FailingCall failure("pipe2", EMFILE);
        QVERIFY_EXCEPTION_THROWN(SignalNotifier(), std::system_error);
    }

private:
    std::unique_ptr<SignalNotifier> m_notifier;
};

KX_TEST_MAIN(SignalHandlingTest)
#include "tst_signalhandling.moc"
