#pragma once

#include "server/applications/appconf/ApplicationConfig.h"

#include <QString>

#include <optional>

class QDomDocument;
class QDomElement;
class QDomNode;

namespace core::configuration {

/// Reads /home/<name>/app.conf into an ApplicationConfig. Stateless. Problems of a file's content are logged
/// at error level and cost only the element they stand in; a file that is missing, unreadable or not
/// well-formed (see XmlReader.h for the limits) is passed over without a message.
class Parser {
public:
    /// Gathers what is known of the application in /home/<name>: its identity from the owner of that
    /// directory, its settings from app.conf, and FastCGI if it has no cgi-bin directory.
    static ApplicationConfig GatherApplicationData(const QString& name);

    /// The same from XML text in memory; does not look for a cgi-bin directory.
    static ApplicationConfig GatherApplicationData(const char* xml, const QString& name);

    /// Reads the settings in XML text; text that is not well-formed changes nothing.
    static void ParseApplicationConfig(const char* xml, ApplicationConfig& config);

    /// Reads the settings of a parsed document.
    static void ParseApplicationConfig(const QDomDocument& doc, ApplicationConfig& config);

    /// Reads the settings below a root element, which must be named "application" (otherwise logs
    /// "Unsupported XML format. Failed." and changes nothing).
    static void ParseXMLRootNode(QDomNode& root, ApplicationConfig& config);

    /// Makes a path absolute against the home directory and cleans it.
    /// \return the path; empty for an empty one, and for an absolute one that does not begin with the home
    ///         directory, which is logged
    static QString NormalizeFilePath(const QString& path, const ApplicationConfig& config);

    /// Fills ids and names of user and group from the owner of \a homeDir. A directory that cannot be
    /// examined changes nothing; an id without an account leaves the name as it is.
    static void GetUserGroup(const QString& homeDir, ApplicationConfig& config);

    /// Owner ids of a file or directory; all bits set in both when \a path is null or cannot be examined.
    static void GetResourceUIDandGID(const QString* path, unsigned int& uid, unsigned int& gid);

private:
    static void ReadElement(const QDomElement& element, ApplicationConfig& config);
    static std::optional<BaseItem> ReadItem(const QDomElement& element, const ApplicationConfig& config);
    static bool IsInsideHomeDir(const QString& path, const ApplicationConfig& config);
    static QString ToWebPath(const QString& path, const ApplicationConfig& config, bool withHtmlPrefix);
};

} // namespace core::configuration
