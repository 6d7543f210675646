// Logging and error records shared by every module (not installed): log lines
// go to syslog at LOG_ERR and begin with "file:line " of the module that
// writes them.  Nothing else writes to syslog.
#ifndef VESK_LOG_H
#define VESK_LOG_H

#include <syslog.h>

#include "vesk_error.h"

// The build checks for __FILE_NAME__ when it is configured.
#ifndef __FILE_NAME__
#error "the compiler must provide __FILE_NAME__"
#endif

// One log line: VESK_LOG("Get section [%s] failed.", name).
#define VESK_LOG(fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

// The error state left by a failed callee, for messages that end in
// "[0x%04X %s:%d]":
//     VESK_LOG("Get section [%s] failed. [0x%04X %s:%d]", name, VESK_ERR_ARGS);
#define VESK_ERR_ARGS VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine()

// Records an error code with the current file and line.
#define VESK_ERR_SET(code) VLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

// Where a log line or an error code is attributed.  A helper that several
// modules share takes its caller's site, so that what it logs or records
// names the calling module's file and line:
//     int Helper(VeskSite site) { ... VESK_LOG_AT(site, "...failed."); ... }
//     Helper(VESK_SITE);
struct VeskSite {
    const char *szFile;
    int iLine;
};
#define VESK_SITE                   (VeskSite{__FILE_NAME__, __LINE__})
#define VESK_LOG_AT(site, fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, (site).szFile, (site).iLine, ##__VA_ARGS__)
#define VESK_ERR_SET_AT(site, code) VLIBCErrSetEx((code), (site).szFile, (site).iLine)

// Argument check: true when the condition holds; otherwise logs the condition
// as written and records BW_ERR_BAD_PARAMETERS.
//     if (!VESK_ARG_OK(cbName > 0)) return -1;
#define VESK_ARG_OK(cond) VeskArgOk((cond), #cond, VESK_SITE)

// The same check where the logged text of the condition is fixed and is not
// how the code spells it:
//     if (!VESK_ARG_CHECK(UID_ERR != uid, "(uid_t)((uid_t) -1) != uid")) return -1;
#define VESK_ARG_CHECK(cond, text)          VeskArgOk((cond), (text), VESK_SITE)
#define VESK_ARG_CHECK_AT(site, cond, text) VeskArgOk((cond), (text), (site))

inline bool VeskArgOk(bool blHolds, const char *szCond, VeskSite site)
{
    if (blHolds) {
        return true;
    }
    VESK_LOG_AT(site, "Invaild Argument (%s)=[%d]\n", szCond, 0);
    VESK_ERR_SET_AT(site, BW_ERR_BAD_PARAMETERS);
    return false;
}

#endif
