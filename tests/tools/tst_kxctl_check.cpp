#include "CommandRun.h"
#include "Files.h"
#include "PrivateRoot.h"
#include "Table.h"

using kxtest::CommandRun;
using kxtest::RunCommand;
using kxtest::RunKxctl;

namespace {

constexpr auto kSchema = "/usr/share/kxcore/app.conf.xsd";
constexpr int kDocumentedExamples = 9;

QByteArray Nested(int depth)
{
    return "<application>" + QByteArray("<a>").repeated(depth) + QByteArray("</a>").repeated(depth) +
           "</application>";
}

/// A small file that would need 20 MB of memory.
QByteArray Exploding()
{
    return "<!DOCTYPE application [<!ENTITY e \"" + QByteArray(4000, 'x') + "\">]>\n<application><prompts>" +
           QByteArray("&e;").repeated(5000) + "</prompts></application>";
}

/// An application directory with an account of its own, away from /home.
void MakeApplication(const QString& home, const QByteArray& appConf)
{
    for (const char* name : {"html/index.html", "html/pay.svg", "res/list"}) {
        WriteFile(home + '/' + name, "x");
    }
    MakeDirectory(home + "/cgi-bin");
    WriteFile(home + "/bin/payd", "x", 0, 0, 0755);
    WriteFile(home + "/app.conf", appConf);
    MakeDirectory(home, 4002, 4002);
}

CommandRun Validate(const QString& path)
{
    return RunCommand("xmllint", {"--noout", "--schema", kSchema, path});
}

QStringList DocumentedExamples()
{
    const QString text = QString::fromUtf8(ReadFile(KX_SOURCE_DIR "/docs/app-conf.md"));
    const QRegularExpression fence("```xml\n(.*?)```", QRegularExpression::DotMatchesEverythingOption);
    QStringList examples;
    for (auto match = fence.globalMatch(text); match.hasNext();) {
        examples.append(match.next().captured(1));
    }
    return examples;
}

} // namespace

class KxctlCheckTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_folder;

    QString Home() const { return m_folder.filePath("pay"); }

private slots:
    void init() { RemoveAll(Home()); }

    void FindsProblems_data()
    {
        const Table<QByteArray, QString> file;
        const auto row = [&](const char* name, const QByteArray& content, const QString& problem) {
            file(name, "<application>\n" + content + "\n</application>", problem);
        };
        // What the parser logs.
        row("outside the home", "<prompts>/etc/passwd</prompts>",
            "2: error: <prompts>: File '/etc/passwd' isn't located in '/home/pay' directory. Ignored.");
        row("quotes in a message", "<config_page icon_position='\"\\'>html/index.html</config_page>",
            "2: error: <config_page>: 'icon_position' should be an integer (actual value: '\"\\')");
        file("root", "<app/>",
             "1: error: <app>: Unsupported XML format. Failed. The root element must be <application>");
        // What it passes over.
        row("unknown element", "<Prompts>res/list</Prompts>",
            "2: error: <Prompts>: unknown element; it is not read");
        row("unknown attribute", "<desktop_item titel=\"x\">html/index.html</desktop_item>",
            "2: error: <desktop_item>: unknown attribute 'titel'; it is not read");
        row("empty", "<desktop_item title=\"x\"/>",
            "2: error: <desktop_item>: empty, so it is skipped with its attributes");
        row("comment first", "<prompts><!-- x -->res/list</prompts>",
            "2: error: <prompts>: must begin with its text: only the first piece of its content is read, be "
            "it a "
            "comment or an element");
        row("comment inside", "<prompts>res/list<!-- x -->s</prompts>",
            "2: error: <prompts>: only its text up to the first comment or element is read: 'res/list'");
        row("stray text", "text", "1: error: <application>: text between the elements is not read");
        row("missing file", "<prompts>res/none</prompts>",
            "2: error: <prompts>: '/home/pay/res/none' does not exist");
        row("missing icon", "<desktop_item icon_path=\"html/none.svg\">html/index.html</desktop_item>",
            "2: error: <desktop_item>: '/home/pay/html/none.svg' does not exist");
        row("missing signature", "<white_list signature_path=\"res/none\">res/list</white_list>",
            "2: error: <white_list>: '/home/pay/res/none' does not exist");
        row("missing program", "\n<run_on_boot>bin/none -x</run_on_boot>",
            "3: error: <run_on_boot>: program '/home/pay/bin/none' does not exist");
        row("program elsewhere", "<run_on_boot>/bin/sh</run_on_boot>",
            "2: error: <run_on_boot>: program '/home/pay//bin/sh' does not exist");
        row("not executable", "<run_on_boot>html/index.html</run_on_boot>",
            "2: error: <run_on_boot>: program '/home/pay/html/index.html' is not executable");
        row("page without address", "<show_on_boot>res/list</show_on_boot>",
            "2: error: <show_on_boot>: 'res/list' has no page address: pages lie below html");
        // Files that are not read at all.
        file("not well-formed", "<application>\n  <a>\n</application>",
             "3: error: not well-formed: tag mismatch (column 14); nothing of the file is "
             "read");
        file(
            "nested", Nested(200),
            "1: error: elements are nested deeper than 100 levels (column 310); nothing of the file is read");
        file("exploding", Exploding(),
             "1: error: entities expand to more than 16777216 characters (column 0); nothing of the file is "
             "read");
        // What is taken in spite of it.
        row("repeated", "<prompts>res/list</prompts>\n<prompts>res/list</prompts>",
            "3: warning: <prompts>: given more than once; the last one counts");
        row("blank", "<prompts> </prompts>",
            "2: warning: <prompts>: blank, which is the same as leaving it out");
        row("position", "<desktop_item icon_position=\"101\">html/index.html</desktop_item>",
            "2: warning: <desktop_item>: 'icon_position' should be 1 to 100 (actual value: 101)");
        row("flag", "<cgi_bin_default>yes</cgi_bin_default>",
            "2: warning: <cgi_bin_default>: 'yes' counts as false");
        row("signature", "<white_list signature=\"0g\">res/list</white_list>",
            "2: warning: <white_list>: 'signature' is no hexadecimal text");
        row("out of the home", "<resources>../shop</resources>",
            "2: warning: <resources>: '/home/shop' leads out of the home directory");
    }

    void FindsProblems()
    {
        const auto [content, problem] = FetchRow<QByteArray, QString>();
        MakeApplication(Home(), content);
        const CommandRun run = RunKxctl({"check", Home()});
        const bool isWarning = problem.contains(": warning: ");
        QCOMPARE(run.out, Home() + "/app.conf:" + problem + "\npay: errors: " + (isWarning ? "0" : "1") +
                              ", warnings: " + (isWarning ? "1" : "0") + '\n');
        QCOMPARE(run.err, QString());
        QCOMPARE(run.status, isWarning ? 0 : 1);
    }

    void AcceptsWhatIsRight()
    {
        MakeApplication(Home(),
                        "<application xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
                        " xsi:noNamespaceSchemaLocation=\"x\">"
                        "<cgi_bin_default>TRUE</cgi_bin_default>"
                        "<run_on_boot>bin/payd a</run_on_boot>"
                        "<show_on_boot>~/html/index.html</show_on_boot>"
                        "<home_button>/home/pay/html/index.html</home_button>"
                        "<white_list signature=\"0aFF\" signature_path=\"./res/list\">res/list</white_list>"
                        "<desktop_item icon_path=\"html/pay.svg\">html/index.html?page=1</desktop_item>"
                        "</application>");
        const CommandRun run = RunKxctl({"check", Home()});
        QCOMPARE(run.out, QString("pay: errors: 0, warnings: 0\n"));
        QCOMPARE(run.status, 0);
    }

    void LooksAtTheDirectoryToo()
    {
        MakeApplication(Home(), "<application><cgi_bin_default>true</cgi_bin_default></application>");
        WriteFile(Home() + "/bin/readme", "x");
        RemoveAll(Home() + "/cgi-bin");
        const QString name(41, 'n');
        const CommandRun run = RunKxctl({"check", Home() + '/', "--name", name});
        QCOMPARE(run.out,
                 Home() + ": error: the name is longer than 40 characters, so its pages have no address\n" +
                     Home() + "/app.conf:1: error: <cgi_bin_default>: there is no directory cgi-bin\n" +
                     Home() + "/bin/readme: warning: not executable, so it cannot be started\n" + name +
                     ": errors: 2, warnings: 1\n");
    }

    void LooksAtTheOwnerOfAHomeOnly()
    {
        MakeApplication(Home(), "<application/>");
        MakeDirectory(Home(), 1000, 1000);
        QCOMPARE(RunKxctl({"check", Home()}).out, QString("pay: errors: 0, warnings: 0\n"));
        MakeApplication("/home/pay", "<application/>");
        MakeDirectory("/home/pay", 4002, 5000);
        QCOMPARE(RunKxctl({"check", "/home/pay"}).out,
                 QString("/home/pay: warning: owned by 4002:5000, which is no application account (4000 to "
                         "4999)\npay: errors: 0, warnings: 1\n"));
    }

    void TellsWhyAFileIsNotRead()
    {
        MakeApplication(Home(), QByteArray(1024 * 1024 + 1, ' '));
        const auto problem = [this] {
            const CommandRun run = RunKxctl({"check", Home(), "--json"});
            const QJsonObject report = QJsonDocument::fromJson(run.out.toUtf8()).object();
            return report.value("problems").toArray().at(0).toObject().value("text").toString();
        };
        QCOMPARE(problem(), QString("larger than 1048576 bytes; the application has no settings"));
        RemoveAll(Home() + "/app.conf");
        QCOMPARE(problem(), QString("No such file or directory; the application has no settings"));
        MakeDirectory(Home() + "/app.conf");
        QCOMPARE(problem(), QString("not a regular file; the application has no settings"));
    }

    void SchemaTakesWhatIsDocumented()
    {
        const QStringList examples = DocumentedExamples();
        QCOMPARE(examples.size(), kDocumentedExamples);
        for (const QString& example : examples) {
            MakeApplication(Home(), example.toUtf8());
            const CommandRun run = Validate(Home() + "/app.conf");
            QVERIFY2(run.status == 0, qPrintable(run.err + example));
            // The files that the examples name are not here; anything else is a mistake.
            const QStringList lines = RunKxctl({"check", Home()}).out.split('\n', Qt::SkipEmptyParts);
            for (const QString& line : lines.mid(0, lines.size() - 1)) {
                QVERIFY2(line.endsWith("does not exist"), qPrintable(line));
            }
        }
    }

    void SchemaAgreesOnTheSampleApplications()
    {
        const QDir samples(KX_SOURCE_DIR "/examples/apps");
        for (const QString& name : samples.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QString path = samples.filePath(name + "/app.conf");
            if (QFileInfo::exists(path)) {
                const CommandRun run = Validate(path);
                QVERIFY2((run.status == 0) == (name != "broken"), qPrintable(path + run.err));
            }
        }
    }

    void SchemaRefuses()
    {
        for (const char* content :
             {"<Prompts>x</Prompts>", "<prompts path=\"x\">x</prompts>", "<prompts/>", "<prompts> </prompts>",
              "<prompts><b>x</b></prompts>", "stray", "<desktop_item icon_position=\"top\">x</desktop_item>",
              "<desktop_item icon_position=\"101\">x</desktop_item>",
              "<cgi_bin_default>yes</cgi_bin_default>", "<white_list signature=\"xyz\">x</white_list>"}) {
            MakeApplication(Home(), QByteArray("<application><resources>r</resources>") + content +
                                        "<prompts>p</prompts></application>");
            QVERIFY2(Validate(Home() + "/app.conf").status == 3, content);
        }
    }
};

KX_TEST_MAIN(KxctlCheckTest)
#include "tst_kxctl_check.moc"
