// Takes the place of functions of the C library, see kx_fuzz_target in CMakeLists.txt.

#include "StandIns.h"

#include "Fuzz.h"

#include <QRegularExpression>

#include <cstdio>

namespace {

/// All that the daemon may ever run. No caller's text is in any of it, but for numbers from 1 to 3.
const QRegularExpression& OwnCommands()
{
    static const QRegularExpression commands(
        "\\A(?:reboot"
        "|touch /tmp/kxcore_poweroff && poweroff"
        "|/sred/root/hwtest/hwtest -f &"
        "|echo 1 > /sys/kernel/keypad/kbdreset"
        "|/etc/rc\\.d/init\\.d/console (?:enable|disable)"
        "|/etc/rc\\.d/init\\.d/(?:syslog|lighthttpd) restart"
        "|/etc/platform/(?:35-browser|34-sredd) restart"
        "|pidof sredd[23]?"
        "|echo 0*[123] > /etc/platform/settings/L2KernelsVersion"
        "|err=`rmmod [a-z_]+ 2>&1`; rc=\\$\\? ; logger \\$err ; return \\$rc"
        "|modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed=[yn]"
        "| modprobe -a (?:[a-z_]+ )+"
        "|modprobe g_serial (?:idVendor=0xABCD idProduct=0x30 )?(?:gadget_uid=y|sernum_str=12345678)"
        "|lsmod \\| grep -e u_serial -e u_ether"
        "|cat /sys/kernel/secure/(?:sub)?type"
        "|iw dev \\| grep phy \\| awk -F '#' '\\{ print \\$2 \\}'"
        "|iw phy-?[0-9]+ wowlan (?:enable magic-packet|disable|show  \\| grep (?:wake|WoWLAN))"
        ")\\z");
    return commands;
}

void Take(const char* command)
{
    const QString line = QString::fromLatin1(command);
    if (!OwnCommands().match(line).hasMatch()) {
        std::fprintf(stderr, "command: %s\n", command);
    }
    Require(OwnCommands().match(line).hasMatch(), "only the daemon's own commands are run");
    TheMachine().commands.append(command);
}

} // namespace

Machine& TheMachine()
{
    static Machine machine;
    return machine;
}

void ResetMachine(const QByteArray& statuses, const QByteArrayList& outputs)
{
    TheMachine() = {};
    TheMachine().outputs = outputs;
    for (const char status : statuses) {
        TheMachine().statuses.append(static_cast<unsigned char>(status) ^ static_cast<unsigned char>('0'));
    }
}

extern "C" {

int __wrap_system(const char* command);               // NOLINT(bugprone-reserved-identifier)
FILE* __wrap_popen(const char* command, const char*); // NOLINT(bugprone-reserved-identifier)
int __wrap_pclose(FILE* stream);                      // NOLINT(bugprone-reserved-identifier)
int __wrap_clock_nanosleep(clockid_t, int, const timespec*,
                           timespec*);                     // NOLINT(bugprone-reserved-identifier)
int __wrap_clock_settime(clockid_t, const timespec* time); // NOLINT(bugprone-reserved-identifier)

int __wrap_system(const char* command)
{
    constexpr int kStatusShift = 8;
    Take(command);
    QVector<int>& statuses = TheMachine().statuses;
    return statuses.isEmpty() ? 0 : statuses.takeFirst() << kStatusShift;
}

FILE* __wrap_popen(const char* command, const char* /*mode*/)
{
    Take(command);
    QByteArrayList& outputs = TheMachine().outputs;
    const QByteArray output = outputs.isEmpty() ? QByteArray() : outputs.takeFirst();
    FILE* const stream = std::tmpfile();
    std::fwrite(output.constData(), 1, static_cast<std::size_t>(output.size()), stream);
    std::rewind(stream);
    return stream;
}

int __wrap_pclose(FILE* stream)
{
    return std::fclose(stream);
}

int __wrap_clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec* /*until*/, timespec* /*rest*/)
{
    return 0;
}

int __wrap_clock_settime(clockid_t /*clock*/, const timespec* time)
{
    TheMachine().clock.append(time->tv_sec);
    return 0;
}

} // extern "C"
