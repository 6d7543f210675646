// The key tables that drive the conversions between a record and its string
// hash (limit records, global records and status records), and the walkers
// that turn any such table into a hash and back.  Internal to the library.
#ifndef BANDWIDTH_PARM_H
#define BANDWIDTH_PARM_H

#include <stddef.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

// One key of a record's file form: a name table (the field is a signed 32-bit
// enumeration), a pair of converters, or neither (a text field of cbData bytes).
typedef struct _VESK_BW_PARM {
    const char *szKey;
    void *pData;
    size_t cbData;
    const VESK_BW_ENUM_ENTRY *pEnumList;
    int (*ToHashStr)(const void *private_data, char *str, size_t cbStr);
    int (*fnFromHashStr)(void *private_data, const char *str);
} VESK_BW_PARM;

// Unsigned converters: uint64_t ("%llu") and uint32_t ("%lu"); the text must
// be consumed whole, else BW_ERR_BAD_VALUE.  Their module is the limit record
// conversion, whose name their failures carry.
int ULLToHashStr(const void *private_data, char *str, size_t cbStr);
int ULLFromHashStr(void *private_data, const char *str);
int ULToHashStr(const void *private_data, char *str, size_t cbStr);
int ULFromHashStr(void *private_data, const char *str);

// The argument check of every converter: it needs its field and its text.
// A failure is logged and recorded at the converter's site.
bool BandwidthParmConverterArgsOk(const void *private_data, const char *str, VeskSite site);

// Walk a table (ended by a NULL key) from record to hash and back, logging at
// the site of the module whose table it is.  0 / -1.
int BandwidthParmTableToHash(const VESK_BW_PARM *pTable, VLIBC_SZHASH **ppHash, VeskSite site);
int BandwidthParmTableFromHash(const VESK_BW_PARM *pTable, const VLIBC_SZHASH *pHash, VeskSite site);

#endif
