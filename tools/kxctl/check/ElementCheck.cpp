#include "ElementCheck.h"

#include "Messages.h"
#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/ApplicationConfig.h"

#include <QDomElement>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

namespace kxctl::check {
namespace {

using core::configuration::Parser;

using Config = core::configuration::ApplicationConfig;

/// What editors need to find the schema.
bool IsSchemaAttribute(const QString& name)
{
    return name.startsWith("xmlns") || name.startsWith("xsi:");
}

QStringList AttributeNames(const QDomElement& element)
{
    QStringList names;
    const QDomNamedNodeMap attributes = element.attributes();
    for (int index = 0; index < attributes.count(); ++index) {
        names.append(attributes.item(index).nodeName());
    }
    names.sort();
    return names;
}

bool HasTextBetweenElements(const QDomElement& root)
{
    for (QDomNode node = root.firstChild(); !node.isNull(); node = node.nextSibling()) {
        if (node.isCharacterData() && !node.isComment() && !node.nodeValue().trimmed().isEmpty()) {
            return true;
        }
    }
    return false;
}

/// The elements that are read, with their attributes.
const QMap<QString, QStringList>& KnownElements()
{
    static const QStringList icon{"icon_path", "icon_position", "title"};
    static const QMap<QString, QStringList> elements{
        {"resources", {}},
        {"web_resources", {}},
        {"prompts", {}},
        {"home_button", {}},
        {"card_ranges", {}},
        {"bin_ranges", {}},
        {"ca_cert", {}},
        {"run_on_boot", {}},
        {"show_on_boot", {}},
        {"cgi_bin_default", {}},
        {"desktop_item", icon},
        {"config_page", icon},
        {"white_list", {"signature", "signature_path"}},
    };
    return elements;
}

/// One element of app.conf.
class ElementCheck {
public:
    ElementCheck(const Report& report, const QDomElement& element, Problems& problems)
        : m_report(report),
          m_home("/home/" + report.name),
          m_element(element),
          m_text(element.firstChild().nodeValue().trimmed()),
          m_problems(problems)
    {}

    void Complain(Severity severity, const QString& text)
    {
        m_problems.append({severity, "app.conf", m_element.lineNumber(), m_element.tagName(), text});
    }

    void CheckAttributes(const QStringList& known)
    {
        for (const QString& name : AttributeNames(m_element)) {
            if (!known.contains(name)) {
                Complain(Severity::Error, QStringLiteral("unknown attribute '%1'; it is not read").arg(name));
            }
        }
    }

    void Check(bool isRepeated)
    {
        const QString tag = m_element.tagName();
        if (isRepeated && tag != "desktop_item" && tag != "config_page") {
            Complain(Severity::Warning, "given more than once; the last one counts");
        }
        CheckAttributes(KnownElements()[tag]);
        Config parsed(m_report.name);
        if (!CheckContent() || !Parse(parsed)) {
            return;
        }
        if (m_text.isEmpty()) {
            Complain(Severity::Warning, "blank, which is the same as leaving it out");
        } else if (tag == "run_on_boot") {
            CheckProgram(parsed);
        } else if (tag == "cgi_bin_default") {
            CheckDefaultCgi(parsed);
        } else if (tag == "desktop_item" || tag == "config_page") {
            CheckItem(parsed);
        } else if (tag == "show_on_boot" && !parsed.m_showOnBoot.startsWith(m_home + "/html/")) {
            Complain(Severity::Error,
                     QStringLiteral("'%1' has no page address: pages lie below html").arg(m_text));
        } else {
            CheckTarget(m_text);
            CheckSignature();
        }
    }

private:
    /// \return whether the parser reads the element at all
    bool CheckContent()
    {
        const QDomNode first = m_element.firstChild();
        if (first.isNull()) {
            Complain(Severity::Error, "empty, so it is skipped with its attributes");
            return false;
        }
        if (first.isComment() || !first.isCharacterData()) {
            Complain(Severity::Error,
                     "must begin with its text: only the first piece of its content is read, "
                     "be it a comment or an element");
            return false;
        }
        if (!first.nextSibling().isNull()) {
            Complain(
                Severity::Error,
                QStringLiteral("only its text up to the first comment or element is read: '%1'").arg(m_text));
        }
        return true;
    }

    /// \return whether the parser had nothing to say
    bool Parse(Config& parsed)
    {
        QDomDocument document;
        QDomElement root = document.createElement("application");
        root.appendChild(document.importNode(m_element, true));
        const QStringList messages = MessagesOf([&] { Parser::ParseXMLRootNode(root, parsed); });
        for (const QString& text : messages) {
            Complain(Severity::Error, text);
        }
        return messages.isEmpty();
    }

    void CheckProgram(const Config& parsed)
    {
        const QString program = parsed.m_runOnBoot.section(' ', 0, 0);
        const QFileInfo file(m_report.directory + program.mid(m_home.size()));
        if (!file.exists()) {
            Complain(Severity::Error, QStringLiteral("program '%1' does not exist").arg(program));
        } else if (!file.isFile() || !file.permission(QFile::ExeOwner)) {
            Complain(Severity::Error, QStringLiteral("program '%1' is not executable").arg(program));
        }
    }

    void CheckDefaultCgi(const Config& parsed)
    {
        if (parsed.m_cgiBinDefault && !QFileInfo(m_report.directory + "/cgi-bin").isDir()) {
            Complain(Severity::Error, "there is no directory cgi-bin");
        }
        if (m_text.toLower() != "true" && m_text.toLower() != "false") {
            Complain(Severity::Warning, QStringLiteral("'%1' counts as false").arg(m_text));
        }
    }

    /// The signature is an attribute of the white list.
    void CheckSignature()
    {
        static const QRegularExpression hexadecimal("^([0-9a-fA-F]{2})*$");
        CheckTarget(m_element.attribute("signature_path"));
        if (!hexadecimal.match(m_element.attribute("signature")).hasMatch()) {
            Complain(Severity::Warning, "'signature' is no hexadecimal text");
        }
    }

    void CheckItem(const Config& parsed)
    {
        CheckTarget(m_text.section('?', 0, 0).section('#', 0, 0));
        CheckTarget(m_element.attribute("icon_path"));
        const int position = parsed.m_desktopItems.isEmpty() ? parsed.m_configPages.first().m_iconPosition
                                                             : parsed.m_desktopItems.first().m_iconPosition;
        if (!m_element.attribute("icon_position").isEmpty() && (position < 1 || position > 100)) {
            Complain(Severity::Warning,
                     QStringLiteral("'icon_position' should be 1 to 100 (actual value: %1)").arg(position));
        }
    }

    /// Checks that what a path names is there.
    void CheckTarget(const QString& path)
    {
        const QString target = FileSystem::NormalizeFilePath(path, m_home);
        if (!target.isEmpty() && target != m_home && !target.startsWith(m_home + '/')) {
            Complain(Severity::Warning, QStringLiteral("'%1' leads out of the home directory").arg(target));
        } else if (!target.isEmpty() && !QFileInfo::exists(m_report.directory + target.mid(m_home.size()))) {
            Complain(Severity::Error, QStringLiteral("'%1' does not exist").arg(target));
        }
    }

    const Report& m_report;
    QString m_home; ///< where the application will be
    QDomElement m_element;
    QString m_text;
    Problems& m_problems;
};

} // namespace

void CheckElements(Report& report, const QDomElement& root)
{
    ElementCheck check(report, root, report.problems);
    if (root.tagName() != "application") {
        check.Complain(Severity::Error, "unsupported format: the root element must be <application>");
        return;
    }
    QStringList known = AttributeNames(root);
    known.erase(std::remove_if(known.begin(), known.end(), std::not_fn(IsSchemaAttribute)), known.end());
    check.CheckAttributes(known);
    if (HasTextBetweenElements(root)) {
        check.Complain(Severity::Error, "text between the elements is not read");
    }
    QSet<QString> seen;
    for (QDomElement element = root.firstChildElement(); !element.isNull();
         element = element.nextSiblingElement()) {
        ElementCheck elementCheck(report, element, report.problems);
        if (KnownElements().contains(element.tagName())) {
            elementCheck.Check(seen.contains(element.tagName()));
        } else {
            elementCheck.Complain(Severity::Error, "unknown element; it is not read");
        }
        seen.insert(element.tagName());
    }
}

} // namespace kxctl::check
