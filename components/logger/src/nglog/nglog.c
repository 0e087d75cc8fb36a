#define _GNU_SOURCE
#include "nglog/nglog.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <nos/log.h>

/* Settings: plain globals, set once at start-up before threads log. */
int nglog_level_ = NGLOG_LEVEL_WARNING;
static int g_target = NGLOG_TARGET_FOREGROUND;
static const char* g_name = NULL;
static bool g_extended_prefix = false;

enum { kLineMax = 1024 };

void nglog_init(const char* name, int target, int level)
{
    g_name = name;
    nglog_set_target(target);
    nglog_set_level(level);
}

static int level_from_env(const char* value, bool* known)
{
    static const struct {
        const char* keyword;
        int level;
    } keywords[] = {
        {"NGLOG_SILENT", NGLOG_LEVEL_SILENT},   {"NGLOG_ERROR", NGLOG_LEVEL_ERROR},
        {"NGLOG_WARNING", NGLOG_LEVEL_WARNING}, {"NGLOG_NORMAL", NGLOG_LEVEL_WARNING},
        {"NGLOG_DEBUG", NGLOG_LEVEL_DEBUG},     {"NGLOG_VERBOSE", NGLOG_LEVEL_DEBUG},
    };
    for (size_t i = 0; i < sizeof(keywords) / sizeof(keywords[0]); ++i) {
        if (strcmp(value, keywords[i].keyword) == 0) {
            *known = true;
            return keywords[i].level;
        }
    }
    *known = false;
    return NGLOG_LEVEL_WARNING;
}

void nglog_init_from_env(const char* name, int target)
{
    const char* value = getenv("NGLOG_LEVEL");
    bool known = false;
    const int level = value != NULL ? level_from_env(value, &known) : NGLOG_LEVEL_WARNING;
    if (getenv("NGLOG_PREFIX") != NULL)
        g_extended_prefix = true;
    nglog_init(name, target, level);
    /* The notices bypass the level test. */
    if (value == NULL)
        nglog_write_(NGLOG_LEVEL_WARNING, "nglog level not set. fallback to normal");
    else if (!known)
        nglog_write_(NGLOG_LEVEL_WARNING, "nglog level has incorrect value. fallback to normal");
}

void nglog_set_target(int target)
{
    if (target == g_target)
        return;
    if (target == NGLOG_TARGET_BACKGROUND)
        nglog_bg_open(g_name);
    else if (g_target == NGLOG_TARGET_BACKGROUND)
        nglog_bg_close();
    g_target = target;
}

int nglog_get_target(void) { return g_target; }

void nglog_set_level(int level) { nglog_level_ = level; }

int nglog_get_level(void) { return nglog_level_; }

void nglog_enable_extended_prefix(int on) { g_extended_prefix = on != 0; }

const char* nglog_get_level_name(int level)
{
    switch (level) {
    case NGLOG_LEVEL_SILENT:
        return "Silent";
    case NGLOG_LEVEL_ERROR:
        return "Error";
    case NGLOG_LEVEL_WARNING:
        return "Warning";
    case NGLOG_LEVEL_DEBUG:
        return "Debug";
    default:
        return "Unknown";
    }
}

static int syslog_priority(int level)
{
    switch (level) {
    case NGLOG_LEVEL_SILENT:
        return LOG_CRIT;
    case NGLOG_LEVEL_ERROR:
        return LOG_ERR;
    case NGLOG_LEVEL_WARNING:
        return LOG_WARNING;
    default:
        return LOG_DEBUG;
    }
}

void nglog_write_(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    nglog_vwrite_(level, format, args);
    va_end(args);
}

void nglog_vwrite_(int level, const char* format, va_list args)
{
    if (g_target == NGLOG_TARGET_BACKGROUND)
        nglog_bg_write(level, format, args);
    else
        nglog_fg_write(level, format, args);
}

/* The prefix and the caller's format are joined into one format first, so a
 * "%" in the name is read as a conversion too. */
static void make_line_format(char* out, size_t size, int level, const char* format)
{
    if (!g_extended_prefix) {
        snprintf(out, size, "%s%s%s\n", g_name != NULL ? g_name : "", g_name != NULL ? ": " : "", format);
        return;
    }
    struct timeval now;
    struct tm local;
    memset(&now, 0, sizeof(now));
    memset(&local, 0, sizeof(local));
    if (gettimeofday(&now, NULL) != 0 || localtime_r(&now.tv_sec, &local) == NULL) {
        memset(&now, 0, sizeof(now));
        memset(&local, 0, sizeof(local));
    }
    snprintf(out, size, "[%04u-%02u-%02uT%02u:%02u:%02u.%03u][%s][%s][%d:%d]%s\n", (unsigned)(local.tm_year + 1900),
             (unsigned)(local.tm_mon + 1), (unsigned)local.tm_mday, (unsigned)local.tm_hour, (unsigned)local.tm_min,
             (unsigned)local.tm_sec, (unsigned)(now.tv_usec / 1000), nglog_get_level_name(level),
             g_name != NULL ? g_name : getprogname(), (int)getpid(), (int)gettid(), format);
}

void nglog_fg_write(int level, const char* format, va_list args)
{
    char line_format[kLineMax];
    char line[kLineMax];
    make_line_format(line_format, sizeof(line_format), level, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(line, sizeof(line), line_format, args);
#pragma GCC diagnostic pop
    fputs(line, stderr);
}

void nglog_bg_write(int level, const char* format, va_list args) { vsyslog(syslog_priority(level), format, args); }

void nglog_bg_open(const char* name) { openlog(name, LOG_NDELAY, LOG_USER); }

void nglog_bg_close(void) { closelog(); }

void nglog_assert_(const char* expression, const char* file, int line, const char* function)
{
    nglog_write_(NGLOG_LEVEL_ERROR, "%s:%d: %s: assertion `%s' failed", file, line, function, expression);
    abort();
}
