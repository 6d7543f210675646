// Replaces or removes sections of a status file: the file is read, changed in
// memory and written to a temporary file beside it, which is synced and then
// moved over the old file, so a reader sees either the old file or the new one.
#include <time.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "status/bandwidth_status_file.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// Which sections a rewrite touches.
using Touched = std::function<bool(std::string_view)>;

// Replaces the touched sections by the pairs of pHash under the name
// szSection, or removes them when szSection is nullptr.
int StatusFileRewrite(const vesk_section::Dir &dir, const char *szName, const Touched &touched, const char *szSection,
                      const VLIBC_SZHASH *pHash)
{
    try {
        vesk_status::StatusFile status;
        int iCode = vesk_status::LoadStatusFile(VESK_SITE, dir, szName, time(nullptr), &status);
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        const auto &present = status.file->Distinct();
        bool blFound = std::any_of(present.begin(), present.end(), [&](const auto *p) { return touched(p->name); });
        // The new pairs go where the section was: nothing is written when it is not there.
        std::string replacement;
        if (blFound && szSection != nullptr && vesk_status::SectionText(szSection, pHash, &replacement) != 0) {
            return -1;
        }
        iCode = vesk_section::ReplaceFile(dir, szName, status.file->Rewritten(touched, replacement), status.st.st_mode);
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        if (!blFound) {
            VESK_ERR_SET(BW_ERR_NOT_FOUND);
        }
        return blFound ? 1 : 0;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Touches the sections of one name.
Touched Named(const char *szSection)
{
    return [szSection](std::string_view section) { return section == szSection; };
}

// The public faces: the section of the file at the path, replaced by the
// pairs (blReplace) or removed.
int StatusPathRewrite(const char *szFile, const char *szSection, bool blReplace, const VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_CHECK(szFile != nullptr, "((void *)0) != szFile") ||
        !VESK_ARG_CHECK(szSection != nullptr, "NULL != szSection")) {
        return -1;
    }
    return vesk_status::AtPath(VESK_SITE, szFile, [&](const vesk_section::Dir &dir, const char *szName) {
        return StatusFileRewrite(dir, szName, Named(szSection), blReplace ? szSection : nullptr, pHash);
    });
}

}  // namespace

int vesk_status::ReplaceStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection,
                                      const VLIBC_SZHASH *pHash)
{
    return StatusFileRewrite(dir, szName, Named(szSection), szSection, pHash);
}

int vesk_status::RemoveStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection)
{
    return StatusFileRewrite(dir, szName, Named(szSection), nullptr, nullptr);
}

int vesk_status::RemoveStatusSections(const vesk_section::Dir &dir, const char *szName,
                                      const std::vector<std::string> &sections)
{
    return StatusFileRewrite(
        dir, szName,
        [&sections](std::string_view section) {
            return std::find(sections.begin(), sections.end(), section) != sections.end();
        },
        nullptr, nullptr);
}

int VESKBandwidthStatusSetSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash)
{
    return StatusPathRewrite(szFile, szSection, true, pHash);
}

int VESKBandwidthStatusRemoveSection(const char *szFile, const char *szSection)
{
    return StatusPathRewrite(szFile, szSection, false, nullptr);
}
