/* The key table that drives the conversions between a record and its string
 * hash (limit records, global records and status records). Internal. */
#ifndef BANDWIDTH_PARM_H
#define BANDWIDTH_PARM_H

#include <stddef.h>

#include "veskbandwidth.h"

/* One key of a record's file form: a name table (the field is a signed 32-bit
 * enumeration), a pair of converters, or neither (a text field of cbData bytes). */
typedef struct _VESK_BW_PARM {
    const char *szKey;
    void *pData;
    size_t cbData;
    const VESK_BW_ENUM_ENTRY *pEnumList;
    int (*ToHashStr)(const void *private_data, char *str, size_t cbStr);
    int (*fnFromHashStr)(void *private_data, const char *str);
} VESK_BW_PARM;

/* Unsigned converters: uint64_t ("%llu") and uint32_t ("%lu"); the text must
 * be consumed whole, else BW_ERR_BAD_VALUE. */
int ULLToHashStr(const void *private_data, char *str, size_t cbStr);
int ULLFromHashStr(void *private_data, const char *str);
int ULToHashStr(const void *private_data, char *str, size_t cbStr);
int ULFromHashStr(void *private_data, const char *str);

/* Walk a table (ended by a NULL key) from record to hash and back, logging as
 * the module szFile.  0 / -1. */
int VESKBandwidthParmTableToHash(const VESK_BW_PARM *pTable, VLIBC_SZHASH **ppHash, const char *szFile);
int VESKBandwidthParmTableFromHash(const VESK_BW_PARM *pTable, const VLIBC_SZHASH *pHash, const char *szFile);

#endif
