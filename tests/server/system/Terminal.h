#pragma once

#include "LogRecorder.h"
#include "server/applications/Server.h"
#include "server/system/Server.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <QtTest>

#include <memory>

/// Paths and contents. "-> target" stands for a link; a null text for nothing at that path.
using Files = QMap<QString, QByteArray>;

/// One call of an operation: what is there before, and all that it is to bring about.
struct Case {
    QVariantMap args;
    Files before;
    QVariantMap result;
    QStringList calls;
    QStringList log; ///< each as "priority function text"; a final "*" stands for any rest
    Files after;
};
Q_DECLARE_METATYPE(Case)

const QVariantMap kSuccess{{"return", 0}};
const QVariantMap kFailure{{"return", -1}};

/// The terminal around the system server: files, stand-ins of its programs, and the applications server. One
/// to a test program, which runs in a private root; every Reset makes it new.
class Terminal : public QObject {
    Q_OBJECT

public:
    Terminal();

    /// Removes what earlier tests left, log included, and the system server.
    void Reset();

    /// Makes the files of \a before, creates the system server unless there is one, and performs the call.
    void Run(int methodId, const Case& testCase);

    core::system::Server& Server();

    /// \return what the platform's programs were called with since the last time, one "name arguments" each;
    ///         "OnTerminate" and "OnStarted" when the applications server emitted these signals
    static QStringList TakeCalls();

    static void Create(const Files& files);
    static void Compare(const Files& files);

    /// Compares the records since the last time.
    static void CompareLog(const QStringList& expected);

private:
    std::unique_ptr<core::applications::Server> m_applications;
    std::unique_ptr<core::system::Server> m_server;
};

/// Path of a stand-in's answer: "NAME.out", "NAME.status", or "NAME.d/ARGUMENTS" as a file name.
QString Answer(const char* name);

/// main for a test class with a default constructor.
#define KX_SYSTEM_TEST_MAIN(Test)                                                                            \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        RequirePrivateRoot();                                                                                \
        const QCoreApplication application(argc, argv);                                                      \
        Test test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                              \
    }

/// Ends the program unless it runs in the private root.
void RequirePrivateRoot();
