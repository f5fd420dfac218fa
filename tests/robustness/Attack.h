#pragma once

#include "HostileMessage.h"
#include "Patient.h"

#include <QDeadlineTimer>
#include <QStringList>

#include <array>
#include <cstdint>

namespace torture {

/// What an attack did and what it found.
struct Findings {
    QStringList tried; ///< with numbers, such as "12,345 messages"
    QStringList lost;  ///< what should not have happened; empty when nothing was lost

    /// Notes a number of something.
    void Count(qint64 number, const char* what);

    /// Notes a loss unless \a well.
    void Expect(bool well, const QString& loss);
};

/// What an attack gets to work with. The daemon runs when it begins, and has to when it ends.
struct Arena {
    Patient& patient;
    Chance chance;
    QDeadlineTimer deadline; ///< until when to go on
};

struct Attack {
    const char* name;
    const char* purpose;
    int share; ///< of the time, relative to the other attacks
    void (*run)(Arena& arena, Findings& findings);
};

void SendHostileMessages(Arena& arena, Findings& findings);
void VanishBeforeTheReply(Arena& arena, Findings& findings);
void FlapTheBrowser(Arena& arena, Findings& findings);
void StartShortPrograms(Arena& arena, Findings& findings);
void StartUnrulyPrograms(Arena& arena, Findings& findings);
void KillWhileWriting(Arena& arena, Findings& findings);
void JumpTheClock(Arena& arena, Findings& findings);
void RestartTheBus(Arena& arena, Findings& findings);

} // namespace torture
