#include "ElementCheck.h"

#include "Messages.h"
#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/ApplicationConfig.h"

#include <QDomElement>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <utility>

namespace kxctl::check {
namespace {

using core::configuration::Parser;

constexpr int kFirstPosition = 1;
constexpr int kLastPosition = 100;

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

/// Checks what app.conf says, element by element: each is given to the daemon's own parser, and what the
/// parser passes over in silence is added.
class ElementCheck {
public:
    /// \param directory  where the application lies now
    /// \param name       what it will be called; its home will be /home/<name>
    /// \param problems   receives what is found
    ElementCheck(QString directory, QString name, Problems& problems);

    void CheckRoot(QDomElement root);

private:
    using Config = core::configuration::ApplicationConfig;
    struct Rule {
        const char* tag;
        QStringList attributes;
        bool mayRepeat;
        void (ElementCheck::*check)(const Config& parsed);
    };
    static const QVector<Rule>& Rules();
    static const Rule* FindRule(const QString& tag);

    void CheckElement(const Rule& rule);
    void CheckOccurrence(const Rule& rule);
    void CheckAttributes(const QStringList& known);
    bool CheckContent();
    bool Parse(Config& parsed);

    void CheckPath(const Config& parsed);
    void CheckBootPage(const Config& parsed);
    void CheckProgram(const Config& parsed);
    void CheckDefaultCgi(const Config& parsed);
    void CheckWhiteList(const Config& parsed);
    void CheckItem(const Config& parsed);
    void CheckTarget(const QString& path);

    QString Text() const;
    QString Home() const;
    void Report(Severity severity, const QString& text);

    QString m_directory;
    QString m_name;
    Problems& m_problems;
    QDomElement m_element; ///< the one being checked
    QSet<QString> m_seen;
};

const QVector<ElementCheck::Rule>& ElementCheck::Rules()
{
    static const QStringList icon{"icon_path", "icon_position", "title"};
    static const QVector<Rule> rules{
        {"resources", {}, false, &ElementCheck::CheckPath},
        {"web_resources", {}, false, &ElementCheck::CheckPath},
        {"prompts", {}, false, &ElementCheck::CheckPath},
        {"home_button", {}, false, &ElementCheck::CheckPath},
        {"card_ranges", {}, false, &ElementCheck::CheckPath},
        {"bin_ranges", {}, false, &ElementCheck::CheckPath},
        {"ca_cert", {}, false, &ElementCheck::CheckPath},
        {"white_list", {"signature", "signature_path"}, false, &ElementCheck::CheckWhiteList},
        {"run_on_boot", {}, false, &ElementCheck::CheckProgram},
        {"show_on_boot", {}, false, &ElementCheck::CheckBootPage},
        {"cgi_bin_default", {}, false, &ElementCheck::CheckDefaultCgi},
        {"desktop_item", icon, true, &ElementCheck::CheckItem},
        {"config_page", icon, true, &ElementCheck::CheckItem},
    };
    return rules;
}

const ElementCheck::Rule* ElementCheck::FindRule(const QString& tag)
{
    const auto* rule =
        std::find_if(Rules().begin(), Rules().end(), [&](const Rule& entry) { return tag == entry.tag; });
    return rule != Rules().end() ? rule : nullptr;
}

ElementCheck::ElementCheck(QString directory, QString name, Problems& problems)
    : m_directory(std::move(directory)), m_name(std::move(name)), m_problems(problems)
{}

void ElementCheck::CheckRoot(QDomElement root)
{
    m_element = root;
    if (root.tagName() != "application") {
        Report(Severity::Error, "unsupported format: the root element must be <application>");
        return;
    }
    QStringList known = AttributeNames(root);
    known.erase(std::remove_if(known.begin(), known.end(), std::not_fn(IsSchemaAttribute)), known.end());
    CheckAttributes(known);
    if (HasTextBetweenElements(root)) {
        Report(Severity::Error, "text between the elements is not read");
    }
    for (m_element = root.firstChildElement(); !m_element.isNull();
         m_element = m_element.nextSiblingElement()) {
        if (const Rule* rule = FindRule(m_element.tagName())) {
            CheckElement(*rule);
        } else {
            Report(Severity::Error, "unknown element; it is not read");
        }
    }
}

void ElementCheck::CheckElement(const Rule& rule)
{
    CheckOccurrence(rule);
    CheckAttributes(rule.attributes);
    Config parsed(m_name);
    if (!CheckContent() || !Parse(parsed)) {
        return;
    }
    if (Text().isEmpty()) {
        Report(Severity::Warning, "blank, which is the same as leaving it out");
        return;
    }
    (this->*rule.check)(parsed);
}

void ElementCheck::CheckOccurrence(const Rule& rule)
{
    if (!rule.mayRepeat && m_seen.contains(rule.tag)) {
        Report(Severity::Warning, "given more than once; the last one counts");
    }
    m_seen.insert(rule.tag);
}

void ElementCheck::CheckAttributes(const QStringList& known)
{
    for (const QString& name : AttributeNames(m_element)) {
        if (!known.contains(name)) {
            Report(Severity::Error, QStringLiteral("unknown attribute '%1'; it is not read").arg(name));
        }
    }
}

/// \return whether the parser reads the element at all
bool ElementCheck::CheckContent()
{
    const QDomNode first = m_element.firstChild();
    if (first.isNull()) {
        Report(Severity::Error, "empty, so it is skipped with its attributes");
        return false;
    }
    if (first.isComment() || !first.isCharacterData()) {
        Report(Severity::Error,
               "must begin with its text: only the first piece of its content is read, be it a "
               "comment or an element");
        return false;
    }
    if (!first.nextSibling().isNull()) {
        Report(Severity::Error,
               QStringLiteral("only its text up to the first comment or element is read: '%1'").arg(Text()));
    }
    return true;
}

/// \return whether the parser had nothing to say
bool ElementCheck::Parse(Config& parsed)
{
    QDomDocument document;
    QDomElement root = document.createElement("application");
    root.appendChild(document.importNode(m_element, true));

    const QStringList messages = MessagesOf([&] { Parser::ParseXMLRootNode(root, parsed); });
    for (const QString& text : messages) {
        Report(Severity::Error, text);
    }
    return messages.isEmpty();
}

void ElementCheck::CheckPath(const Config& /*parsed*/)
{
    CheckTarget(Text());
}

void ElementCheck::CheckBootPage(const Config& parsed)
{
    if (!parsed.m_showOnBoot.startsWith(Home() + "/html/")) {
        Report(Severity::Error, QStringLiteral("'%1' has no page address: pages lie below html").arg(Text()));
        return;
    }
    CheckTarget(Text());
}

void ElementCheck::CheckProgram(const Config& parsed)
{
    const QString program = parsed.m_runOnBoot.section(' ', 0, 0);
    const QFileInfo file(m_directory + program.mid(Home().size()));
    if (!file.exists()) {
        Report(Severity::Error, QStringLiteral("program '%1' does not exist").arg(program));
    } else if (!file.isFile() || !file.permission(QFile::ExeOwner)) {
        Report(Severity::Error, QStringLiteral("program '%1' is not executable").arg(program));
    }
}

void ElementCheck::CheckDefaultCgi(const Config& parsed)
{
    if (parsed.m_cgiBinDefault && !QFileInfo(m_directory + "/cgi-bin").isDir()) {
        Report(Severity::Error, "there is no directory cgi-bin");
    }
    const QString text = Text().toLower();
    if (text != "true" && text != "false") {
        Report(Severity::Warning, QStringLiteral("'%1' counts as false").arg(Text()));
    }
}

void ElementCheck::CheckWhiteList(const Config& parsed)
{
    static const QRegularExpression hexadecimal("^([0-9a-fA-F]{2})*$");
    CheckTarget(Text());
    CheckTarget(m_element.attribute("signature_path"));
    if (!hexadecimal.match(parsed.m_whiteListSignature).hasMatch()) {
        Report(Severity::Warning, "'signature' is no hexadecimal text");
    }
}

void ElementCheck::CheckItem(const Config& parsed)
{
    CheckTarget(Text().section('?', 0, 0).section('#', 0, 0));
    CheckTarget(m_element.attribute("icon_path"));
    const core::configuration::BaseItem& item =
        parsed.m_desktopItems.isEmpty()
            ? static_cast<const core::configuration::BaseItem&>(parsed.m_configPages.first())
            : parsed.m_desktopItems.first();
    const bool isPlaced = !m_element.attribute("icon_position").isEmpty();
    if (isPlaced && (item.m_iconPosition < kFirstPosition || item.m_iconPosition > kLastPosition)) {
        Report(Severity::Warning, QStringLiteral("'icon_position' should be %1 to %2 (actual value: %3)")
                                      .arg(kFirstPosition)
                                      .arg(kLastPosition)
                                      .arg(item.m_iconPosition));
    }
}

/// Checks that what a path names is there.
void ElementCheck::CheckTarget(const QString& path)
{
    const QString target = FileSystem::NormalizeFilePath(path, Home());
    if (target.isEmpty()) {
        return;
    }
    if (target != Home() && !target.startsWith(Home() + '/')) {
        Report(Severity::Warning, QStringLiteral("'%1' leads out of the home directory").arg(target));
    } else if (!QFileInfo::exists(m_directory + target.mid(Home().size()))) {
        Report(Severity::Error, QStringLiteral("'%1' does not exist").arg(target));
    }
}

QString ElementCheck::Text() const
{
    return m_element.firstChild().nodeValue().trimmed();
}

QString ElementCheck::Home() const
{
    return "/home/" + m_name;
}

void ElementCheck::Report(Severity severity, const QString& text)
{
    m_problems.append({severity, "app.conf", m_element.lineNumber(), m_element.tagName(), text});
}

} // namespace

void CheckElements(const QString& directory, const QString& name, const QDomElement& root, Problems& problems)
{
    ElementCheck(directory, name, problems).CheckRoot(root);
}

} // namespace kxctl::check
