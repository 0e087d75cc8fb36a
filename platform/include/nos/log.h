/* Platform log and process name. */
#ifndef NOS_PLATFORM_LOG_H
#define NOS_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Platform log levels, most severe first. */
#define NOS_LOG_CRITICAL 1
#define NOS_LOG_ERROR 2
#define NOS_LOG_WARNING 3
#define NOS_LOG_INFO 4
#define NOS_LOG_DEBUG 5
#define NOS_LOG_TRACE 6

/* Writes one line to the platform log. */
void NosLogf(int level, const char* file, int line, const char* loggerName, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* The running program's name, without directories. */
const char* getprogname(void);

#ifdef __cplusplus
}
#endif

#endif
