/* A C11 program that includes only the public header, reads its records and
 * tables, and calls into the library. */
#include <veskbandwidth.h>

#include <stdio.h>
#include <string.h>

/* A limit record can be read through a pointer to a limit of the configuration. */
_Static_assert(offsetof(VESK_BANDWIDTH_LIMIT, szSchedulePlan) == offsetof(VESK_BANDWIDTH_CONF, szSchedulePlan),
               "limit records begin with a limit configuration");
_Static_assert(offsetof(VESK_BANDWIDTH_STATUS, pNext) == 0, "status lists link through the first field");

int main(void)
{
    VESK_BANDWIDTH_CONFIG config = {0};
    char name[256];
    int ok = VESKBandwidthEnumToName(VESK_BW_PROTOCOL_TYPE_NAMES, VESK_BW_PROTOCOL_FTP, name, sizeof name) == 1 &&
             strcmp(name, "ftp") == 0 &&
             VESKBandwidthEnumToValue(VESK_BW_OCCUPY_POLICY_NAMES, "weighted") == VESK_BW_OCCUPY_WEIGHTED &&
             VESKBandwidthSum(3, 4) == 7 && VESKBandwidthIsLessThan(5, 0) == 1 &&
             VESKBandwidthConfigGet(UID_ERR, VESK_BW_PROTOCOL_FTP, &config) == -1 &&
             VLIBCErrGet() == BW_ERR_BAD_PARAMETERS;
    VESKBandwidthConfigFree(&config);
    puts(ok ? "c11 ok" : "c11 failed");
    return ok ? 0 : 1;
}
