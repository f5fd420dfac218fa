#include "ToolsFixture.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QRegExp>

#include <sys/stat.h>

namespace {

const QString kConfiguration = "/etc/rc.d/rc.platform.conf";
const QString kScript = "/etc/platform/99-audiopayd";

} // namespace

class VariablesTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void PunctuationInValuesIsRefused();
    void VariableIsSaved_data();
    void VariableIsSaved();
    void ConfigurationMustExist();
    void LineIsFoundAsQRegExpFindsIt();
    void HostileNamesDoNotBlock_data();
    void HostileNamesDoNotBlock();
    void AudiopaydIsSwitched();
};

void VariablesTest::PunctuationInValuesIsRefused()
{
    Write(kConfiguration, "export A=\"1\"\n");
    const QString refused = QString::fromUtf8("-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"[]\\");
    for (const QChar character : refused) {
        QCOMPARE(m_server.SaveVariableValue("A", QString("a") + character), -1);
    }
    for (const QString value : {"en_US", "1.5", "a-b", "/tmp"}) {
        QCOMPARE(m_server.SaveVariableValue("A", value), -1);
    }
    QCOMPARE(Read(kConfiguration), QByteArray("export A=\"1\"\n"));
    QCOMPARE(TakeLog().size(), 0);
}

void VariablesTest::VariableIsSaved_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("after");

    const auto row = [](const char* title, const QByteArray& before, const QString& name,
                        const QString& value, const QByteArray& after) {
        QTest::newRow(title) << before << name << value << after;
    };
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
    row("whole line, its end included", "A\nBCDEFGHIJKLMNOPQ\n", "A?BC", "1",
        "A\nBCDEFGHIJKLMNOPQ\nexport A?BC=\"1\"\n");
    row("placeholders", "", "%2", "x", "export %2=\"x\"\n");
    row("other lines keep their bytes", "X=\xC3\xA4\xFF\nexport A=\"1\"\n", "A", "2",
        "X=\xC3\xA4\xFF\nexport A=\"2\"\n");
    row("name not ASCII", "X=\xC3\xA4\n", QString::fromUtf8("ä"), "1", "X=\xC3\xA4\nexport \xC3\xA4=\"1\"\n");
    row("name misread as two characters", "?A", QString(QChar(0x4100)), "1", "?Aexport \xE4\x84\x80=\"1\"\n");
    row("value not ASCII", "A\n", "A", QString::fromUtf8("Größe €"),
        "export A=\"Gr\xC3\xB6\xC3\x9F"
        "e \xE2\x82\xAC\"\n");
    row("line end of DOS", "X\r\nexport A=\"1\"\n", "A", "2", "X\nexport A=\"2\"\n\n");
    row("NUL ends a line", QByteArray("X\0YZ\nexport A=\"1\"\n", 18), "A", "22", "Xexport A=\"22\"\n1\"\n");
}

void VariablesTest::VariableIsSaved()
{
    QFETCH(QByteArray, before);
    QFETCH(QString, name);
    QFETCH(QString, value);
    QFETCH(QByteArray, after);
    Write(kConfiguration, before);
    QCOMPARE(m_server.SaveVariableValue(name, value), 0);
    QCOMPARE(Read(kConfiguration), after);
}

void VariablesTest::ConfigurationMustExist()
{
    Remove(kConfiguration);
    QCOMPARE(m_server.SaveVariableValue("A", "1"), -1);
    QVERIFY(!QFile::exists(kConfiguration));
    QVERIFY(QDir().mkdir(kConfiguration));
    QCOMPARE(m_server.SaveVariableValue("A", "1"), -1);
    Remove(kConfiguration);
    QCOMPARE(TakeLog().size(), 0);
}

/// Compares with the class that defines the syntax, on names of all that is special in it.
void VariablesTest::LineIsFoundAsQRegExpFindsIt()
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
        Write(kConfiguration, lines.join("").toLatin1());
        QCOMPARE(m_server.SaveVariableValue(name, "1"), 0);
        const QByteArray saved = "export " + name.toLatin1() + "=\"1\"\n";
        const QByteArray before = QStringList(lines.mid(0, expected)).join("").toLatin1();
        QVERIFY2(Read(kConfiguration).startsWith(before + saved), qPrintable(name));
    }
}

void VariablesTest::HostileNamesDoNotBlock_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isFound"); // in the file's second line

    constexpr int kMillion = 1000000;
    const QString half(kMillion / 2, 'a');
    QTest::newRow("long and there") << QString(kMillion, 'a') << true;
    QTest::newRow("almost there everywhere") << half + 'b' << false;
    QTest::newRow("stars") << QString(kMillion, '*') << false;
    QTest::newRow("stars between") << QString("a*").repeated(kMillion / 2) << false;
    QTest::newRow("stars to shorten") << QString("a***").repeated(6 * kMillion) << false;
    QTest::newRow("short with stars") << QString("a**").repeated(21) + 'b' << false;
    QTest::newRow("question marks") << QString(kMillion, '?') << false;
    QTest::newRow("sets") << QString("[ab]").repeated(kMillion / 4) << false;
    QTest::newRow("open sets") << QString(kMillion, '[') << false;
    QTest::newRow("line ends") << QString(kMillion, '\n') << false;
    QTest::newRow("NULs") << QString(kMillion, QChar::Null) << false;
}

void VariablesTest::HostileNamesDoNotBlock()
{
    QFETCH(QString, name);
    QFETCH(bool, isFound);
    const QByteArray lines = "export X=\"1\"\n" + QByteArray(1000000, 'a') + '\n';
    Write(kConfiguration, lines);
    QElapsedTimer timer;
    timer.start();

    QCOMPARE(m_server.SaveVariableValue(name, "1"), 0);

    const qint64 bound = 10000LL * qMax(1, qEnvironmentVariableIntValue("KX_TIME_FACTOR"));
    QVERIFY2(timer.elapsed() < bound, qPrintable(QString::number(timer.elapsed())));
    const QByteArray saved = "export " + name.toLatin1() + "=\"1\"\n";
    const bool isFirst = name.startsWith("**");
    const QByteArray rest = Read(kConfiguration).mid(isFirst ? 0 : isFound ? 13 : lines.size());
    QVERIFY(rest.startsWith(saved));
}

void VariablesTest::AudiopaydIsSwitched()
{
    const auto mode = [] {
        struct stat status {};
        return stat(qPrintable(kScript), &status) == 0 ? status.st_mode & 07777U : 0U;
    };
    Write(kScript, "#!/bin/sh\n");
    m_server.EnableAudiopayd(true);
    QCOMPARE(mode(), 0755U);
    QVERIFY(m_server.IsAudiopaydEnabled());
    m_server.EnableAudiopayd(false);
    QCOMPARE(mode(), 0644U);
    QVERIFY(!m_server.IsAudiopaydEnabled());
    QCOMPARE(TakeLog().size(), 0);

    Remove(kScript);
    m_server.EnableAudiopayd(true);
    QCOMPARE(Errors("EnableAudiopayd"), QStringList("No such file or directory"));
    QVERIFY(!m_server.IsAudiopaydEnabled());
}

KX_TOOLS_TEST_MAIN(VariablesTest)

#include "tst_variables.moc"
