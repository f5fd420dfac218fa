#include "Patience.h"
#include "ToolsFixture.h"

namespace {

const QString kConfiguration = "/etc/rc.d/rc.platform.conf";
const QString kScript = "/etc/platform/99-audiopayd";

} // namespace

class VariablesTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void PunctuationInValuesIsRefused()
    {
        WriteFile(kConfiguration, "export A=\"1\"\n");
        const QString refused = QString::fromUtf8("-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"[]\\");
        for (const QChar character : refused) {
            QCOMPARE(m_server.SaveVariableValue("A", QString("a%1b").arg(character)), -1);
        }
        QCOMPARE(ReadFile(kConfiguration), QByteArray("export A=\"1\"\n"));
        QCOMPARE(TakeLog().size(), 0);
    }

    void VariableIsSaved_data()
    {
        const Table<QByteArray, QString, QString, QByteArray> row; // before, name, value, after
        row("first variable", "", "MSG", "hello world", "export MSG=\"hello world\"\n");
        row("appended", "# settings\n", "A", "", "# settings\nexport A=\"\"\n");
        row("appended to a line without end", "X", "A", "1", "Xexport A=\"1\"\n");
        row("first line with the name", "export VOLUME_MAX=\"10\"\nexport VOLUME=\"3\"\n", "VOLUME", "5",
            "export VOLUME=\"5\"\nexport VOLUME=\"3\"\n=\"3\"\n");
        row("old tail stays", "export A=\"12345\"\n", "A", "1", "export A=\"1\"\n45\"\n");
        row("longer text", "export A=\"1\"\nexport B=\"2\"\n", "A", "12345",
            "export A=\"12345\"\nexport B=\"2\"\n");
        row("case counts", "export a=\"1\"\n", "A", "1", "export a=\"1\"\nexport A=\"1\"\n");
        row("name in a comment", "# A is good\n", "A", "1", "export A=\"1\"\n");
        row("empty name", "X\nY\n", "", "1", "export =\"1\"\nY\n");
        row("wildcards in the name", "export VOLUME=\"3\"\n", "V?[A-L]*E", "1", "export V?[A-L]*E=\"1\"\n");
        row("star after a backslash", "\\*xb\n", "\\***b", "1", "export \\***b=\"1\"\n");
        row("placeholders", "", "%2", "x", "export %2=\"x\"\n");
        row("other lines keep their bytes", "X=\xC3\xA4\xFF\nexport A=\"1\"\n", "A", "2",
            "X=\xC3\xA4\xFF\nexport A=\"2\"\n");
        row("name not ASCII", "X=\xC3\xA4\n", QString::fromUtf8("ä"), "1",
            "X=\xC3\xA4\nexport \xC3\xA4=\"1\"\n");
        row("name misread as two characters", "?A", QString(QChar(0x4100)), "1",
            "?Aexport \xE4\x84\x80=\"1\"\n");
        row("value not ASCII", "A\n", "A", QString::fromUtf8("Größe €"),
            "export A=\"Gr\xC3\xB6\xC3\x9F"
            "e \xE2\x82\xAC\"\n");
        row("line end of DOS", "X\r\nexport A=\"1\"\n", "A", "2", "X\nexport A=\"2\"\n\n");
        row("NUL ends a line", QByteArray("X\0YZ\nexport A=\"1\"\n", 18), "A", "22",
            "Xexport A=\"22\"\n1\"\n");
    }

    void VariableIsSaved()
    {
        const auto [before, name, value, after] = FetchRow<QByteArray, QString, QString, QByteArray>();
        WriteFile(kConfiguration, before);
        QCOMPARE(m_server.SaveVariableValue(name, value), 0);
        QCOMPARE(ReadFile(kConfiguration), after);
    }

    void ConfigurationMustExist()
    {
        RemoveAll(kConfiguration);
        QCOMPARE(m_server.SaveVariableValue("A", "1"), -1);
        QVERIFY(!QFile::exists(kConfiguration));
        MakeDirectory(kConfiguration);
        QCOMPARE(m_server.SaveVariableValue("A", "1"), -1);
        RemoveAll(kConfiguration);
        QCOMPARE(TakeLog().size(), 0);
    }

    /// Compares with the class that defines the syntax, on names of all that is special in it.
    void LineIsFoundAsQRegExpFindsIt()
    {
        QRandomGenerator random(1);
        const auto text = [&](const QString& alphabet, int length) {
            QString result;
            for (int left = random.bounded(length); left > 0; --left) {
                result += alphabet[random.bounded(alphabet.size())];
            }
            return result;
        };
        for (int i = 0; i < 3000; ++i) {
            QStringList lines;
            for (int line = 0; line < 8; ++line) {
                lines.append(text("aab*?[]\\^-.", 7) + '\n');
            }
            const QString name = text("aab**?[]\\^-.$(", 8);
            const QRegExp pattern('*' + name + '*', Qt::CaseSensitive, QRegExp::Wildcard);
            int expected = 0;
            while (expected < lines.size() && !pattern.exactMatch(lines[expected])) {
                ++expected;
            }
            WriteFile(kConfiguration, lines.join("").toLatin1());
            QCOMPARE(m_server.SaveVariableValue(name, "1"), 0);
            const QByteArray saved = "export " + name.toLatin1() + "=\"1\"\n";
            const QByteArray before = QStringList(lines.mid(0, expected)).join("").toLatin1();
            QVERIFY2(ReadFile(kConfiguration).startsWith(before + saved), qPrintable(name));
        }
    }

    void HostileNamesDoNotBlock_data()
    {
        const Table<QString, bool> row; // name, whether it is found in the file's second line
        constexpr int kMillion = 1000000;
        const QString half(kMillion / 2, 'a');
        row("long and there", QString(kMillion, 'a'), true);
        row("almost there everywhere", half + 'b', false);
        row("stars", QString(kMillion, '*'), false);
        row("stars between", QString("a*").repeated(kMillion / 2), false);
        row("stars to shorten", QString("a***").repeated(6 * kMillion), false);
        row("short with stars", QString("a**").repeated(21) + 'b', false);
        row("question marks", QString(kMillion, '?'), false);
        row("sets", QString("[ab]").repeated(kMillion / 4), false);
        row("open sets", QString(kMillion, '['), false);
        row("line ends", QString(kMillion, '\n'), false);
        row("NULs", QString(kMillion, QChar::Null), false);
    }

    void HostileNamesDoNotBlock()
    {
        const auto [name, isFound] = FetchRow<QString, bool>();
        const QByteArray lines = "export X=\"1\"\n" + QByteArray(1000000, 'a') + '\n';
        WriteFile(kConfiguration, lines);
        QElapsedTimer timer;
        timer.start();

        QCOMPARE(m_server.SaveVariableValue(name, "1"), 0);

        QVERIFY2(timer.elapsed() < kxtest::Bound(kxtest::kPatience),
                 qPrintable(QString::number(timer.elapsed())));
        const QByteArray saved = "export " + name.toLatin1() + "=\"1\"\n";
        const bool isFirst = name.startsWith("**");
        const QByteArray rest = ReadFile(kConfiguration).mid(isFirst ? 0 : isFound ? 13 : lines.size());
        QVERIFY(rest.startsWith(saved));
    }

    void AudiopaydIsSwitched()
    {
        WriteFile(kScript, "#!/bin/sh\n");
        for (const bool enable : {true, false}) {
            m_server.EnableAudiopayd(enable);
            QCOMPARE(OwnerAndMode(kScript), enable ? "0:0 755" : "0:0 644");
            QCOMPARE(m_server.IsAudiopaydEnabled(), enable);
        }
        RemoveAll(kScript);
        m_server.EnableAudiopayd(true);
        QCOMPARE(Errors("EnableAudiopayd"), QStringList("No such file or directory"));
        QVERIFY(!m_server.IsAudiopaydEnabled());
    }
};

KX_TEST_MAIN(VariablesTest)
#include "tst_variables.moc"
