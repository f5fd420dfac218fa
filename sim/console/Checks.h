#pragma once

#include "LogTail.h"
#include "Processes.h"
#include "Screen.h"
#include "Terminal.h"

// Drives the terminal through its main jobs and checks what comes of each.
class Checks {
public:
    // The pictures go into the directory; there are none when it is empty.
    Checks(Terminal& terminal, Screen& screen, const LogTail& log, QString pictures);

    // All steps in order, up to the first one with a check that does not hold; the screen tells which. True
    // when every check held.
    bool Run();

private:
    // The steps; each is one line of the table in Run.
    void Boots();
    void FindsApplications();
    void RunsBootPrograms();
    void ShowsFirstPage();
    void ReportsMistakes();
    void ServesPrograms();
    void PaysOnScreen();
    void ShopsOnScreen();
    void ShowsOtherPages();
    void StartsProgram();
    void RefusesProgram();
    void SetsTimeZone();
    void SavesVariable();
    void SwitchesUsbMode();
    void ChangesRegistry();
    void TerminatesApplications();
    void StartsOver();
    void Restarts();

    // Takes a picture of the screen, named by number and name.
    void Photograph(const QString& name);
    QString Title();
    void ExpectPage(const QString& title, const QString& text);
    void Conclude();
    // Reports the outcome; the detail is shown when the check did not hold.
    void Expect(bool holds, const QString& what, const QString& detail = QString());
    // A line with what was found, for the reader.
    void Show(const QString& name, const QString& value);
    void ExpectRunning(const QString& user, const QString& command);
    void ExpectLogged(const QString& what, const QString& text);
    void ExpectNoApplicationProcess();

    Terminal& m_terminal;
    Screen& m_screen;
    const LogTail& m_log;
    const QString m_pictures;
    int m_pictureCount = 0;
    int m_checks = 0;
    int m_failures = 0;
};
