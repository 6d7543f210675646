/*
 * veskbandwidth: per-user and per-group upload and download limits for the
 * file-transfer services of a storage appliance.
 *
 * Every function returns 0 on success and -1 on failure unless its comment
 * says otherwise; a failure leaves its code, file and line in the platform's
 * per-thread error state (VLIBCErrGet, VLIBCErrorGetFile, VLIBCErrorGetLine)
 * and a line in the system log.  Speeds are bytes per second, configured rates
 * KB/s (1 KB = 1024 bytes); 0 means unlimited.  Times are microseconds since
 * the epoch, status timestamps seconds.
 */
#ifndef VESKBANDWIDTH_H
#define VESKBANDWIDTH_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include "vesk_error.h"
#include "vesk_export.h"
#include "vesk_hash.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Enumerations.  Each carries the whole int range (the two bounds at its
 * end), so add-on numbers and values read from files are valid values in C
 * and in C++ alike.
 * ---------------------------------------------------------------------- */

typedef enum _VESK_BW_OWNER_TYPE {
    VESK_BW_OWNER_USER = 1,
    VESK_BW_OWNER_GROUP = 2,
    VESK_BW_OWNER_ALL = 3,
    VESK_BW_OWNER_INT_MIN_ = INT32_MIN,
    VESK_BW_OWNER_INT_MAX_ = INT32_MAX
} VESK_BW_OWNER_TYPE;

typedef enum _VESK_BW_TRANSFER_TYPE {
    VESK_BW_TRANSFER_UPLOAD = 1,
    VESK_BW_TRANSFER_DOWNLOAD = 2,
    VESK_BW_TRANSFER_ALL = 3,
    VESK_BW_TRANSFER_INT_MIN_ = INT32_MIN,
    VESK_BW_TRANSFER_INT_MAX_ = INT32_MAX
} VESK_BW_TRANSFER_TYPE;

typedef enum _VESK_BW_PROTOCOL_TYPE {
    VESK_BW_PROTOCOL_LANTERNPOST = 0x0001,
    VESK_BW_PROTOCOL_WEBDAV = 0x0002,
    VESK_BW_PROTOCOL_FTP = 0x0004,
    VESK_BW_PROTOCOL_RSYNC = 0x0008,
    VESK_BW_PROTOCOL_ALL = 0x000F,
    VESK_BW_PROTOCOL_INT_MIN_ = INT32_MIN,
    VESK_BW_PROTOCOL_INT_MAX_ = INT32_MAX
} VESK_BW_PROTOCOL_TYPE;

typedef enum _VESK_BW_LIMIT_STATE {
    VESK_BW_STATE_NOTEXISTED = 0,
    VESK_BW_STATE_ENABLED = 1,
    VESK_BW_STATE_DISABLED = 2,
    VESK_BW_STATE_SCHEDULE = 3,
    VESK_BW_STATE_INT_MIN_ = INT32_MIN,
    VESK_BW_STATE_INT_MAX_ = INT32_MAX
} VESK_BW_LIMIT_STATE;

/* User-group and inter-group policies share one value space; the inter-group
 * policy admits only min, max and sum. */
typedef enum _VESK_BW_GROUP_POLICY {
    VESK_BW_POLICY_USER_ONLY = 0,
    VESK_BW_POLICY_GROUP_ONLY = 1,
    VESK_BW_POLICY_USER_FIRST = 2,
    VESK_BW_POLICY_GROUP_FIRST = 3,
    VESK_BW_POLICY_MIN = 4,
    VESK_BW_POLICY_MAX = 5,
    VESK_BW_POLICY_SUM = 6,
    VESK_BW_POLICY_INT_MIN_ = INT32_MIN,
    VESK_BW_POLICY_INT_MAX_ = INT32_MAX
} VESK_BW_GROUP_POLICY;

typedef enum _VESK_BW_OCCUPY_POLICY {
    VESK_BW_OCCUPY_NONE = 0,
    VESK_BW_OCCUPY_ALL = 1,
    VESK_BW_OCCUPY_MIN = 2,
    VESK_BW_OCCUPY_MAX = 3,
    VESK_BW_OCCUPY_WEIGHTED = 4,
    VESK_BW_OCCUPY_INT_MIN_ = INT32_MIN,
    VESK_BW_OCCUPY_INT_MAX_ = INT32_MAX
} VESK_BW_OCCUPY_POLICY;

/* One row of a name table; a table ends with {-1, NULL}. */
typedef struct _VESK_BW_ENUM_ENTRY {
    int iValue;
    const char *szName;
} VESK_BW_ENUM_ENTRY;

VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_OWNER_TYPE_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_TRANSFER_TYPE_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_PROTOCOL_TYPE_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_LIMIT_STATE_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_USER_GROUP_POLICY_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_INTER_GROUP_POLICY_NAMES[];
VESK_API extern const VESK_BW_ENUM_ENTRY VESK_BW_OCCUPY_POLICY_NAMES[];

/* ------------------------------------------------------------------------
 * Constants and records.
 * ---------------------------------------------------------------------- */

#define BW_OCC_GROUPS_MAX 1024
#define UID_ERR ((uid_t)-1)

#define VESK_BW_SCHEDULE_PLAN_SIZE 256
#define VESK_BW_FILENAME_SIZE 4096

/* The limit of one user or group for one protocol.  The rate arrays are
 * indexed by transfer type: [1] upload, [2] download; KB/s. */
typedef struct _VESK_BANDWIDTH_CONF {
    unsigned int id;                    /* uid or gid of the owner */
    VESK_BW_LIMIT_STATE iCurState;      /* state in force now (run time only) */
    VESK_BW_LIMIT_STATE iState;         /* configured state */
    VESK_BW_PROTOCOL_TYPE iProtocol;
    VESK_BW_OWNER_TYPE iOwnerType;
    uint64_t ullCurRate[4];             /* rates in force now (run time only) */
    uint64_t ullRate[4];                /* normal rates */
    uint64_t ullCustomRate[4];          /* custom rates */
    char szSchedulePlan[VESK_BW_SCHEDULE_PLAN_SIZE]; /* 168 hour characters from Sunday 00:00 */
} VESK_BANDWIDTH_CONF;

/* The global settings of one protocol. */
typedef struct _VESK_BANDWIDTH_GLOBAL_CONF {
    VESK_BW_LIMIT_STATE iCurState;      /* state in force now (run time only) */
    VESK_BW_LIMIT_STATE iState;
    VESK_BW_PROTOCOL_TYPE iProtocol;    /* names the section; not stored as a key */
    VESK_BW_GROUP_POLICY iUserGroupPolicy;
    VESK_BW_GROUP_POLICY iInterGroupPolicy;
    VESK_BW_OCCUPY_POLICY iOccupyPolicy;
    char szSchedulePlan[VESK_BW_SCHEDULE_PLAN_SIZE];
} VESK_BANDWIDTH_GLOBAL_CONF;

/* A limit in force for one transfer: the fields of VESK_BANDWIDTH_CONF, then
 * the speed this limit allows and the share of the transfer booked against it. */
typedef struct _VESK_BANDWIDTH_LIMIT {
    unsigned int id;
    VESK_BW_LIMIT_STATE iCurState;
    VESK_BW_LIMIT_STATE iState;
    VESK_BW_PROTOCOL_TYPE iProtocol;
    VESK_BW_OWNER_TYPE iOwnerType;
    uint64_t ullCurRate[4];
    uint64_t ullRate[4];
    uint64_t ullCustomRate[4];
    char szSchedulePlan[VESK_BW_SCHEDULE_PLAN_SIZE];
    uint64_t ullMaxSpeedBps;            /* bytes/s, 0 unlimited */
    uint64_t ullOccupyShare;            /* 1/10000 of the transfer's speed */
} VESK_BANDWIDTH_LIMIT;

/* The throttle configuration of one transfer.  Zero-fill it before
 * VESKBandwidthConfigGet and release it with VESKBandwidthConfigFree. */
typedef struct _VESK_BANDWIDTH_CONFIG {
    uid_t uid;
    int32_t iLimitCount;
    uint32_t blUserConfExist;
    uint32_t blGroupConfExist;
    VESK_BANDWIDTH_LIMIT *pLimit;       /* iLimitCount records, owned here */
    VESK_BANDWIDTH_GLOBAL_CONF globalConf;
} VESK_BANDWIDTH_CONFIG;

/* One running transfer, as kept in memory and in the status files. */
typedef struct _VESK_BANDWIDTH_STATUS {
    struct _VESK_BANDWIDTH_STATUS *pNext; /* link of a status list */
    pid_t pid;
    unsigned int id;                    /* uid in a user file, gid in a group file */
    unsigned int uid;                   /* the transferring user */
    unsigned int active;                /* 0: switched off from outside */
    int64_t timestamp;                  /* seconds since the epoch of the last save */
    uint64_t current_speed;             /* bytes/s reached */
    uint64_t expect_speed;              /* bytes/s allowed */
    char filename[VESK_BW_FILENAME_SIZE];
    VESK_BW_OWNER_TYPE owner_type;
    VESK_BW_PROTOCOL_TYPE protocol_type;
    VESK_BW_TRANSFER_TYPE transfer_type;
    uint32_t progress;                  /* 1/10000, 10000 = done */
} VESK_BANDWIDTH_STATUS;

/* ------------------------------------------------------------------------
 * Enumeration names and add-on protocols.
 * ---------------------------------------------------------------------- */

/* 1 found (name written, cut to cbProtocol), 0 not found, -1 error. */
VESK_API int VESKBandwidthEnumToName(const VESK_BW_ENUM_ENTRY *enum_list, int iValue, char *szProtocol,
                                     int cbProtocol);
/* The value of the name (0 included), the add-on number, 0 when not found, -1 error. */
VESK_API int VESKBandwidthEnumToValue(const VESK_BW_ENUM_ENTRY *enum_list, const char *szName);
VESK_API int VESKBandwidthEnumToNameAddon(int iProtocol, char *szName, size_t cbName);
VESK_API int VESKBandwidthEnumToValueAddon(const char *szName);
VESK_API int VESKBandwidthGetAddonConfigPath(int iProtocol, char *szPath, size_t cbPath);

/* ------------------------------------------------------------------------
 * Rate and time arithmetic (0 is unlimited).
 * ---------------------------------------------------------------------- */

VESK_API int64_t VESKBandwidthCurrTimeGet(void);
VESK_API uint64_t VESKBandwidthSpeedEstimate(int64_t llElapsedUs, uint64_t cbTransferred);
VESK_API int64_t VESKBandwidthSleepEstimate(int64_t llElapsedUs, uint64_t cbTransferred, int64_t llSpeedBps);
VESK_API int VESKBandwidthIsLessThan(uint64_t a, uint64_t b);
VESK_API int VESKBandwidthIsLargerThan(uint64_t a, uint64_t b);
VESK_API uint64_t VESKBandwidthSum(uint64_t a, uint64_t b);

/* ------------------------------------------------------------------------
 * Configuration records, files and dumps.
 * ---------------------------------------------------------------------- */

VESK_API int VESKBandwidthInitHashFromConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_CONF *pConf);
VESK_API int VESKBandwidthInitConfFromHash(VESK_BANDWIDTH_CONF *pConf, const VLIBC_SZHASH *pHash);
VESK_API int VESKBandwidthInitHashFromGlobalConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_GLOBAL_CONF *pConf);
VESK_API int VESKBandwidthInitGlobalConfFromHash(VESK_BANDWIDTH_GLOBAL_CONF *pConf, const VLIBC_SZHASH *pHash);

VESK_API int VESKBandwidthConfPath(int protocol_type, char *szConfPath, size_t cbConfPath);
VESK_API int VESKBandwidthConfGetByID(int owner_type, unsigned int id, int protocol_type, VESK_BANDWIDTH_CONF *pConf);
VESK_API int VESKBandwidthConfSetByID(const VESK_BANDWIDTH_CONF *pConf);

VESK_API int VESKBandwidthGlobalConfGet(int protocol_type, VESK_BANDWIDTH_GLOBAL_CONF *pConf);
/* Stores the record (NotExisted becomes disabled) and signals the simulators. */
VESK_API int VESKBandwidthGlobalConfSet(VESK_BANDWIDTH_GLOBAL_CONF *pConf);

VESK_API int VESKBandwidthConfDumpHeader(FILE *fp);
VESK_API int VESKBandwidthConfDump(FILE *fp, const VESK_BANDWIDTH_CONF *pConf);
VESK_API int VESKBandwidthGlobalConfDumpHeader(FILE *fp);
VESK_API int VESKBandwidthGlobalConfDump(FILE *fp, const VESK_BANDWIDTH_GLOBAL_CONF *pConf);

/* ------------------------------------------------------------------------
 * Transfer status store.
 * ---------------------------------------------------------------------- */

VESK_API int VESKBandwidthInitHashFromStatus(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthInitStatusFromHash(VESK_BANDWIDTH_STATUS *pStatus, const VLIBC_SZHASH *pHash);

/* 1 replaced / removed / appended, 0 absent (or already present for the append), -1 failure. */
VESK_API int VESKBandwidthStatusSetSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash);
VESK_API int VESKBandwidthStatusRemoveSection(const char *szFile, const char *szSection);
VESK_API int VESKBandwidthStatusAddSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash);

VESK_API int VESKBandwidthStatusInit(VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, const char *szFileName,
                                     int64_t *pTime, VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthStatusSave(uid_t uid, const VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthIStatusGet(int owner_type, unsigned int id, pid_t pid, int transfer_type,
                                     VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthStatusGet(int owner_type, unsigned int id, int transfer_type, VESK_BANDWIDTH_STATUS *pStatus);

/* The number of fresh records listed (the head is written only when > 0), or -1. */
VESK_API int VESKBandwidthStatusGetAll(int owner_type, unsigned int id, int protocol_type, unsigned int transfer_type,
                                       VESK_BANDWIDTH_STATUS **pStatusList);
VESK_API int VESKBandwidthIStatusGetAll(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                                        VESK_BANDWIDTH_STATUS **pStatusList, int blMerge);
VESK_API void VESKBandwidthStatusListFree(VESK_BANDWIDTH_STATUS **ppList);

VESK_API int VESKBandwidthStatusRemove(const VESK_BANDWIDTH_CONFIG *pConfig, unsigned int transfer_type);
VESK_API int VESKBandwidthStatusRemoveByOccGroups(const unsigned int *pGroups, int iCount, unsigned int transfer_type);
VESK_API int VESKBandwidthStatusForceRemoveAllByUserName(const char *szUserName, unsigned int transfer_type, pid_t pid);
VESK_API int VESKBandwidthStatusForceRemoveAllByUID(uid_t uid, unsigned int transfer_type);
VESK_API int VESKBandwidthStatusSetActiveByUserName(const char *szUserName, int transfer_type, pid_t pid,
                                                    unsigned int active);

VESK_API int VESKBandwidthStatusDump(FILE *fp, const VESK_BANDWIDTH_STATUS *pStatus);

/* ------------------------------------------------------------------------
 * Throttling engine.
 * ---------------------------------------------------------------------- */

VESK_API int VESKBandwidthConfigGet(uid_t uid, int protocol_type, VESK_BANDWIDTH_CONFIG *pConfig);
/* The number of limit records placed in *ppLimit, or -1. */
VESK_API int VESKBandwidthLimitInit(uid_t uid, const VESK_BANDWIDTH_GLOBAL_CONF *pGlobalConf,
                                    VESK_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblUserConfExist,
                                    uint32_t *pblGroupConfExist);
/* Resolves the schedules for llTimeUs (0: now); 1 when a schedule was evaluated. */
VESK_API int VESKBandwidthInitConfig(VESK_BANDWIDTH_CONFIG *pConfig, int64_t llTimeUs);
VESK_API int VESKBandwidthConfCheckEnabled(const VESK_BANDWIDTH_CONFIG *pConfig);
VESK_API int VESKBandwidthIsUserGroupLimitEnable(const VESK_BANDWIDTH_CONFIG *pConfig);
/* pGroups must hold BW_OCC_GROUPS_MAX entries. */
VESK_API int VESKBandwidthOccGroupsGet(uint32_t *pGroups, int *piOccGroups, const VESK_BANDWIDTH_CONFIG *pConfig);
VESK_API void VESKBandwidthConfigFree(VESK_BANDWIDTH_CONFIG *pConfig);

VESK_API int VESKBandwidthExpectSpeedEstimate(uid_t uid, const VESK_BANDWIDTH_LIMIT *pConf, int transfer_type,
                                              uint64_t *pMaxSpeedBps, pid_t pid);
VESK_API int VESKBandwidthExpectSpeedEstimateByPolicy(int transfer_type, VESK_BANDWIDTH_CONFIG *pConfig,
                                                      uint64_t *pSpeedBps, int blShare);

/* One pass after every chunk: 0 continue, -1 end the transfer
 * (BW_ERR_DEACTIVATED when it was switched off from outside). */
VESK_API int VESKBandwidthSleepInLoop(VESK_BANDWIDTH_CONFIG *pConfig, uint64_t cbTransferred, uint32_t progress,
                                      int64_t *pTimeLast, VESK_BANDWIDTH_STATUS *pStatus);

VESK_API int VESKBandwidthTransferSizeEstimate(const VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type,
                                               uint64_t ullRequestBytes, uint64_t *pTransferBytes);
/* pSpeedsBps[1] upload, pSpeedsBps[2] download; [0] untouched. */
VESK_API int VESKBandwidthPreview(uid_t uid, int protocol_type, uint64_t *pSpeedsBps);

/* ------------------------------------------------------------------------
 * Reload notification and simulation.
 * ---------------------------------------------------------------------- */

VESK_API void VESKBandwidthHupLanternpost(void);
VESK_API int VESKBandwidthHupWebDAV(void);
VESK_API int VESKBandwidthHupSimulator(void);
VESK_API int VESKBandwidthHupRecv(VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus, int64_t *pTime);
VESK_API int VESKBandwidthSimulate(const char *szUserName, int protocol_type, int transfer_type, size_t size);

/* ------------------------------------------------------------------------
 * Transfer sessions: the recommended way for a service to throttle a
 * transfer.  A service opens a session once per transfer, tells it after
 * every I/O how many bytes it moved, and closes it at the end:
 *
 *     VESKBandwidthSessionOpen(uid, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, path, &session);
 *     for (;;) {
 *         VESKBandwidthSessionChunk(session, &chunk);
 *         n = read(in, buf, min(chunk, sizeof buf));  ... write(out, buf, n) ...
 *         if (VESKBandwidthSessionPace(session, n) != 0) break;   (switched off)
 *     }
 *     VESKBandwidthSessionClose(session);
 *
 * The session keeps the transfer at the speed it may have among the other
 * transfers under the same limits: bytes are due at absolute deadlines on
 * the monotonic clock, so that a late wake-up is made up by the next wait
 * instead of lost.  A caller that was idle gets no credit for it beyond a few
 * milliseconds of data.  About five times a second, at a Pace, the session
 * runs the shared pass: the sleep loop (VESKBandwidthSleepInLoop) with the
 * bytes moved since the previous pass, which publishes the transfer's
 * measured speed in the status files, works out its new speed under the
 * policies, re-resolves schedules when the local hour changed, and notices a
 * switch-off.  The per-chunk calls above stay available and unchanged.
 *
 * Limits in force change only at a shared pass, so within about 200 ms:
 * - a limit that ends (by schedule, a switched-off protocol, a rate of 0 or
 *   a protocol without a global record) makes pacing free, and the
 *   transfer's entries leave the status files; bytes moved while free are
 *   never charged later;
 * - a limit that begins (by schedule, or after a reload) paces the bytes
 *   moved from that pass on;
 * - when the protocol's limit file or the global file changes (device,
 *   inode, size or times), the session reloads them by itself, as
 *   VESKBandwidthSessionReload does; no signal is needed;
 * - when the transfer's speed drops because others join, the bytes of the
 *   last interval are charged at the new speed, so that the transfers under
 *   one limit keep to it together.
 *
 * Shared files that cannot be read or written (a broken status directory, a
 * full disk, a file planted by another user) do not end the transfer: the
 * session logs once, paces at the configured rate of its limits (not shared)
 * and tries the shared pass again after 1 s, then after pauses that double
 * up to 30 s, until it works again.  Only a switch-off by another process
 * (VESKBandwidthStatusSetActiveByUserName) ends it.
 *
 * Ownership and threads: Open allocates the session and the caller owns it
 * until Close, which releases it on every path.  A session is used by one
 * thread at a time, and the library as a whole by one thread at a time per
 * process (the shared pass keeps process-wide state).  A child process that
 * inherits a session through fork() registers a transfer of its own at its
 * first shared pass.  Units: bytes, bytes per second, progress in 1/10000.
 * ---------------------------------------------------------------------- */

typedef struct VESK_BANDWIDTH_SESSION VESK_BANDWIDTH_SESSION;

/* Builds the configuration of uid for the protocol (VESKBandwidthConfigGet),
 * registers the transfer (VESKBandwidthStatusInit) under szFileName, and
 * stores the new session in *ppSession.  0, or -1 with *ppSession untouched
 * and the error state set: BW_ERR_BAD_PARAMETERS (a NULL argument, a
 * transfer type other than upload or download, or a uid or protocol that
 * VESKBandwidthConfigGet refuses), BW_ERR_OUT_OF_MEMORY, or
 * the code of the configuration read that failed.  A registration that fails
 * on the status files does not fail the open (see above). */
VESK_API int VESKBandwidthSessionOpen(uid_t uid, int protocol_type, int transfer_type, const char *szFileName,
                                      VESK_BANDWIDTH_SESSION **ppSession);

/* Called after the caller moved cbMoved more bytes (0 is allowed): sleeps
 * until those bytes are due at the transfer's current speed, and runs the
 * shared pass when its interval has passed.  0: go on.  -1: end the
 * transfer; BW_ERR_DEACTIVATED when another process switched it off (every
 * later Pace returns -1 too), BW_ERR_BAD_PARAMETERS for a NULL session.  A
 * transfer that is not limited costs one clock read per Pace between passes. */
VESK_API int VESKBandwidthSessionPace(VESK_BANDWIDTH_SESSION *pSession, uint64_t cbMoved);

/* The size of the next I/O that keeps pacing smooth: 1/60 s of data at the
 * current speed, at least 4 KiB and at most 16 MiB (16 MiB when the transfer
 * is not limited).  0, or -1 for a NULL argument. */
VESK_API int VESKBandwidthSessionChunk(VESK_BANDWIDTH_SESSION *pSession, uint64_t *pcbChunk);

/* The progress (1/10000, 10000 = done) published with the next shared pass,
 * for the status view.  0, or -1 for a NULL session. */
VESK_API int VESKBandwidthSessionProgressSet(VESK_BANDWIDTH_SESSION *pSession, uint32_t progress);

/* Rebuilds the configuration at once, as a reload signal would
 * (VESKBandwidthHupRecv), and runs the shared pass at the next Pace, so that
 * changed limits apply from there.  When the status files keep the receiver
 * from withdrawing the old entries, the configuration is still rebuilt.  0,
 * or -1 when the configuration cannot be read (the old one stays in force). */
VESK_API int VESKBandwidthSessionReload(VESK_BANDWIDTH_SESSION *pSession);

/* Removes the transfer's entries from the status files
 * (VESKBandwidthStatusRemove) and releases the session, also when the
 * removal fails.  NULL is accepted (0).  0, or -1 when the removal failed. */
VESK_API int VESKBandwidthSessionClose(VESK_BANDWIDTH_SESSION *pSession);

#ifdef __cplusplus
}
#endif

#endif
