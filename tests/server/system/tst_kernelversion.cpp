#include "SystemFixture.h"

namespace {

const QString kSetting = "/etc/platform/settings/L2KernelsVersion";
const QStringList kQueries{"pidof sredd", "pidof sredd2", "pidof sredd3"};

Files Running(const char* daemon)
{
    return {{Answer("pidof.d/") + daemon + ".status", "0"}};
}

} // namespace

class KernelVersionTest : public SystemFixture {
    Q_OBJECT

private slots:
    void Get_data()
    {
        const CaseTable row;
        row("first", {}, Running("sredd"), {{"return", 1}}, kQueries.mid(0, 1));
        row("second", {}, Running("sredd2"), {{"return", 2}}, kQueries.mid(0, 2));
        row("third", {}, Running("sredd3"), {{"return", 3}}, kQueries);
        row("none", {}, {}, {{"return", 0}}, kQueries);
    }

    void Get() { RunCase(103); }

    void Set_data()
    {
        const CaseTable row;
        const auto set = [&](const char* name, const QVariant& number, const Files& running,
                             const QStringList& calls) {
            row(name, {{"number", number}}, running, kSuccess, calls, {},
                {{kSetting, number.toByteArray() + '\n'}});
        };
        const QString restart = "34-sredd restart";
        const QStringList restarted{"pidof sredd", restart};
        set("same generation runs", "2", Running("sredd2"), kQueries.mid(0, 2));
        set("another runs", "3", Running("sredd"), restarted);
        set("text as given", "02", Running("sredd"), restarted);
        set("none runs", 1, {}, kQueries + QStringList(restart));
        row("restart fails", {{"number", "3"}}, With(Running("sredd"), {{Answer("34-sredd.status"), "1"}}),
            kFailure, restarted, {"3 DoSetL2KernelsVersion sredd restarting returns error: *"},
            {{kSetting, "3\n"}});
        row("cannot write", {{"number", "3"}}, {{kSetting + "/folder", ""}}, kFailure, {},
            {"3 DoSetL2KernelsVersion Write to /etc/platform/settings/L2KernelsVersion error: *"});

        const auto refused = [&](const QByteArray& name, const QVariant& number) {
            row("refused: " + name, {{"number", number}}, {{kSetting, "1\n"}}, kFailure, {},
                {"3 DoSetL2KernelsVersion Invalid L2KernelsVersion: *"}, {{kSetting, "1\n"}});
        };
        for (const char* text :
             {"", "0", "4", "-1", "abc", "2x", "1.0", "0x2", "2;reboot", "$(reboot)", "2 > /x", "\n2", "2\n",
              " 2", "+2", "2147483648", "4294967298", "18446744073709551618"}) {
            refused(text, QString(text));
        }
        refused("null in the text", QString::fromLatin1("2\0;reboot", 9));
        refused("foreign digit", QString(QChar(0x0662)));
        refused("foreign blank", QString(QChar(0x00A0)) + '2');
        refused("no text", QVariantList{2});
    }

    void Set() { RunCase(102); }
};

KX_TEST_MAIN(KernelVersionTest)
#include "tst_kernelversion.moc"
