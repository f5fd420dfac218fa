#pragma once

#include "AppCheck.h"

#include "server/applications/appconf/ApplicationConfig.h"

#include <QDomElement>
#include <QSet>

namespace kxctl::check {

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

} // namespace kxctl::check
