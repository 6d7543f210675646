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

/* The most occupied groups that VESKBandwidthOccGroupsGet reports. */
#define BW_OCC_GROUPS_MAX 1024
/* "No uid". */
#define UID_ERR ((uid_t)-1)

/* Sizes of the text fields, NUL included. */
#define VESK_BW_SCHEDULE_PLAN_SIZE 256
#define VESK_BW_FILENAME_SIZE      4096

/* The limit of one user or group for one protocol.  The rate arrays are
 * indexed by transfer type: [1] upload, [2] download; KB/s. */
typedef struct _VESK_BANDWIDTH_CONF {
    unsigned int id;               /* uid or gid of the owner */
    VESK_BW_LIMIT_STATE iCurState; /* state in force now (run time only) */
    VESK_BW_LIMIT_STATE iState;    /* configured state */
    VESK_BW_PROTOCOL_TYPE iProtocol;
    VESK_BW_OWNER_TYPE iOwnerType;
    uint64_t ullCurRate[4];                          /* rates in force now (run time only) */
    uint64_t ullRate[4];                             /* normal rates */
    uint64_t ullCustomRate[4];                       /* custom rates */
    char szSchedulePlan[VESK_BW_SCHEDULE_PLAN_SIZE]; /* 168 hour characters from Sunday 00:00 */
} VESK_BANDWIDTH_CONF;

/* The global settings of one protocol. */
typedef struct _VESK_BANDWIDTH_GLOBAL_CONF {
    VESK_BW_LIMIT_STATE iCurState; /* state in force now (run time only) */
    VESK_BW_LIMIT_STATE iState;
    VESK_BW_PROTOCOL_TYPE iProtocol; /* names the section; not stored as a key */
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
    uint64_t ullMaxSpeedBps; /* bytes/s, 0 unlimited */
    uint64_t ullOccupyShare; /* 1/10000 of the transfer's speed */
} VESK_BANDWIDTH_LIMIT;

/* The throttle configuration of one transfer.  Zero-fill it before
 * VESKBandwidthConfigGet and release it with VESKBandwidthConfigFree. */
typedef struct _VESK_BANDWIDTH_CONFIG {
    uid_t uid;
    int32_t iLimitCount;
    uint32_t blUserConfExist;
    uint32_t blGroupConfExist;
    VESK_BANDWIDTH_LIMIT *pLimit; /* iLimitCount records, owned here */
    VESK_BANDWIDTH_GLOBAL_CONF globalConf;
} VESK_BANDWIDTH_CONFIG;

/* One running transfer, as kept in memory and in the status files. */
typedef struct _VESK_BANDWIDTH_STATUS {
    struct _VESK_BANDWIDTH_STATUS *pNext; /* link of a status list */
    pid_t pid;
    unsigned int id;        /* uid in a user file, gid in a group file */
    unsigned int uid;       /* the transferring user */
    unsigned int active;    /* 0: switched off from outside */
    int64_t timestamp;      /* seconds since the epoch of the last save */
    uint64_t current_speed; /* bytes/s reached */
    uint64_t expect_speed;  /* bytes/s allowed */
    char filename[VESK_BW_FILENAME_SIZE];
    VESK_BW_OWNER_TYPE owner_type;
    VESK_BW_PROTOCOL_TYPE protocol_type;
    VESK_BW_TRANSFER_TYPE transfer_type;
    uint32_t progress; /* 1/10000, 10000 = done */
} VESK_BANDWIDTH_STATUS;

/* ------------------------------------------------------------------------
 * Enumeration names and add-on protocols.  Files store every enumeration by
 * name.  A value or name that a table lacks may be an add-on protocol: a file
 * NAME_NUMBER.json in /usr/vesk/etc/bandwidth/addon/ makes NUMBER a protocol
 * value named NAME.  Found add-ons are cached for the life of the process.
 * ---------------------------------------------------------------------- */

/* Writes the name of iValue in enum_list (else of the add-on numbered iValue)
 * into szProtocol, cut to cbProtocol bytes with the NUL.  Returns 1 when
 * found; -1 on error: a missing argument or cbProtocol below 1
 * (BW_ERR_BAD_PARAMETERS), or an add-on search that failed or found no file
 * (BW_ERR_GLOB_FAILED and the others of VESKBandwidthEnumToNameAddon); 0 when
 * the search ended without a failure and without a name (BW_ERR_NOT_FOUND). */
VESK_API int VESKBandwidthEnumToName(const VESK_BW_ENUM_ENTRY *enum_list, int iValue, char *szProtocol, int cbProtocol);
/* The value of szName in enum_list (0 is a value), else the number of the
 * add-on of that name; names compare exactly, case included.  -1 on error,
 * a name that no table row and no add-on file knows included; 0 with
 * BW_ERR_NOT_FOUND for an add-on file without a number. */
VESK_API int VESKBandwidthEnumToValue(const VESK_BW_ENUM_ENTRY *enum_list, const char *szName);
/* The name of add-on protocol iProtocol into szName (cbName bytes).  Returns 1
 * when found, 0 when the search returned no path, -1 on error: a missing or
 * empty buffer (BW_ERR_BAD_PARAMETERS), a failed search of the add-on
 * directory (BW_ERR_GLOB_FAILED, also when no file matches), two files of
 * one number (BW_ERR_ADDON_AMBIGUOUS), a file name without separators
 * (BW_ERR_ADDON_BAD_PATH). */
VESK_API int VESKBandwidthEnumToNameAddon(int iProtocol, char *szName, size_t cbName);
/* The number of the add-on protocol named szName (a file "szName_*.json";
 * 0 when its name carries no digits), -1 on error as for
 * VESKBandwidthEnumToNameAddon. */
VESK_API int VESKBandwidthEnumToValueAddon(const char *szName);
/* Writes the path of add-on iProtocol's file, "/usr/vesk/etc/bandwidth/addon//
 * NAME_NUMBER.json", into szPath (cbPath bytes).  0, or -1 when the add-on is
 * not found (the lookup's error code stays). */
VESK_API int VESKBandwidthGetAddonConfigPath(int iProtocol, char *szPath, size_t cbPath);

/* ------------------------------------------------------------------------
 * Rate and time arithmetic.  Speeds are bytes per second and a speed of 0 is
 * unlimited: looser than any other, and absorbing in a sum.  No failures.
 * ---------------------------------------------------------------------- */

/* The wall-clock time in microseconds since the epoch. */
VESK_API int64_t VESKBandwidthCurrTimeGet(void);
/* The speed in bytes/s of cbTransferred bytes moved in llElapsedUs
 * microseconds; an interval below 1 counts as 1. */
VESK_API uint64_t VESKBandwidthSpeedEstimate(int64_t llElapsedUs, uint64_t cbTransferred);
/* The microseconds still to wait so that cbTransferred bytes moved in
 * llElapsedUs keep to llSpeedBps bytes/s; never negative, 0 when unlimited. */
VESK_API int64_t VESKBandwidthSleepEstimate(int64_t llElapsedUs, uint64_t cbTransferred, int64_t llSpeedBps);
/* 1 when speed limit a is tighter than b, else 0. */
VESK_API int VESKBandwidthIsLessThan(uint64_t a, uint64_t b);
/* 1 when speed limit a is looser than b, else 0. */
VESK_API int VESKBandwidthIsLargerThan(uint64_t a, uint64_t b);
/* The two limits together: a + b, or 0 (unlimited) when either is. */
VESK_API uint64_t VESKBandwidthSum(uint64_t a, uint64_t b);

/* ------------------------------------------------------------------------
 * Configuration records, files and dumps.  A limit record is stored in
 * /usr/vesk/etc/bandwidth/bandwidth.<protocol>.conf as the section
 * "user-<uid>" or "group-<gid>"; global records in bandwidth.global.conf as
 * the section named by the protocol.  Rates are KB/s.
 * ---------------------------------------------------------------------- */

/* Empties the caller's hash (*ppHash, from VLIBCSzHashAlloc; the handle may be
 * replaced) and fills it with the record's keys ("id", "state", "owner type",
 * "protocol type", "upload rate", "download rate", "upload rate custom",
 * "download rate custom", "schedule plan").  A value without a name leaves
 * its key out (logged).  0, or -1: a missing argument (BW_ERR_BAD_PARAMETERS)
 * or a failed hash store. */
VESK_API int VESKBandwidthInitHashFromConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_CONF *pConf);
/* Sets the fields whose keys the hash holds; the others keep what the caller
 * put there, and an unknown name is logged and skipped.  0, or -1: a missing
 * argument, or a number with text after its digits (BW_ERR_BAD_VALUE; the
 * fields before it are already set).  Numbers past their range are cut. */
VESK_API int VESKBandwidthInitConfFromHash(VESK_BANDWIDTH_CONF *pConf, const VLIBC_SZHASH *pHash);
/* The same for a global record: keys "state", "user-group policy",
 * "inter-group policy", "occupy policy", "schedule plan"; iCurState and
 * iProtocol are neither written nor read. */
VESK_API int VESKBandwidthInitHashFromGlobalConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_GLOBAL_CONF *pConf);
VESK_API int VESKBandwidthInitGlobalConfFromHash(VESK_BANDWIDTH_GLOBAL_CONF *pConf, const VLIBC_SZHASH *pHash);

/* Writes the limit file path of protocol_type (VESK_BW_PROTOCOL_ALL: the
 * global file) into szConfPath, cut to cbConfPath - 1 characters.  0, or -1
 * when szConfPath is missing or the protocol has no name. */
VESK_API int VESKBandwidthConfPath(int protocol_type, char *szConfPath, size_t cbConfPath);
/* Reads the limit of owner (VESK_BW_OWNER_USER and a uid, or
 * VESK_BW_OWNER_GROUP and a gid) for protocol_type into *pConf.  A limit never
 * stored reads as state NotExisted with rates 0; iCurState and ullCurRate are
 * 0.  0, or -1: VESK_BW_PROTOCOL_ALL or a missing record
 * (BW_ERR_BAD_PARAMETERS), a protocol or owner type without a name, an
 * unreadable file or a malformed stored number (BW_ERR_BAD_VALUE). */
VESK_API int VESKBandwidthConfGetByID(int owner_type, unsigned int id, int protocol_type, VESK_BANDWIDTH_CONF *pConf);
/* Stores *pConf as the section of its owner in the limit file of its
 * iProtocol, replacing an earlier one; creates the directory and the file
 * when missing.  Sends no reload notice.  0 or -1. */
VESK_API int VESKBandwidthConfSetByID(const VESK_BANDWIDTH_CONF *pConf);

/* Reads the global record of protocol_type into *pConf.  A protocol without
 * one reads as state NotExisted, policies user-first, max, max, and an empty
 * plan; iCurState is disabled.  0, or -1 as for VESKBandwidthConfGetByID. */
VESK_API int VESKBandwidthGlobalConfGet(int protocol_type, VESK_BANDWIDTH_GLOBAL_CONF *pConf);
/* Stores the record as the section of its iProtocol (VESK_BW_PROTOCOL_ALL is
 * the section "all"); a state of NotExisted is first set to disabled in the
 * caller's record.  On success the simulators are told to reload
 * (VESKBandwidthHupSimulator).  0 or -1. */
VESK_API int VESKBandwidthGlobalConfSet(VESK_BANDWIDTH_GLOBAL_CONF *pConf);

/* Print the header line, or one row of a limit record (its rates in force,
 * ullCurRate, and the owner's account name; a VESK_BANDWIDTH_LIMIT may be
 * passed as its leading VESK_BANDWIDTH_CONF) or of a global record, to fp.
 * Values without a name print as "unknown(<value>)".  0, or -1: a missing
 * argument, an owner that is not found or whose type is neither user nor
 * group (BW_ERR_UNKNOWN_CONF_TYPE), a protocol without a name. */
VESK_API int VESKBandwidthConfDumpHeader(FILE *fp);
VESK_API int VESKBandwidthConfDump(FILE *fp, const VESK_BANDWIDTH_CONF *pConf);
VESK_API int VESKBandwidthGlobalConfDumpHeader(FILE *fp);
VESK_API int VESKBandwidthGlobalConfDump(FILE *fp, const VESK_BANDWIDTH_GLOBAL_CONF *pConf);

/* ------------------------------------------------------------------------
 * Transfer status store.  Each running transfer has a section "<pid>-<transfer
 * type>" in /tmp/bandwidth/user-<uid> and, scaled by its occupy share, in
 * /tmp/bandwidth/group-<gid> of every group it occupies.  The files are
 * shared by all processes without locks; a section not saved for 30 seconds
 * is stale and dropped by the enumeration.
 * ---------------------------------------------------------------------- */

/* A status record to and from its twelve keys ("pid", "id", "uid", "active",
 * "timestamp", "current speed", "expect speed", "filename", "owner type",
 * "protocol type", "transfer type", "progress"), as for the limit records;
 * "pid" and "timestamp" ignore text after their digits. */
VESK_API int VESKBandwidthInitHashFromStatus(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthInitStatusFromHash(VESK_BANDWIDTH_STATUS *pStatus, const VLIBC_SZHASH *pHash);

/* Replace (SetSection) or remove (RemoveSection) section szSection of the
 * existing status file szFile, by a rewrite that replaces the file
 * atomically.  1 done, 0 no such section (BW_ERR_NOT_FOUND), -1 on failure.
 * AddSection appends the section (creating the file): 1 appended, 0 when the
 * file already has it (nothing written), -1 on failure. */
VESK_API int VESKBandwidthStatusSetSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash);
VESK_API int VESKBandwidthStatusRemoveSection(const char *szFile, const char *szSection);
VESK_API int VESKBandwidthStatusAddSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash);

/* Fills *pStatus for a new transfer of this process (direction transfer_type,
 * file name szFileName) and, when the configuration limits it, saves it and
 * sets *pTime to now (microseconds) for the first sleep-loop pass.  0 or -1. */
VESK_API int VESKBandwidthStatusInit(VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, const char *szFileName,
                                     int64_t *pTime, VESK_BANDWIDTH_STATUS *pStatus);
/* Saves *pStatus into the file of user uid and, unless pConfig is NULL, a copy
 * into the file of every group it occupies (current speed scaled by the
 * share, expected speed that group's).  The record is as it was afterwards.
 * 0, or -1: uid UID_ERR or pStatus missing (BW_ERR_BAD_PARAMETERS), or a
 * failed write. */
VESK_API int VESKBandwidthStatusSave(uid_t uid, const VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus);
/* Reads the section of process pid (StatusGet: this process) and direction
 * transfer_type (not VESK_BW_TRANSFER_ALL) from the status file of the owner
 * into *pStatus; fields without a key keep their values.  0, or -1 (also when
 * the file or the section is missing). */
VESK_API int VESKBandwidthIStatusGet(int owner_type, unsigned int id, pid_t pid, int transfer_type,
                                     VESK_BANDWIDTH_STATUS *pStatus);
VESK_API int VESKBandwidthStatusGet(int owner_type, unsigned int id, int transfer_type, VESK_BANDWIDTH_STATUS *pStatus);

/* Lists the fresh transfers of the owner's status file (IStatusGetAll: of the
 * file szStatusFile) whose protocol and direction match the masks
 * protocol_type and transfer_type, newest section first, as a list linked
 * through pNext; deletes stale sections on the way.  blMerge 1 merges the
 * records of one protocol and direction.  Returns the number listed; the head
 * is written only when it is above 0.  -1 on failure.  Set the head to NULL
 * before the call and always free it with VESKBandwidthStatusListFree. */
VESK_API int VESKBandwidthStatusGetAll(int owner_type, unsigned int id, int protocol_type, unsigned int transfer_type,
                                       VESK_BANDWIDTH_STATUS **pStatusList);
VESK_API int VESKBandwidthIStatusGetAll(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                                        VESK_BANDWIDTH_STATUS **pStatusList, int blMerge);
/* Frees every record of the list and sets the head to NULL; an empty list is fine. */
VESK_API void VESKBandwidthStatusListFree(VESK_BANDWIDTH_STATUS **ppList);

/* Remove the sections of this process (ForceRemoveAllByUserName: of process
 * pid) for the directions in the mask transfer_type: from the configuration's
 * user file and occupied groups; from the files of the iCount groups given
 * (a count below 1 does nothing); from the files of the user and of every
 * group of the user.  A missing file or section is no failure.  0 or -1. */
VESK_API int VESKBandwidthStatusRemove(const VESK_BANDWIDTH_CONFIG *pConfig, unsigned int transfer_type);
VESK_API int VESKBandwidthStatusRemoveByOccGroups(const unsigned int *pGroups, int iCount, unsigned int transfer_type);
VESK_API int VESKBandwidthStatusForceRemoveAllByUserName(const char *szUserName, unsigned int transfer_type, pid_t pid);
VESK_API int VESKBandwidthStatusForceRemoveAllByUID(uid_t uid, unsigned int transfer_type);
/* Sets the active flag of process pid's transfer in the named user's file;
 * active 0 makes that transfer's next sleep-loop pass end it
 * (BW_ERR_DEACTIVATED).  0 or -1. */
VESK_API int VESKBandwidthStatusSetActiveByUserName(const char *szUserName, int transfer_type, pid_t pid,
                                                    unsigned int active);

/* Prints one line for the record: owner name, protocol, direction, pid, last
 * save, expected and current speed (KB/s), progress (%), file name.  0, or -1
 * when an argument is missing or the owner is not found. */
VESK_API int VESKBandwidthStatusDump(FILE *fp, const VESK_BANDWIDTH_STATUS *pStatus);

/* ------------------------------------------------------------------------
 * Throttling engine.
 * ---------------------------------------------------------------------- */

/* Builds the throttle configuration of user uid for protocol_type into the
 * zero-filled *pConfig: the global record, then (unless the protocol is
 * disabled) the limits in force, with the schedules resolved for now.  0, or
 * -1: uid UID_ERR, VESK_BW_PROTOCOL_ALL or pConfig missing
 * (BW_ERR_BAD_PARAMETERS), an unreadable limit or an unknown user.  Release
 * it with VESKBandwidthConfigFree whatever the result. */
VESK_API int VESKBandwidthConfigGet(uid_t uid, int protocol_type, VESK_BANDWIDTH_CONFIG *pConfig);
/* The limit records of user uid that are enabled or scheduled: the user's own
 * first, then (unless the user-group policy is user-only) those of the user's
 * groups in the order of the group list.  Returns their number, the new array
 * (NULL for none) in *ppLimit and the two flags; -1 on failure, *ppLimit
 * unchanged. */
VESK_API int VESKBandwidthLimitInit(uid_t uid, const VESK_BANDWIDTH_GLOBAL_CONF *pGlobalConf,
                                    VESK_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblUserConfExist,
                                    uint32_t *pblGroupConfExist);
/* Resolves the schedules of the configuration for the local hour of the week
 * of llTimeUs (microseconds since the epoch; 0: now): iCurState and
 * ullCurRate.  Returns 1 when a schedule was evaluated, else 0. */
VESK_API int VESKBandwidthInitConfig(VESK_BANDWIDTH_CONFIG *pConfig, int64_t llTimeUs);
/* 1 when the protocol limits at this hour and some limit was read, else 0
 * (also for NULL). */
VESK_API int VESKBandwidthConfCheckEnabled(const VESK_BANDWIDTH_CONFIG *pConfig);
/* 1 when some limit record is enabled at this hour, else 0 (also for NULL). */
VESK_API int VESKBandwidthIsUserGroupLimitEnable(const VESK_BANDWIDTH_CONFIG *pConfig);
/* Writes the gids of the group limits with a non-zero occupy share, in order,
 * into pGroups (BW_OCC_GROUPS_MAX entries; more are left out and logged) and
 * their number into *piOccGroups.  0, or -1 when an argument is missing. */
VESK_API int VESKBandwidthOccGroupsGet(uint32_t *pGroups, int *piOccGroups, const VESK_BANDWIDTH_CONFIG *pConfig);
/* Frees the limit records and zero-fills the record; NULL is accepted. */
VESK_API void VESKBandwidthConfigFree(VESK_BANDWIDTH_CONFIG *pConfig);

/* The speed in bytes/s (0 unlimited) that limit pConf allows one transfer of
 * user uid in direction transfer_type (upload or download), shared with the
 * other active transfers in that limit's status file, those of process pid
 * left out: an equal part per user and per transfer of the user, or what
 * the others leave unused when that is more.  0, or -1. */
VESK_API int VESKBandwidthExpectSpeedEstimate(uid_t uid, const VESK_BANDWIDTH_LIMIT *pConf, int transfer_type,
                                              uint64_t *pMaxSpeedBps, pid_t pid);
/* The speed in bytes/s (0 unlimited) that the transfer may have under the
 * configuration's policies, into *pSpeedBps; each limit in force at its
 * configured rate (blShare 0) or shared among the running transfers (1: reads
 * the status files).  Rewrites ullMaxSpeedBps and ullOccupyShare (1/10000) of
 * the limit records.  0, or -1: VESK_BW_TRANSFER_ALL, a missing argument, an
 * unknown policy. */
VESK_API int VESKBandwidthExpectSpeedEstimateByPolicy(int transfer_type, VESK_BANDWIDTH_CONFIG *pConfig,
                                                      uint64_t *pSpeedBps, int blShare);

/* One pass after every chunk of cbTransferred bytes: works out the allowed
 * speed, sleeps as long as it requires since *pTimeLast (microseconds,
 * advanced by a complete pass), records the speed reached and the progress
 * (1/10000) and saves the transfer's status.  Returns 0 to go on (also when
 * no limit is in force now), -1 to end the transfer: BW_ERR_DEACTIVATED when
 * it was switched off from outside, else the failure's code. */
VESK_API int VESKBandwidthSleepInLoop(VESK_BANDWIDTH_CONFIG *pConfig, uint64_t cbTransferred, uint32_t progress,
                                      int64_t *pTimeLast, VESK_BANDWIDTH_STATUS *pStatus);

/* The number of bytes to move next into *pTransferBytes: ullRequestBytes, but
 * at most five seconds of data at the speed that the configured rates allow.
 * 0, or -1 when an argument is missing or the policies cannot be evaluated. */
VESK_API int VESKBandwidthTransferSizeEstimate(const VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type,
                                               uint64_t ullRequestBytes, uint64_t *pTransferBytes);
/* The speeds in bytes/s (0 unlimited) that user uid would get now on
 * protocol_type from the configured rates: pSpeedsBps[1] upload,
 * pSpeedsBps[2] download ([0] untouched; the array holds three).  0 or -1. */
VESK_API int VESKBandwidthPreview(uid_t uid, int protocol_type, uint64_t *pSpeedsBps);

/* ------------------------------------------------------------------------
 * Reload notification and simulation.
 * ---------------------------------------------------------------------- */

/* Sends SIGHUP to every web file manager worker (a process whose first
 * argument names a VESK.Lanternpost transfer API). */
VESK_API void VESKBandwidthHupLanternpost(void);
/* Sends SIGUSR2 to the process group of the WebDAV server named in
 * /run/httpd/httpd-webdav.pid.  Returns what the pid file gives when it is
 * below 1 (-1 missing or malformed), else killpg's result (0, or -1 with errno). */
VESK_API int VESKBandwidthHupWebDAV(void);
/* Runs "/usr/bin/killall -sighup veskbandwidth" (output discarded) and
 * returns its exit status, or -1. */
VESK_API int VESKBandwidthHupSimulator(void);
/* Reloads a transfer's configuration between two chunks after SIGHUP: takes
 * its group copies out, builds the configuration anew, removes its entries
 * when nothing limits it any more, and replaces *pConfig (the old one is
 * freed).  *pTime is set to now.  0, or -1 with *pConfig kept as it was. */
VESK_API int VESKBandwidthHupRecv(VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus, int64_t *pTime);
/* Plays a throttled transfer of size units of 1 KiB for the named user,
 * 64 KiB per sleep-loop pass, reloading on SIGHUP (the handler is installed
 * here), and removes it at the end.  0, or -1 on a failure or when the
 * transfer was switched off. */
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

/* The speed the transfer is paced at now, bytes per second, into *pSpeedBps:
 * its share found by the last shared pass, or 0 while it is not limited.  0,
 * or -1 for a NULL argument. */
VESK_API int VESKBandwidthSessionSpeedGet(const VESK_BANDWIDTH_SESSION *pSession, uint64_t *pSpeedBps);

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
