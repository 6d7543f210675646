/* Lists the fresh transfers of one status file, filtered by protocol and
 * direction and optionally merged per protocol and direction.  The same pass
 * collects the garbage of the store: sections not saved for more than 30
 * seconds, and leftover temporary files of the writer.  Stale sections are
 * removed once the file has been read, and only so many per pass: each
 * removal rewrites the whole file, so a file stuffed with dead sections costs
 * every pass a bounded time and is emptied over the following passes. */
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "status/bandwidth_status_path.h"
#include "status/bandwidth_status_scan.h"
#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"

namespace {

/* A record older than this many seconds is stale. */
const int64_t BW_STATUS_FRESH_SECONDS = 30;
/* A temporary file of the writer last modified longer ago than this is a leftover. */
const time_t BW_TEMP_FILE_MAX_AGE = 10;
/* Stale sections removed by one pass at most. */
const int BW_STALE_REMOVALS_MAX = 16;

using StatusPtr = std::unique_ptr<VESK_BANDWIDTH_STATUS, BwFree>;

/* The section names of one file; the platform may move the list, hence the
 * plain handle. */
struct SectionNames {
    VLIBC_SZLIST *p;
    explicit SectionNames(int iSize = 1024) : p(VLIBCSzListAlloc(iSize)) {}
    SectionNames(const SectionNames &) = delete;
    SectionNames &operator=(const SectionNames &) = delete;
    ~SectionNames() { VLIBCSzListFree(p); }
};

/* The enumeration's list: a copy of every record handed in, newest at the
 * head; freed unless handed over. */
class StatusList : public vesk_status::StatusVisitor {
public:
    explicit StatusList(bool blMerge) : blMerge_(blMerge) {}
    StatusList(const StatusList &) = delete;
    StatusList &operator=(const StatusList &) = delete;
    ~StatusList() { VESKBandwidthStatusListFree(&pHead_); }

    int Visit(const char *szSection, const VESK_BANDWIDTH_STATUS &status) override
    {
        if (blMerge_ && MergeInto(status)) {
            return 0;
        }
        StatusPtr copy((VESK_BANDWIDTH_STATUS *)malloc(sizeof(VESK_BANDWIDTH_STATUS)));
        if (!copy) {
            VESK_LOG("malloc VESK_BANDWIDTH_STATUS failed. key:[%s]", szSection);
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return -1;
        }
        *copy = status;
        copy->pNext = pHead_;
        pHead_ = copy.release();
        ++iCount_;
        return 0;
    }

    /* The count; the head goes to the caller only when the list is not empty. */
    int HandOver(VESK_BANDWIDTH_STATUS **ppList)
    {
        if (iCount_ > 0) {
            *ppList = pHead_;
            pHead_ = NULL;
        }
        return iCount_;
    }

private:
    /* Adds the speeds of `status` to the record of the same protocol and
     * direction; false when the list has none. */
    bool MergeInto(const VESK_BANDWIDTH_STATUS &status)
    {
        for (VESK_BANDWIDTH_STATUS *p = pHead_; NULL != p; p = p->pNext) {
            if (p->protocol_type == status.protocol_type && p->transfer_type == status.transfer_type) {
                p->current_speed = VESKBandwidthSum(p->current_speed, status.current_speed);
                p->expect_speed = VESKBandwidthSum(p->expect_speed, status.expect_speed);
                return true;
            }
        }
        return false;
    }

    bool blMerge_;
    VESK_BANDWIDTH_STATUS *pHead_ = NULL;
    int iCount_ = 0;
};

/* One pass over the sections of one status file. */
struct StatusScan {
    const char *szFile;
    int64_t llStaleBefore; /* timestamps below this are stale */
    int protocol_type;
    unsigned int transfer_type;
    vesk_status::StatusVisitor &visitor;
    BwHash &hash;                  /* reused for every section */
    VESK_BANDWIDTH_STATUS &record; /* likewise */
    SectionNames stale{BW_STALE_REMOVALS_MAX}; /* to remove after the pass */

    /* Hands section szSection to the visitor, or drops it; -1 when the
     * visitor fails. */
    int Take(const char *szSection)
    {
        VLIBCHashRemoveAll(hash.Get());
        if (VLIBCFileGetSection(szFile, szSection, hash.Addr()) <= 0) {
            VESK_LOG("Get section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szFile, VESK_ERR_ARGS);
            return 0;
        }
        memset(&record, 0, sizeof(record));
        if (VESKBandwidthInitStatusFromHash(&record, hash.Get()) < 0) {
            VESK_LOG("Init status from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
            return 0;
        }
        /* Stale sections go whatever their protocol or direction. */
        if (record.timestamp < llStaleBefore) {
            MarkStale(szSection);
        } else if (Matches(record)) {
            return visitor.Visit(szSection, record);
        }
        return 0;
    }

    bool Matches(const VESK_BANDWIDTH_STATUS &status) const
    {
        return 0 != (status.protocol_type & protocol_type) && 0 != (status.transfer_type & transfer_type);
    }

    /* A section past the limit, or whose name cannot be kept, stays in the
     * file for a later pass. */
    void MarkStale(const char *szSection)
    {
        if (VLIBCSzListCount(stale.p) < BW_STALE_REMOVALS_MAX) {
            (void)VLIBCSzListPush(&stale.p, szSection);
        }
    }

    void RemoveStale() const
    {
        const char *szSection;
        for (int i = 0; NULL != (szSection = VLIBCSzListGet(stale.p, i)); ++i) {
            if (VLIBCFileRemoveSection(szFile, szSection) < 0) {
                VESK_LOG("VLIBCFileRemoveSection failed. user:[%s], section:[%s] [0x%04X %s:%d]", szFile, szSection,
                         VESK_ERR_ARGS);
            }
        }
    }
};

/* A path with a dot is a temporary file of the writer, never a status file:
 * it is deleted once it is a leftover.  lstat, so that a symbolic link
 * planted there is judged (and removed) itself. */
void CollectTempFile(const char *szPath, time_t now)
{
    struct stat st;
    if (0 == lstat(szPath, &st) && st.st_mtime < now - BW_TEMP_FILE_MAX_AGE) {
        unlink(szPath);
    }
}

}  // namespace

int VESKBandwidthStatusGetAll(int owner_type, unsigned int id, int protocol_type, unsigned int transfer_type,
                              VESK_BANDWIDTH_STATUS **pStatusList)
{
    char szPath[BW_STATUS_PATH_SIZE] = {0};

    if (BW_STATUS_FILE_PATH(owner_type, id, szPath) < 0) {
        return -1;
    }
    return VESKBandwidthIStatusGetAll(szPath, protocol_type, transfer_type, pStatusList, 0);
}

int VESKBandwidthIStatusGetAll(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                               VESK_BANDWIDTH_STATUS **pStatusList, int blMerge)
{
    if (!VESK_ARG_OK(((void *)0) != szStatusFile) || !VESK_ARG_OK(NULL != pStatusList)) {
        return -1;
    }
    StatusList list(1 == blMerge);
    if (vesk_status::ScanStatusFile(szStatusFile, protocol_type, transfer_type, list) < 0) {
        return -1;
    }
    return list.HandOver(pStatusList);
}

int vesk_status::ScanStatusFile(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                                StatusVisitor &visitor)
{
    time_t now = time(NULL);

    if (NULL != strchr(szStatusFile, '.')) {
        CollectTempFile(szStatusFile, now);
        return 0;
    }
    if (VLIBCFileExist(szStatusFile) <= 0) {
        return 0;
    }
    SectionNames sections;
    if (NULL == sections.p) {
        return -1;
    }
    int iSections = VLIBCFileEnumSection(szStatusFile, &sections.p);
    if (iSections <= 0) {
        return iSections < 0 ? -1 : 0;
    }
    BwHash hash;
    if (!hash) {
        return -1;
    }
    VESK_BANDWIDTH_STATUS record;
    StatusScan scan{szStatusFile, (int64_t)now - BW_STATUS_FRESH_SECONDS, protocol_type, transfer_type, visitor,
                    hash, record};
    const char *szSection;
    for (int i = 0; NULL != (szSection = VLIBCSzListGet(sections.p, i)); ++i) {
        if (scan.Take(szSection) < 0) {
            return -1;
        }
    }
    scan.RemoveStale();
    return 0;
}

void VESKBandwidthStatusListFree(VESK_BANDWIDTH_STATUS **ppList)
{
    if (NULL == ppList) {
        return;
    }
    while (NULL != *ppList) {
        VESK_BANDWIDTH_STATUS *pStatus = *ppList;
        *ppList = pStatus->pNext;
        free(pStatus);
    }
}
