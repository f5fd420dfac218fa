#pragma once

#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/ApplicationConfig.h"
#include "server/applications/processmanager/ProcessManager.h"
#include "server/dbus/Browser.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <vector>

class QTimer;

namespace core::applications {

/// The object behind /Applications: knows the installed applications, publishes their web resources, starts
/// and stops their programs and says which page the terminal shows.
///
/// Lives on the main thread; every function blocks it until it returns. No exception leaves Enumerate, Start,
/// StartApplication or Terminate: what escapes inside is logged at error level as "Unexpected exception".
class Server : public QObject {
    Q_OBJECT

public:
    /// Removes the web trees of a previous run and queues the start sequence (an empty Start request).
    Server();
    ~Server() override;

    /// Publishes one application's cgi-bin, html and files to the web server as links below /var/run/www, and
    /// creates the parent of the FastCGI sockets. Links are made whether or not their target exists. Each
    /// failure is logged at warning level and does not stop the rest.
    void CreateSymlinksForLighttpd(const QString& homeDir, const QString& name);

    /// Turns a page name into the address that the browser is told to show.
    ///
    /// \param page  relative to /home/<name>, absolute, or an address on http://localhost
    /// \param name  in: the application the page belongs to, may be empty; out: the application that the
    ///              address names, empty when there is none
    /// \return the percent-encoded address; empty when the form does not exist, which is logged at error
    ///         level as "Requested form doesn't exist (", or is not below an application's html directory
    QString PathToURI(const QString& page, QString& name);

    /// \return the first of the default applications that is installed; empty when none is
    QString GetNameOfInstalledDefaultApp();

    /// \return whether both ids lie in the range of application accounts, 4000 to 4999
    static bool IsValidAppID(unsigned uid, unsigned gid);

    /// \return whether there is a page to be shown once in place of starting anything
    bool HasShowOnceForm();

signals:
    /// The start sequence has ended. The map is reserved and empty.
    void OnStarted(const QVariantMap& applicationData);
    /// All applications are stopped. The map is reserved and empty.
    void OnTerminate(const QVariantMap& applicationData);

public slots:
    /// D-Bus: Enumerate() -> aa{sv}. Reads the installed applications anew and publishes their web resources.
    /// \return one map per directory below /home, in name order
    QList<QVariantMap> Enumerate();

    /// D-Bus: Start(a{sv}) -> a{sv}. With an empty request refreshes the applications, queues the start
    /// sequence and returns "return" true at once. Otherwise shows the default form ("default") and launches
    /// a program ("application", "binary", "params").
    /// \return as StartApplicationBinary; empty when only the default form was asked for
    QVariantMap Start(const QVariantMap& request);

    /// D-Bus: Terminate(). Stops every application process, waits for the daemon's children to end and emits
    /// OnTerminate.
    void Terminate();

    /// D-Bus: Restart(s). Schedules the restart of the whole terminal for the next pass of the event loop.
    /// \param when  reserved, ignored
    void Restart(const QString& when);

    /// The start sequence: stops what runs, launches the run-on-boot programs, links the default CGI
    /// directory, shows the first page and emits OnStarted. When there is a page to be shown once, shows it
    /// and does nothing else.
    void StartApplication();

    /// Launches one program of one application, as the program's owner if that is an application account,
    /// else as the application.
    ///
    /// \param application  name as enumerated last
    /// \param binary       path relative to the application's bin directory, which it must not leave
    /// \param params       parameters separated by blanks
    /// \return "errorCode" 0; or "errorCode" -1 and "errorText", which is logged at error level too
    QVariantMap StartApplicationBinary(const QString& application, const QString& binary,
                                       const QString& params);

private slots:
    /// Asks every application over HTTP to stop, waits two seconds, stops what is left and reboots.
    void OnRestartTimer();

private:
    static constexpr auto kShowOnceForm = "/home/platform/html/show_once.html";

    /// Shows an application's page; for an empty \a application, that there is none.
    void ShowFormOf(QString application, const QString& page);

    core::configuration::Parser m_parser;
    ProcessManager m_processManager;
    std::vector<core::configuration::ApplicationConfig> m_applications;
    Browser m_browser;
    QTimer* m_restartTimer = nullptr;
};

} // namespace core::applications
