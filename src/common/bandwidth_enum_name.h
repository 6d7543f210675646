// The name of an enumeration value as the files store it.  Internal to the
// library.
#ifndef BANDWIDTH_ENUM_NAME_H
#define BANDWIDTH_ENUM_NAME_H

#include <stddef.h>

#include "veskbandwidth.h"

// The name of iValue in a name table, add-on protocols included, into szName
// (cbName bytes): true when found and not empty.  Logs only what the lookup
// itself logs.
bool BandwidthEnumName(const VESK_BW_ENUM_ENTRY *pTable, int iValue, char *szName, size_t cbName);

#endif
