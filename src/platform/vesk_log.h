/* Logging helper shared by every module (not installed): log lines go to
 * syslog at LOG_ERR and begin with "file:line " of the module that writes them. */
#ifndef VESK_LOG_H
#define VESK_LOG_H

#include <syslog.h>

#include "vesk_error.h"

#ifndef __FILE_NAME__
#error "the compiler must provide __FILE_NAME__"
#endif

/* One log line: VESK_LOG("Get section [%s] failed.", name). */
#define VESK_LOG(fmt, ...) \
    syslog(LOG_ERR, "%s:%d " fmt, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

/* The error state left by a failed callee, for messages that end in
 * "[0x%04X %s:%d]":
 *     VESK_LOG("Get section [%s] failed. [0x%04X %s:%d]", name, VESK_ERR_ARGS); */
#define VESK_ERR_ARGS VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine()

/* Records an error code with the current file and line. */
#define VESK_ERR_SET(code) VLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

/* Argument check: true when the condition holds; otherwise logs the condition
 * as written and records BW_ERR_BAD_PARAMETERS.
 *     if (!VESK_ARG_OK(NULL != pConf)) return -1; */
#define VESK_ARG_OK(cond) vesk_arg_ok((cond) ? 1 : 0, #cond, __FILE_NAME__, __LINE__)

/* The same check where the logged text of the condition is fixed and is not
 * how the code would spell it:
 *     if (!VESK_ARG_CHECK(UID_ERR != uid, "(uid_t)((uid_t) -1) != uid")) return -1; */
#define VESK_ARG_CHECK(cond, text) vesk_arg_ok((cond) ? 1 : 0, (text), __FILE_NAME__, __LINE__)

/* Where a log line or an error code is attributed.  A helper that several
 * modules share takes its caller's site, so that what it logs or records
 * names the calling module's file and line:
 *     int Helper(VeskSite site) { ... VESK_LOG_AT(site, "...failed."); ... }
 *     Helper(VESK_SITE); */
struct VeskSite {
    const char *szFile;
    int iLine;
};
#define VESK_SITE (VeskSite{__FILE_NAME__, __LINE__})
#define VESK_LOG_AT(site, fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, (site).szFile, (site).iLine, ##__VA_ARGS__)
#define VESK_ERR_SET_AT(site, code) VLIBCErrSetEx((code), (site).szFile, (site).iLine)

static inline int vesk_arg_ok(int blHolds, const char *szCond, const char *szFile, int iLine)
{
    if (blHolds) {
        return 1;
    }
    syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", szFile, iLine, szCond, 0);
    VLIBCErrSetEx(BW_ERR_BAD_PARAMETERS, szFile, iLine);
    return 0;
}

#endif
