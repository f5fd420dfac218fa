#include "server/applications/appconf/AppConfigParser.h"

#include "Files.h"
#include "Fixture.h"

#include "misc/UniqueFd.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace core::configuration;

namespace {

/// A log line at error level whose text was streamed as a QString.
QString Logged(const char* function, const QString& text)
{
    return QStringLiteral("3 %1 \"%2\"").arg(function, text);
}

QString Outside(const char* path, const char* directory)
{
    return Logged("operator()", QStringLiteral("File '%1' is not in '%2' directory").arg(path, directory));
}

QString Ignored(const char* path)
{
    return Logged("NormalizeFilePath",
                  QStringLiteral("File '%1' isn't located in '/home/pay' directory. Ignored.").arg(path));
}

QString NoForm(const char* tag)
{
    return Logged("ParseXMLRootNode", QStringLiteral("No form defined for <%1/> (pay)").arg(tag));
}

QString NotANumber(const char* value)
{
    const QString text("'icon_position' should be an integer (actual value: '%1') ");
    return Logged("ParseXMLRootNode", text.arg(QString(value)));
}

QVariantMap Item(const char* form, const char* icon = "", int position = 0, const char* title = "")
{
    return {{"form", form}, {"iconPath", icon}, {"iconPosition", position}, {"title", title}};
}

/// What differs from the record of an application without app.conf.
QVariantMap Settings(const ApplicationConfig& config)
{
    const QVariantMap defaults = Parser::GatherApplicationData("", config.m_name);
    QVariantMap settings = config;
    for (auto it = defaults.begin(); it != defaults.end(); ++it) {
        if (settings.value(it.key()) == it.value()) {
            settings.remove(it.key());
        }
    }
    return settings;
}

/// Elements nested \a levels deep, then the resource "r".
QByteArray Nested(int levels)
{
    return "<application>" + QByteArray("<a>").repeated(levels - 1) +
           QByteArray("</a>").repeated(levels - 1) + "<resources>r</resources></application>";
}

/// An entity of nearly the length that Qt allows, used \a times in the text or in an attribute.
QByteArray ManyEntities(int times, bool inAttribute)
{
    const QByteArray uses = QByteArray("&e;").repeated(times);
    return "<!DOCTYPE application [<!ENTITY e '" + QByteArray(4000, 'x') + "'>]><application>" +
           (inAttribute ? "<prompts title='" + uses + "'>p</prompts>" : "<prompts>" + uses + "</prompts>") +
           "</application>";
}

QByteArray ExponentialEntities()
{
    QByteArray dtd = "<!ENTITY e0 'xxxxxxxxxx'>";
    for (int level = 1; level < 10; ++level) {
        const QByteArray previous = "&e" + QByteArray::number(level - 1) + ';';
        dtd += "<!ENTITY e" + QByteArray::number(level) + " '" + previous.repeated(10) + "'>";
    }
    return "<!DOCTYPE application [" + dtd + "]><application><prompts>&e9;</prompts></application>";
}

/// A well-formed app.conf of exactly \a size bytes.
QByteArray Sized(int size)
{
    const QByteArray content = Nested(1);
    return content + QByteArray(size - content.size(), ' ');
}

} // namespace

class AppConfigParserTest : public Fixture {
    Q_OBJECT

private slots:
    void init()
    {
        Fixture::init();
        RemoveAll("/home/pay");
    }

    void Elements_data()
    {
        const Table<QByteArray, QVariantMap, QStringList> table;
        const auto row = [&](const char* xml, const QVariantMap& settings, const QStringList& log = {}) {
            table(xml, xml, settings, log);
        };
        row("<resources> res/r.xml </resources>", {{"resources", "/home/pay/res/r.xml"}});
        row("<web_resources>./web</web_resources>", {{"webResources", "/home/pay/web"}});
        row("<prompts>a//b/../p%1</prompts>", {{"prompts", "/home/pay/a/p%1"}});
        row("<prompts>a</prompts><prompts>b</prompts>", {{"prompts", "/home/pay/b"}});
        row("<prompts>a</prompts><prompts> </prompts>", {});
        row("<prompts>a</prompts><prompts/>", {{"prompts", "/home/pay/a"}});
        row("<prompts><!--c-->x</prompts>", {{"prompts", "/home/pay/c"}});
        row("<prompts><![CDATA[a&b]]></prompts>", {{"prompts", "/home/pay/a&b"}});
        row("<prompts><b>x</b></prompts>", {});
        row("<prompts>/etc/passwd</prompts>", {}, {Ignored("/etc/passwd")});
        row("<prompts>/home/pay2/x</prompts>", {{"prompts", "/home/pay2/x"}});
        row("<prompts>/home/pay/../other/x</prompts>", {{"prompts", "/home/other/x"}});
        row("<ca_cert>~/ca.pem</ca_cert>", {{"cacertPath", "/home/pay/ca.pem"}});
        row("<show_on_boot>html/f.html</show_on_boot>", {{"showOnBoot", "/home/pay/html/f.html"}});
        row("<Prompts>a</Prompts><unknown><prompts>b</prompts></unknown><x:y/>", {});
        row("<home_button>html/index.html</home_button>", {{"homeButton", "pay/index.html"}});
        row("<home_button>cgi-bin/x</home_button>", {}, {Outside("/home/pay/cgi-bin/x", "/home/pay/html/")});
        row("<card_ranges>../c</card_ranges>", {{"cardRanges", "/home/c"}},
            {Outside("/home/c", "/home/pay/")});
        row("<bin_ranges>/home/pay2/b</bin_ranges>", {{"BINRanges", "/home/pay2/b"}},
            {Outside("/home/pay2/b", "/home/pay/")});
        row("<white_list signature=' ab ' signature_path='../s'>w</white_list>",
            {{"whiteList", "/home/pay/w"},
             {"whiteListSignature", " ab "},
             {"whiteListSignaturePath", "/home/s"}},
            {Outside("/home/s", "/home/pay/")});
        row("<white_list signature='s'>a</white_list><white_list>b</white_list>",
            {{"whiteList", "/home/pay/b"}});
        row("<white_list signature='s'/>", {});
        row("<run_on_boot>bin/start -a</run_on_boot>", {{"runOnBoot", "/home/pay/bin/start -a"}});
        row("<run_on_boot>/home/pay/bin/start</run_on_boot>", {{"runOnBoot", "/home/pay/bin/start"}});
        row("<run_on_boot>/usr/bin/../x</run_on_boot>", {{"runOnBoot", "/home/pay//usr/bin/../x"}});
        row("<run_on_boot> </run_on_boot>", {});
        row("<cgi_bin_default> TRUE </cgi_bin_default>", {{"cgiBinDefault", true}});
        row("<cgi_bin_default>yes</cgi_bin_default>", {});
        row("<cgi_bin_default>true</cgi_bin_default><cgi_bin_default>1</cgi_bin_default>", {});
    }

    void Elements()
    {
        const auto [xml, settings, log] = FetchRow<QByteArray, QVariantMap, QStringList>();
        const QByteArray text = "<application xmlns='u'>\n " + xml + "\n</application>";
        QCOMPARE(Settings(Parser::GatherApplicationData(text.constData(), "pay")), settings);
        QCOMPARE(TakeLogLines(), log);
    }

    void Items_data()
    {
        const Table<QByteArray, QVariantMap, QStringList> table;
        const auto row = [&](const char* xml, const QVariantMap& settings, const QStringList& log = {}) {
            table(xml, xml, settings, log);
        };
        const auto items = [](const QVariantMap& item) {
            return QVariantMap{{"desktopItems", QVariantList{item}}};
        };
        row("<desktop_item>./html/menu.html</desktop_item>", items(Item("/html/pay/menu.html")));
        row("<desktop_item>/home/pay/html/menu.html</desktop_item>", items(Item("/html/pay/menu.html")));
        row("<desktop_item title=' 9 %2 ' icon_path='html/i' icon_position='12'>html/%1</desktop_item>",
            items(Item("/html/pay/%1", "/html/pay/i", 12, " 9 %2 ")));
        row("<config_page>html/b</config_page><desktop_item>html/a</desktop_item>"
            "<config_page icon_position='-5'>html/a</config_page>",
            {{"desktopItems", QVariantList{Item("/html/pay/a")}},
             {"configPages", QVariantList{Item("/html/pay/b"), Item("/html/pay/a", "", -5)}}});
        row("<desktop_item icon_path='html/i.png'/>", {});
        row("<desktop_item>  </desktop_item>", {}, {NoForm("desktop_item")});
        row("<config_page>/etc/x</config_page>", {}, {Ignored("/etc/x"), NoForm("config_page")});
        row("<desktop_item>/home/pay/cgi-bin/x</desktop_item>", {},
            {Outside("/home/pay/cgi-bin/x", "/home/pay/html/"), NoForm("desktop_item")});
        row("<desktop_item icon_path='/etc/i'>html/a</desktop_item>", {}, {Ignored("/etc/i")});
        row("<desktop_item icon_path='i'>html/a</desktop_item>", {},
            {Outside("/home/pay/i", "/home/pay/html/")});
        row("<desktop_item icon_position='0x10'>html/a</desktop_item>", {}, {NotANumber("0x10")});
        row("<desktop_item icon_position='%1'>html/a</desktop_item>", {}, {NotANumber("%1")});
    }

    void Items() { Elements(); }

    void RootMustBeAnApplication()
    {
        const char* xml = "<Application><prompts>p</prompts></Application>";
        QCOMPARE(Settings(Parser::GatherApplicationData(xml, "pay")), QVariantMap());
        QCOMPARE(TakeLogLines(), QStringList("3 ParseXMLRootNode Unsupported XML format. Failed."));
    }

    void HostileFileIsPassedOver_data()
    {
        const Table<QByteArray, QByteArray> table;
        for (const char* kind :
             {"missing", "fifo", "directory", "/dev/zero", "/dev/ptmx", "/home/pay/app.conf"}) {
            table(kind, kind, {});
        }
        const auto row = [&](const char* name, const QByteArray& content) { table(name, "file", content); };
        row("1 MiB and 1 byte", Sized(1024 * 1024 + 1));
        row("101 levels", Nested(101));
        row("100,000 levels", Nested(100000));
        row("exponential entities", ExponentialEntities());
        row("one entity, often", ManyEntities(20000, false));
        row("one entity, often, in an attribute", ManyEntities(20000, true));
        row("external entity", "<!DOCTYPE application [<!ENTITY e SYSTEM '/etc/passwd'>]>"
                               "<application><prompts>&e;</prompts></application>");
        row("not well-formed", "<application><resources>r</resources>");
        row("empty", "");
    }

    void HostileFileIsPassedOver()
    {
        const auto [kind, content] = FetchRow<QByteArray, QByteArray>();
        MakeDirectory("/home/pay/cgi-bin");
        if (kind == "fifo") {
            QCOMPARE(mkfifo("/home/pay/app.conf", 0666), 0);
        } else if (kind == "directory") {
            MakeDirectory("/home/pay/app.conf");
        } else if (kind.startsWith('/')) {
            MakeLink(kind, "/home/pay/app.conf");
        } else if (kind == "file") {
            WriteFile("/home/pay/app.conf", content);
        }
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(Settings(Parser::GatherApplicationData("pay")), QVariantMap());
        QVERIFY(timer.elapsed() < 5000);
        QCOMPARE(TakeLogLines(), QStringList());
    }

    void DevicesAreNotOpened()
    {
        // A queue in the place of a device: opening either may have an effect.
        QCOMPARE(mkfifo("/tmp/device", 0666), 0);
        MakeLink("/tmp/device", "/home/pay/app.conf", 4002);
        const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        QVERIFY(inotify_add_watch(watch.Get(), "/tmp/device", IN_OPEN) >= 0);
        Parser::GatherApplicationData("pay");
        inotify_event event = {};
        QCOMPARE(read(watch.Get(), &event, sizeof(event)), ssize_t(-1));
    }

    void LinkedFileIsRead()
    {
        WriteFile("/tmp/real", "<application><prompts>p</prompts></application>");
        MakeLink("/tmp/real", "/home/pay/app.conf", 4002);
        QCOMPARE(Parser::GatherApplicationData("pay").m_prompts, QStringLiteral("/home/pay/p"));
    }

    void LimitsAreInclusive()
    {
        const QByteArray deep = Nested(200000); // longer than a file may be
        QCOMPARE(Parser::GatherApplicationData(deep.constData(), "pay").m_resources, QString());
        for (const QByteArray& content : {Nested(100), Sized(1024 * 1024)}) {
            WriteFile("/home/pay/app.conf", content);
            QCOMPARE(Parser::GatherApplicationData("pay").m_resources, QStringLiteral("/home/pay/r"));
        }
        const QByteArray expanded = ManyEntities(250, false);
        QCOMPARE(Parser::GatherApplicationData(expanded.constData(), "pay").m_prompts.size(), 1000010);
    }

    /// What the limits are checked with is no stricter than the reader.
    void LaxFileIsRead()
    {
        const QByteArray body = "<application><resources>r</resources></application>";
        for (const QByteArray& content :
             {"<?xml version='1.1'?>" + body, "<?xml version='1.0' encoding='none'?>" + body,
              QByteArray("<application><x:y:z/><a b='1'c='&nbsp;'/><resources>r</resources></application>"),
              "<!DOCTYPE a [<!ENTITY e '" + QByteArray(5000, 'x') +
                  "'>]><application><resources>r</resources>"
                  "<a>&e;</a></application>"}) {
            QVERIFY2(Parser::GatherApplicationData(content.constData(), "pay").m_resources == "/home/pay/r",
                     content);
        }
    }

    void IdentityAndKindComeFromTheHome()
    {
        const auto identity = [](const ApplicationConfig& config) {
            return QStringLiteral("%1:%2 %3:%4 %5")
                .arg(config.m_uid)
                .arg(config.m_gid)
                .arg(config.m_userName, config.m_groupName, config.m_fastCgi ? "FastCGI" : "CGI");
        };
        QCOMPARE(identity(Parser::GatherApplicationData("pay")),
                 QStringLiteral("4294967295:4294967295 : FastCGI"));
        MakeDirectory("/home/pay", 4002, 4003);
        const QByteArray users = ReadFile("/etc/passwd");
        WriteFile("/etc/passwd", users + "twin:x:4002:4002::/home/twin:/bin/sh\n");
        QCOMPARE(identity(Parser::GatherApplicationData("pay")),
                 QStringLiteral("4002:4003 pay:shop FastCGI"));
        WriteFile("/etc/passwd", users);
        QCOMPARE(identity(Parser::GatherApplicationData("", "pay")),
                 QStringLiteral("4002:4003 pay:shop CGI"));
        MakeDirectory("/home/pay/cgi-bin");
        MakeDirectory("/home/pay", 4999, 4998);
        QCOMPARE(identity(Parser::GatherApplicationData("pay")), QStringLiteral("4999:4998 : CGI"));
    }
};

KX_TEST_MAIN(AppConfigParserTest)
#include "tst_appconfigparser.moc"
