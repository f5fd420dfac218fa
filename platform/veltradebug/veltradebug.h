#ifndef VELTRADEBUG_H
#define VELTRADEBUG_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Writes one record to the platform's log.
 *
 * @param priority  syslog priority, 0 (emergency) to 7 (debug)
 * @param category  part of the platform that logs, for example "platform"
 * @param tag       program that logs, for example "kx-core"
 * @param file      source file of the statement, without folder; "" when unknown
 * @param function  function of the statement; "" when unknown
 * @param line      line of the statement; 0 when unknown
 * @param format    printf format of the text, followed by its arguments
 *
 * Every pointer must be non-null. Does not fail: a record that cannot be delivered is lost. Keeps errno.
 * May be called from any thread; not from a signal handler.
 */
void VLS_PrintLog(int priority, const char* category, const char* tag, const char* file, const char* function,
                  int line, const char* format, ...) __attribute__((format(printf, 7, 8)));

#ifdef __cplusplus
}
#endif

#endif
