// The status store's files, shared by its modules.  Internal to the library.
//
// Every local user can write to the status directory and to every status
// file, so nothing read from them is trusted: a status file is read up to a
// bound of bytes and of sections; one that holds more is healed, keeping only
// its fresh sections that convert, so that no planted file makes a pass or an
// enumeration cost more than the bound.  Every name is opened, created,
// renamed and removed relative to the status directory opened once per
// operation, never through a symbolic link, and a rewrite gives the new file
// only the read and write bits of the old one.
#ifndef BANDWIDTH_STATUS_FILE_H
#define BANDWIDTH_STATUS_FILE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <time.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "section/section_io.h"
#include "section/section_text.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace vesk_status {

// A record saved longer ago than this, or further ahead of the clock, is stale.
constexpr int64_t kFreshSeconds = 30;
// What one operation reads of a status file at most.
constexpr size_t kMaxFileBytes = 1024 * 1024;
constexpr size_t kMaxSections = 512;

inline bool IsFresh(int64_t timestamp, int64_t now)
{
    return now - timestamp <= kFreshSeconds && timestamp - now <= kFreshSeconds;
}

// Opens the status directory for one operation; the site names the caller in
// what is logged.  1 open, 0 absent (created first when blCreate), -1 failure
// (logged, code set): something other than a directory is there that cannot
// be replaced, or a symbolic link, which is never followed.
int OpenStatusDir(VeskSite site, bool blCreate, vesk_section::Dir *pDir);

// Runs `change` on the directory (opened never through a link at its path)
// and the name of the file at szPath: its result, or -1 with
// BW_ERR_FILE_OPEN (recorded at the site) when the directory cannot be
// opened, or BW_ERR_OUT_OF_MEMORY.
int AtPath(VeskSite site, const char *szPath,
           const std::function<int(const vesk_section::Dir &dir, const char *szName)> &change);

// A status file as one operation reads it.
struct StatusFile {
    std::unique_ptr<vesk_section::SectionFile> file;
    struct stat st = {};
    bool blHealed = false;  // it held too much: `file` keeps what a heal keeps
};

// Reads the regular file `name` of the directory (or an open descriptor of
// it), never through a link.  A file of more than kMaxFileBytes or
// kMaxSections sections is healed in memory: of its first kMaxSections
// sections, the whole ones that convert and are fresh stay.  0, or the error
// code (BW_ERR_FILE_OPEN with errno ENOENT when it is absent).
int LoadStatusFile(VeskSite site, const vesk_section::Dir &dir, const char *szName, time_t now, StatusFile *pFile);
int LoadOpenStatusFile(VeskSite site, int fd, const char *szName, time_t now, StatusFile *pFile);

// The text of a section as the platform writes it: 0, or the platform's
// result (its code left) when it cannot be written.
int SectionText(const char *szSection, const VLIBC_SZHASH *pHash, std::string *pText);

// Replaces every section named szSection by the pairs of pHash, or removes
// the sections named `sections`; a file over the bounds is healed by the same
// rewrite.  1 when one was found, 0 when none was (the file is rewritten all
// the same; BW_ERR_NOT_FOUND), -1 failure (code set).
int ReplaceStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection,
                         const VLIBC_SZHASH *pHash);
int RemoveStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection);
int RemoveStatusSections(const vesk_section::Dir &dir, const char *szName, const std::vector<std::string> &sections);

// Appends the section unless the file has one of that name; the file is
// created when missing.  1 appended, 0 present, -1 failure (code set, or
// none for a read error), or the platform's result when the section cannot
// be written.
int AppendStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection,
                        const VLIBC_SZHASH *pHash);

// Removes the temporary files that killed writers left in the status
// directory more than 10 seconds ago; at most once per 10 seconds in a
// process, however often it is called.
void CollectTemporaries(const vesk_section::Dir &dir, time_t now);

}  // namespace vesk_status

#endif
