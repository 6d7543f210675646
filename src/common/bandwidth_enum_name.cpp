// The name of an enumeration value as the files store it.
#include "bandwidth_enum_name.h"

bool BandwidthEnumName(const VESK_BW_ENUM_ENTRY *pTable, int iValue, char *szName, size_t cbName)
{
    szName[0] = '\0';
    return VESKBandwidthEnumToName(pTable, iValue, szName, (int)cbName) >= 1 && '\0' != szName[0];
}
