/* A minimal process-wide logger of plain functions: one formatted line per
 * call, to standard error (foreground) or to the system log (background),
 * filtered by one global level.
 *
 * The level test belongs to the caller, so that a suppressed message costs
 * one comparison and no formatting; NGLOG_WRITE does it:
 *
 *   NGLOG_WRITE(NGLOG_LEVEL_ERROR, "cannot connect: %d", rc);
 */
#ifndef NGLOG_NGLOG_H
#define NGLOG_NGLOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NGLOG_LEVEL_SILENT 0
#define NGLOG_LEVEL_ERROR 1
#define NGLOG_LEVEL_WARNING 2
#define NGLOG_LEVEL_DEBUG 3

#define NGLOG_TARGET_FOREGROUND 0 /* standard error */
#define NGLOG_TARGET_BACKGROUND 1 /* system log */

/* The current level (default 2). Read it before formatting a message. */
extern int nglog_level_;

/* Stores the name (kept by pointer: static text), applies the target and sets the level. */
void nglog_init(const char* name, int target, int level);

/* As nglog_init, with the level from NGLOG_LEVEL ("NGLOG_SILENT" 0,
 * "NGLOG_ERROR" 1, "NGLOG_WARNING" and "NGLOG_NORMAL" 2, "NGLOG_DEBUG" and
 * "NGLOG_VERBOSE" 3). NGLOG_PREFIX set to anything turns the extended prefix
 * on. A missing or unknown NGLOG_LEVEL gives 2 and writes a notice. */
void nglog_init_from_env(const char* name, int target);

/* Changing to the background target opens the system log; changing away
 * from it closes it; setting the current target again does nothing. */
void nglog_set_target(int target);
int nglog_get_target(void);

void nglog_set_level(int level);
int nglog_get_level(void);

/* Foreground lines get time, level, name and process and thread ids. */
void nglog_enable_extended_prefix(int on);

/* "Silent", "Error", "Warning", "Debug", or "Unknown". */
const char* nglog_get_level_name(int level);

/* Write one line to the current target. They do not test the level. */
void nglog_write_(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void nglog_vwrite_(int level, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

/* The two targets. A foreground line is cut silently at 1024 bytes. */
void nglog_fg_write(int level, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void nglog_bg_write(int level, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

void nglog_bg_open(const char* name);
void nglog_bg_close(void);

/* Writes "<file>:<line>: <function>: assertion `<expression>' failed" at
 * level 1, then aborts the process. */
void nglog_assert_(const char* expression, const char* file, int line, const char* function)
    __attribute__((noreturn));

#define NGLOG_WRITE(level, ...)                     \
    do {                                            \
        if (nglog_level_ >= (level))                \
            nglog_write_((level), __VA_ARGS__);     \
    } while (0)

#define NGLOG_ASSERT(expression) \
    ((expression) ? (void)0 : nglog_assert_(#expression, __FILE__, __LINE__, __func__))

#ifdef __cplusplus
}
#endif

#endif
