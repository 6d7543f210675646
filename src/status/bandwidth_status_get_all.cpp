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

/* The list being built, newest record at the head; freed unless handed over. */
class StatusList {
public:
    StatusList() = default;
    StatusList(const StatusList &) = delete;
    StatusList &operator=(const StatusList &) = delete;
    ~StatusList() { VESKBandwidthStatusListFree(&pHead_); }

    void Push(StatusPtr status)
    {
        status->pNext = pHead_;
        pHead_ = status.release();
        ++iCount_;
    }

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
    VESK_BANDWIDTH_STATUS *pHead_ = NULL;
    int iCount_ = 0;
};

/* One pass over the sections of one status file. */
struct StatusScan {
    const char *szFile;
    int64_t llStaleBefore; /* timestamps below this are stale */
    int protocol_type;
    unsigned int transfer_type;
    bool blMerge;
    BwHash &hash; /* reused for every section */
    StatusList list;
    SectionNames stale{BW_STALE_REMOVALS_MAX}; /* to remove after the pass */

    /* Takes section szSection into the list, or drops it; -1 only when a
     * record cannot be allocated. */
    int Take(const char *szSection)
    {
        VLIBCHashRemoveAll(hash.Get());
        if (VLIBCFileGetSection(szFile, szSection, hash.Addr()) <= 0) {
            VESK_LOG("Get section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szFile, VESK_ERR_ARGS);
            return 0;
        }
        StatusPtr status((VESK_BANDWIDTH_STATUS *)calloc(1, sizeof(VESK_BANDWIDTH_STATUS)));
        if (!status) {
            VESK_LOG("malloc VESK_BANDWIDTH_STATUS failed. key:[%s]", szSection);
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return -1;
        }
        if (VESKBandwidthInitStatusFromHash(status.get(), hash.Get()) < 0) {
            VESK_LOG("Init status from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
            return 0;
        }
        /* Stale sections go whatever their protocol or direction. */
        if (status->timestamp < llStaleBefore) {
            MarkStale(szSection);
        } else if (Matches(*status) && !(blMerge && list.MergeInto(*status))) {
            list.Push(std::move(status));
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
    time_t now = time(NULL);

    if (!VESK_ARG_OK(((void *)0) != szStatusFile) || !VESK_ARG_OK(NULL != pStatusList)) {
        return -1;
    }
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
    StatusScan scan{szStatusFile, (int64_t)now - BW_STATUS_FRESH_SECONDS, protocol_type, transfer_type,
                    1 == blMerge, hash, {}};
    const char *szSection;
    for (int i = 0; NULL != (szSection = VLIBCSzListGet(sections.p, i)); ++i) {
        if (scan.Take(szSection) < 0) {
            return -1;
        }
    }
    scan.RemoveStale();
    return scan.list.HandOver(pStatusList);
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
