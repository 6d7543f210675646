/* Directories and processes. */
#ifndef VESK_SYSTEM_H
#define VESK_SYSTEM_H

#include <sys/types.h>

#include "vesk_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* iMode -1: 0755; uid/gid (uid_t)-1, (gid_t)-1: leave as created; <0 failure. */
VESK_API int VESKFSMkdirP(const char *szDir, int iReserved, int blParents, uid_t uid, gid_t gid, int iMode);
/* Runs the program with the non-NULL arguments (no shell), its standard output and error
 * sent to /dev/null, and waits: its exit status, or -1. */
VESK_API int VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                       const char *szArg4);
/* The pid written in the file; -1 when missing or malformed. */
VESK_API pid_t VLIBCReadPidFile(const char *szPath);

#ifdef __cplusplus
}
#endif

#endif
