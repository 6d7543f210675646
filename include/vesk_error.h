/* Per-thread error state of the platform, and the error codes that the
 * platform and the bandwidth library share. */
#ifndef VESK_ERROR_H
#define VESK_ERROR_H

#include "vesk_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BW_ERR_OUT_OF_MEMORY     0x0200
#define BW_ERR_DEACTIVATED       0x0300
#define BW_ERR_GLOB_FAILED       0x0600
#define BW_ERR_FILE_OPEN         0x0900
#define BW_ERR_FILE_READ         0x0A00
#define BW_ERR_FILE_WRITE        0x0B00
#define BW_ERR_BAD_PARAMETERS    0x0D00
#define BW_ERR_NOT_FOUND         0x2000
#define BW_ERR_STAT_FAILED       0x2700
#define BW_ERR_RENAME_FAILED     0x2800
#define BW_ERR_BAD_VALUE         0x4000
#define BW_ERR_ADDON_AMBIGUOUS   0xA300
#define BW_ERR_ADDON_BAD_PATH    0xBE00
#define BW_ERR_UNKNOWN_CONF_TYPE 0xD900

/* Records the error code with the file name and line that detected it. */
VESK_API void VLIBCErrSetEx(int iCode, const char *szFile, int iLine);
/* The last code set in this thread (0 when none was ever set). */
VESK_API int VLIBCErrGet(void);
/* File name and line of the last code set in this thread ("" and 0 when none). */
VESK_API const char *VLIBCErrorGetFile(void);
VESK_API int VLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif

#endif
