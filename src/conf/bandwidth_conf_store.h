/* Steps shared by the readers, writers and dumps of the configuration files.
 * Internal to the library. Helpers that log take the file name and line of
 * their caller, so that every message names the module that asked. */
#ifndef BANDWIDTH_CONF_STORE_H
#define BANDWIDTH_CONF_STORE_H

#include <stddef.h>
#include <syslog.h>

#include "common/bandwidth_handles.h"
#include "veskbandwidth.h"
#include "vesk_account.h"
#include "vesk_log.h"

/* Directory of every configuration file. */
#define BW_CONF_DIR "/usr/vesk/etc/bandwidth/"

/* Buffer sizes of names, section names and paths. */
#define BW_CONF_NAME_SIZE 256
#define BW_CONF_SECTION_SIZE 512
#define BW_CONF_PATH_SIZE 4096

/* One log line in the name of the module and line given by the caller. */
#define BW_CONF_LOG_AT(file, line, fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, (file), (line), ##__VA_ARGS__)

/* The name of iValue in a name table (add-on protocols included) into a
 * buffer of BW_CONF_NAME_SIZE: true when found and not empty. */
bool BandwidthConfEnumName(const VESK_BW_ENUM_ENTRY *pTable, int iValue, char *szName);

/* Reads a section of a configuration file into the hash: 1 read, 0 when the
 * file or the section does not exist, -1 on failure (logged). */
int BandwidthConfSectionLoad(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash,
                             const char *szFile, int iLine);

/* Reads a section and converts it into the record with fnFromHash: 0 also
 * when there is nothing to read (the record keeps what it holds), -1 on
 * failure (logged). */
template <typename Record>
int BandwidthConfSectionRead(const char *szPath, const char *szSection, BwHash &hash,
                             int (*fnFromHash)(Record *, const VLIBC_SZHASH *), Record *pRecord,
                             const char *szFile, int iLine)
{
    int ret = BandwidthConfSectionLoad(szPath, szSection, hash.Addr(), szFile, iLine);
    if (ret <= 0) {
        return ret;
    }
    if (fnFromHash(pRecord, hash.Get()) < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "Init conf from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}
#define BW_CONF_SECTION_READ(path, section, hash, fnFromHash, pRecord) \
    BandwidthConfSectionRead((path), (section), (hash), (fnFromHash), (pRecord), __FILE_NAME__, __LINE__)

/* Fills a freshly allocated hash from a record with fnToHash: 0, or -1
 * (logged) when the allocation or the conversion failed. */
template <typename Record>
int BandwidthConfHashFill(BwHash &hash, int (*fnToHash)(VLIBC_SZHASH **, const Record *), const Record *pRecord,
                          const char *szFile, int iLine)
{
    if (!hash) {
        BW_CONF_LOG_AT(szFile, iLine, "VLIBCSzHashAlloc failed.[0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    if (fnToHash(hash.Addr(), pRecord) < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "Init hash from conf failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}
#define BW_CONF_HASH_FILL(hash, fnToHash, pRecord) \
    BandwidthConfHashFill((hash), (fnToHash), (pRecord), __FILE_NAME__, __LINE__)

/* Stores the hash as a section of a configuration file, creating the
 * configuration directory and the file when missing, and replacing an earlier
 * section of that name or appending a new one: 0, or -1 on failure (logged). */
int BandwidthConfSectionStore(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash,
                              const char *szFile, int iLine);
#define BW_CONF_SECTION_STORE(path, section, pHash) \
    BandwidthConfSectionStore((path), (section), (pHash), __FILE_NAME__, __LINE__)

/* The text of a dump column: the hash's value of szKey, or "unknown(<value>)"
 * written into szBuf when the record's value had no name. */
const char *BandwidthConfDumpText(const VLIBC_SZHASH *pHash, const char *szKey, int iValue, char *szBuf,
                                  size_t cbBuf);

#endif
