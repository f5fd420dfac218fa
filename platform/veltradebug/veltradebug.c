/* Stand-in for the platform's logging library: every record becomes one syslog message, laid out as
 *
 *     platform/kx-core ProcessManager:StartProcess:87: the text
 *
 * so that a person can read it and grep for a category, a program, a file or a function. */
#include "veltradebug.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <time.h>

static void Send(int priority, const char* category, const char* tag, const char* file, const char* function,
                 int line, const char* text)
{
    const int level = LOG_PRI(priority);
    /* Makes glibc notice a new time zone, in which syslog stamps the record. */
    tzset();
    if (*file == '\0' && *function == '\0' && line == 0) {
        syslog(level, "%s/%s: %s", category, tag, text);
    } else {
        syslog(level, "%s/%s %s:%s:%d: %s", category, tag, file, function, line, text);
    }
}

void VLS_PrintLog(int priority, const char* category, const char* tag, const char* file, const char* function,
                  int line, const char* format, ...)
{
    const int saved = errno;
    char* text = NULL;
    va_list arguments;
    va_start(arguments, format);
    if (vasprintf(&text, format, arguments) < 0) {
        text = NULL;
    }
    va_end(arguments);
    /* Out of memory: file, function and line remain. */
    Send(priority, category, tag, file, function, line, text != NULL ? text : format);
    free(text);
    errno = saved;
}
