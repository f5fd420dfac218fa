#include "Terminal.h"

namespace {

const QString kSetting = "/etc/platform/settings/L2KernelsVersion";

Files Running(const char* daemon)
{
    return {{Answer("pidof.d/") + daemon + ".status", "0"}};
}

Case Refused(const QVariant& number)
{
    return {{{"number", number}},
            {{kSetting, "1\n"}},
            kFailure,
            {},
            {"3 DoSetL2KernelsVersion Invalid L2KernelsVersion: *"},
            {{kSetting, "1\n"}}};
}

} // namespace

class KernelVersionTest : public QObject {
    Q_OBJECT

private slots:
    void init() { m_terminal.Reset(); }
    void Get_data();
    void Get();
    void Set_data();
    void Set();

private:
    Terminal m_terminal;
};

void KernelVersionTest::Get_data()
{
    QTest::addColumn<Case>("testCase");

    const QStringList queries{"pidof sredd", "pidof sredd2", "pidof sredd3"};
    QTest::newRow("first") << Case{{}, Running("sredd"), {{"return", 1}}, queries.mid(0, 1), {}, {}};
    QTest::newRow("second") << Case{{}, Running("sredd2"), {{"return", 2}}, queries.mid(0, 2), {}, {}};
    QTest::newRow("third") << Case{{}, Running("sredd3"), {{"return", 3}}, queries, {}, {}};
    QTest::newRow("none") << Case{{}, {}, {{"return", 0}}, queries, {}, {}};
}

void KernelVersionTest::Get()
{
    QFETCH(Case, testCase);
    m_terminal.Run(103, testCase);
}

void KernelVersionTest::Set_data()
{
    QTest::addColumn<Case>("testCase");

    const QStringList restarted{"pidof sredd", "34-sredd restart"};
    QTest::newRow("same generation runs")
        << Case{{{"number", "2"}},  Running("sredd2"), kSuccess, {"pidof sredd", "pidof sredd2"}, {},
                {{kSetting, "2\n"}}};
    QTest::newRow("another runs") << Case{{{"number", "3"}},  Running("sredd"), kSuccess, restarted, {},
                                          {{kSetting, "3\n"}}};
    QTest::newRow("text as given") << Case{{{"number", "02"}},  Running("sredd"), kSuccess, restarted, {},
                                           {{kSetting, "02\n"}}};
    QTest::newRow("none runs") << Case{{{"number", 1}},
                                       {},
                                       kSuccess,
                                       {"pidof sredd", "pidof sredd2", "pidof sredd3", "34-sredd restart"},
                                       {},
                                       {{kSetting, "1\n"}}};
    Files failing = Running("sredd");
    failing[Answer("34-sredd.status")] = "1";
    QTest::newRow("restart fails") << Case{{{"number", "3"}},
                                           failing,
                                           kFailure,
                                           restarted,
                                           {"3 DoSetL2KernelsVersion sredd restarting returns error: *"},
                                           {{kSetting, "3\n"}}};
    QTest::newRow("cannot write") << Case{
        {{"number", "3"}},
        {{kSetting + "/folder", ""}},
        kFailure,
        {},
        {"3 DoSetL2KernelsVersion Write to /etc/platform/settings/L2KernelsVersion error: *"},
        {}};

    for (const char* text : {"", "0", "4", "-1", "abc", "2x", "1.0", "0x2", "2;reboot", "$(reboot)", "2 > /x",
                             "\n2", "2\n", " 2", "+2", "2147483648", "4294967298", "18446744073709551618"}) {
        QTest::addRow("refused '%s'", text) << Refused(QString(text));
    }
    QTest::newRow("refused: null in the text") << Refused(QString::fromLatin1("2\0;reboot", 9));
    QTest::newRow("refused: foreign digit") << Refused(QString(QChar(0x0662)));
    QTest::newRow("refused: foreign blank") << Refused(QString(QChar(0x00A0)) + '2');
    QTest::newRow("refused: no text") << Refused(QVariantList{2});
}

void KernelVersionTest::Set()
{
    QFETCH(Case, testCase);
    m_terminal.Run(102, testCase);
}

KX_SYSTEM_TEST_MAIN(KernelVersionTest)
#include "tst_kernelversion.moc"
