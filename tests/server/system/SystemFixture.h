#pragma once

#include "Files.h"
#include "Fixture.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

#include <Registry.h>

#include <memory>

/// Paths and contents. "-> target" stands for a link; a null text for nothing at that path.
using Files = QMap<QString, QByteArray>;

const QVariantMap kSuccess{{"return", 0}};
const QVariantMap kFailure{{"return", -1}};

/// One call of an operation: what is there before, and all that it is to bring about.
struct Case {
    QVariantMap args = {};
    Files before = {};
    QVariantMap result = kSuccess;
    QStringList calls = {};
    QStringList log = {}; ///< each as "priority function text"; a final "*" stands for any rest
    Files after = {};
};
Q_DECLARE_METATYPE(Case)

/// Takes the fields of each row's Case one by one.
struct CaseTable : Table<Case> {
    void operator()(const QByteArray& name, const QVariantMap& args, const Files& before,
                    const QVariantMap& result, const QStringList& calls = {}, const QStringList& log = {},
                    const Files& after = {}) const
    {
        Table::operator()(name, {args, before, result, calls, log, after});
    }
};

/// Base of the test classes: the system server and the terminal around it, which every test finds new. That
/// is its files, the stand-ins of its programs, and the applications server.
class SystemFixture : public Fixture {
    Q_OBJECT

public:
    SystemFixture();

public slots:
    void init();

protected:
    /// Performs the call of the current row, a Table of Case, and compares all that came of it.
    void RunCase(int methodId);
    void Run(int methodId, const Case& testCase);

    core::system::Server& Server();

    /// \return what the platform's programs were called with since the last time, one "name arguments" each;
    ///         "OnTerminate" and "OnStarted" when the applications server emitted these signals
    static QStringList TakeCalls();

    static void Create(const Files& files);
    static void Compare(const Files& files);

    /// Compares what the case names and happened since the last time.
    static void CompareEffects(const Case& testCase);

    com::veltrasys::Registry m_registry; ///< another program's

private:
    std::unique_ptr<core::applications::Server> m_applications;
    std::unique_ptr<core::system::Server> m_server;
};

/// Path of a stand-in's answer: "NAME.out", "NAME.status", or "NAME.d/ARGUMENTS" as a file name.
QString Answer(const char* name);

/// \return the first with what the second changes
Files With(Files files, const Files& changes);
QVariantMap With(QVariantMap args, const QVariantMap& changes);
