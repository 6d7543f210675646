// Linked into every fuzz target.
#include <stdarg.h>
#include <stdio.h>

// The library's log lines are formatted as syslog would format them, so that
// their formats are exercised too, and dropped: a fuzzer writes to no log,
// and fuzzing is not slowed down by a log that is not there.
extern "C" __attribute__((visibility("default"))) void syslog(int, const char *szFormat, ...)
{
    char szLine[1024];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szLine, sizeof(szLine), szFormat, args);
    va_end(args);
}
