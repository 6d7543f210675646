// Steps shared by the readers, writers and dumps of the configuration files.
// Internal to the library.  Helpers that log take their caller's site, so
// that every message names the module that asked.
#ifndef BANDWIDTH_CONF_STORE_H
#define BANDWIDTH_CONF_STORE_H

#include <stddef.h>

#include "common/bandwidth_handles.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

// Directory of every configuration file.
constexpr char kConfDir[] = "/usr/vesk/etc/bandwidth/";

// Buffer sizes of names, section names and paths.
constexpr size_t kConfNameSize = 256;
constexpr size_t kConfSectionSize = 512;
constexpr size_t kConfPathSize = 4096;

// Reads a section of a configuration file into the hash: 1 read, 0 when the
// file or the section does not exist, -1 on failure (logged).
int BandwidthConfSectionLoad(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash, VeskSite site);

// Reads a section and converts it into the record with fnFromHash: 0 also
// when there is nothing to read (the record keeps what it holds), -1 on
// failure (logged).
template <typename Record>
int BandwidthConfSectionRead(const char *szPath, const char *szSection, BwHash &hash,
                             int (*fnFromHash)(Record *, const VLIBC_SZHASH *), Record *pRecord, VeskSite site)
{
    int ret = BandwidthConfSectionLoad(szPath, szSection, hash.Addr(), site);
    if (ret <= 0) {
        return ret;
    }
    if (fnFromHash(pRecord, hash.Get()) < 0) {
        VESK_LOG_AT(site, "Init conf from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// Fills a freshly allocated hash from a record with fnToHash: 0, or -1
// (logged) when the allocation or the conversion failed.
template <typename Record>
int BandwidthConfHashFill(BwHash &hash, int (*fnToHash)(VLIBC_SZHASH **, const Record *), const Record *pRecord,
                          VeskSite site)
{
    if (!hash) {
        VESK_LOG_AT(site, "VLIBCSzHashAlloc failed.[0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    if (fnToHash(hash.Addr(), pRecord) < 0) {
        VESK_LOG_AT(site, "Init hash from conf failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// Stores the hash as a section of a configuration file, creating the
// configuration directory and the file when missing, and replacing an earlier
// section of that name or appending a new one: 0, or -1 on failure (logged).
int BandwidthConfSectionStore(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, VeskSite site);

// The text of a dump column: the hash's value of szKey, or "unknown(<value>)"
// written into szBuf when the record's value had no name.
const char *BandwidthConfDumpText(const VLIBC_SZHASH *pHash, const char *szKey, int iValue, char *szBuf, size_t cbBuf);

#endif
