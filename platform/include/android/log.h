/// The platform log: one line a call.
///
/// On a Linux host the lines go to standard error in the platform's thread-time form.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Priorities of a line, the platform's own numbers.
// NOLINTNEXTLINE(modernize-use-using): for C too
typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

/// Writes one line with priority `prio` under `tag`; a null tag stands for the program's short
/// name.
///
/// `ANDROID_LOG_TAGS` filters ("rux:D *:S"); unset, every line is written. Control characters in
/// the message are escaped, so that one call is one line whatever a file is called. Returns a
/// positive number when the line was written, 0 when it was filtered out, a negative errno
/// otherwise.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
        __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
