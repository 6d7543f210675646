/* Section files: "[NAME]" header lines, "KEY=VALUE" pair lines, comment lines
 * beginning with '#' or ';', blank lines anywhere.  Results: negative on
 * failure, 0 when absent, positive when done. */
#ifndef VESK_FILE_H
#define VESK_FILE_H

#include <stddef.h>
#include <stdio.h>

#include "vesk_export.h"
#include "vesk_hash.h"

#ifdef __cplusplus
extern "C" {
#endif

VESK_API int VLIBCFileExist(const char *szPath);
/* Creates the file empty when missing, mode 0666 & ~umask. */
VESK_API int VLIBCFileTouch(const char *szPath);
/* Fills the hash (allocating it when *ppHash is NULL) with the section's pairs. */
VESK_API int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash);
/* Replaces the pairs of the section; 0 when the file has no such section. szReserved NULL, iFlags 0. */
VESK_API int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *szReserved,
                                 const VLIBC_SZHASH *pHash, int iFlags);
VESK_API int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags);
VESK_API int VLIBCFileRemoveSection(const char *szPath, const char *szSection);
/* Section names in file order into *ppList (allocated when NULL); their count. */
VESK_API int VLIBCFileEnumSection(const char *szPath, VLIBC_SZLIST **ppList);
/* Writes the header of szSection and one line per pair at the stream's position: 0 / -1. */
VESK_API int VLIBCFileHash2File(FILE *fp, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags);
/* Non-zero when the line (with its newline, cbLine bytes) is a section header. */
VESK_API int VLIBCIFileIsSection(const char *szLine, size_t cbLine);
/* 1 when the header line names szSection. */
VESK_API int VLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection);

#ifdef __cplusplus
}
#endif

#endif
