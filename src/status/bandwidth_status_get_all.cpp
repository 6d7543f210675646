// Lists the fresh transfers of one status file, filtered by protocol and
// direction and optionally merged per protocol and direction.  The same pass
// collects the garbage of the store: sections saved more than 30 seconds ago
// (or dated more than 30 seconds ahead, which no clock step explains), and
// leftover temporary files of the writers.  The stale sections of a file go
// in one rewrite after it has been read, whatever their number; a file over
// the bounds of a read is healed by the same rewrite.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "status/bandwidth_status_file.h"
#include "status/bandwidth_status_path.h"
#include "status/bandwidth_status_scan.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// A temporary file of the writer last modified longer ago than this is a leftover.
constexpr time_t kTemporaryMaxAge = 10;

using StatusPtr = std::unique_ptr<VESK_BANDWIDTH_STATUS, BwFree>;

// The enumeration's list: a copy of every record handed in, newest at the
// head; freed unless handed over.
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
        StatusPtr copy(static_cast<VESK_BANDWIDTH_STATUS *>(malloc(sizeof(VESK_BANDWIDTH_STATUS))));
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

    // The count; the head goes to the caller only when the list is not empty.
    int HandOver(VESK_BANDWIDTH_STATUS **ppList)
    {
        if (iCount_ > 0) {
            *ppList = pHead_;
            pHead_ = nullptr;
        }
        return iCount_;
    }

private:
    // Adds the speeds of `status` to the record of the same protocol and
    // direction; false when the list has none.
    bool MergeInto(const VESK_BANDWIDTH_STATUS &status)
    {
        for (VESK_BANDWIDTH_STATUS *p = pHead_; p != nullptr; p = p->pNext) {
            if (p->protocol_type == status.protocol_type && p->transfer_type == status.transfer_type) {
                p->current_speed = VESKBandwidthSum(p->current_speed, status.current_speed);
                p->expect_speed = VESKBandwidthSum(p->expect_speed, status.expect_speed);
                return true;
            }
        }
        return false;
    }

    bool blMerge_;
    VESK_BANDWIDTH_STATUS *pHead_ = nullptr;
    int iCount_ = 0;
};

// One pass over the sections of one status file.
class StatusScan {
public:
    StatusScan(const char *szFile, time_t now, int protocol_type, unsigned int transfer_type,
               vesk_status::StatusVisitor &visitor)
        : szFile_(szFile), now_(now), protocol_type_(protocol_type), transfer_type_(transfer_type), visitor_(visitor)
    {
    }

    // Hands the section to the visitor, or drops it; -1 when the visitor fails.
    int Take(const vesk_section::SectionFile &file, const vesk_section::Section &section)
    {
        const std::string name(section.name);
        VLIBCHashRemoveAll(hash_.Get());
        if (!hash_ || file.FillHash(section, hash_.Addr()) != 0) {
            VESK_LOG("Get section [%s] from [%s] failed. [0x%04X %s:%d]", name.c_str(), szFile_, VESK_ERR_ARGS);
            return 0;
        }
        memset(&record_, 0, sizeof(record_));
        if (VESKBandwidthInitStatusFromHash(&record_, hash_.Get()) < 0) {
            VESK_LOG("Init status from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
            return 0;
        }
        // Stale sections go whatever their protocol or direction.
        if (!vesk_status::IsFresh(record_.timestamp, now_)) {
            stale_.push_back(name);
        } else if ((record_.protocol_type & protocol_type_) != 0 && (record_.transfer_type & transfer_type_) != 0) {
            return visitor_.Visit(name.c_str(), record_);
        }
        return 0;
    }

    // Removes the stale sections, and stores a heal, in one rewrite.
    void Collect(const vesk_section::Dir &dir, const char *szName, bool blHealed) const
    {
        if ((stale_.empty() && !blHealed) || vesk_status::RemoveStatusSections(dir, szName, stale_) >= 0) {
            return;
        }
        // The message names the platform call that removed one section at a time.
        for (const std::string &section : stale_) {
            VESK_LOG("VLIBCFileRemoveSection failed. user:[%s], section:[%s] [0x%04X %s:%d]", szFile_, section.c_str(),
                     VESK_ERR_ARGS);
        }
    }

private:
    const char *szFile_;
    const time_t now_;
    const int protocol_type_;
    const unsigned int transfer_type_;
    vesk_status::StatusVisitor &visitor_;
    BwHash hash_;                     // reused for every section
    VESK_BANDWIDTH_STATUS record_;    // likewise
    std::vector<std::string> stale_;  // removed after the pass
};

// A path with a dot is a temporary file of the writer, never a status file:
// it is deleted once it is a leftover.  Judged without following a link, so
// that a link planted there is judged (and removed) itself.
void CollectTempFile(const vesk_section::Dir &dir, const char *szName, time_t now)
{
    struct stat st;
    if (fstatat(dir.Fd(), szName, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_mtime < now - kTemporaryMaxAge) {
        unlinkat(dir.Fd(), szName, 0);
    }
}

// True for a path in the status directory.
bool InStatusDir(const char *szPath)
{
    return strncmp(szPath, kStatusDir, sizeof(kStatusDir) - 1) == 0 &&
           strchr(szPath + sizeof(kStatusDir) - 1, '/') == nullptr;
}

}  // namespace

int VESKBandwidthStatusGetAll(int owner_type, unsigned int id, int protocol_type, unsigned int transfer_type,
                              VESK_BANDWIDTH_STATUS **pStatusList)
{
    char szPath[kStatusPathSize] = {0};

    if (BandwidthStatusFilePath(owner_type, id, szPath, sizeof(szPath), VESK_SITE) < 0) {
        return -1;
    }
    return VESKBandwidthIStatusGetAll(szPath, protocol_type, transfer_type, pStatusList, 0);
}

int VESKBandwidthIStatusGetAll(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                               VESK_BANDWIDTH_STATUS **pStatusList, int blMerge)
{
    if (!VESK_ARG_CHECK(szStatusFile != nullptr, "((void *)0) != szStatusFile") ||
        !VESK_ARG_CHECK(pStatusList != nullptr, "NULL != pStatusList")) {
        return -1;
    }
    StatusList list(blMerge == 1);
    if (vesk_status::ScanStatusFile(szStatusFile, protocol_type, transfer_type, list) < 0) {
        return -1;
    }
    return list.HandOver(pStatusList);
}

int vesk_status::ScanStatusFile(const char *szStatusFile, int protocol_type, unsigned int transfer_type,
                                StatusVisitor &visitor)
{
    const time_t now = time(nullptr);
    try {
        vesk_section::Dir dir;
        std::string name;
        if (!dir.OpenParent(szStatusFile, &name)) {
            return 0;  // no directory, no file
        }
        if (strchr(szStatusFile, '.') != nullptr) {
            CollectTempFile(dir, name.c_str(), now);
            return 0;
        }
        StatusFile status;
        int iCode = LoadStatusFile(VESK_SITE, dir, name.c_str(), now, &status);
        if (iCode == BW_ERR_OUT_OF_MEMORY) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        if (iCode != 0) {
            // One bad file must not stop the transfers that count it, nor a listing of them all.
            if (errno != ENOENT) {
                VESK_LOG("Status file [%s] cannot be read; it is skipped. %m", szStatusFile);
            }
            return 0;
        }
        if (InStatusDir(szStatusFile)) {
            CollectTemporaries(dir, now);
        }
        StatusScan scan(szStatusFile, now, protocol_type, transfer_type, visitor);
        for (const vesk_section::Section *pSection : status.file->Distinct()) {
            if (scan.Take(*status.file, *pSection) < 0) {
                return -1;
            }
        }
        scan.Collect(dir, name.c_str(), status.blHealed);
        return 0;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

void VESKBandwidthStatusListFree(VESK_BANDWIDTH_STATUS **ppList)
{
    if (ppList == nullptr) {
        return;
    }
    while (*ppList != nullptr) {
        VESK_BANDWIDTH_STATUS *pStatus = *ppList;
        *ppList = pStatus->pNext;
        free(pStatus);
    }
}
