/* A C11 program that includes only the public header, reads its records and
 * tables, and calls into the library. */
#include <veskbandwidth.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    VESK_BANDWIDTH_CONFIG config;
    VESK_BANDWIDTH_STATUS status;
    char name[256];
    memset(&config, 0, sizeof config);
    memset(&status, 0, sizeof status);

    /* A limit record can be read through a pointer to a limit of the configuration. */
    _Static_assert(offsetof(VESK_BANDWIDTH_LIMIT, szSchedulePlan) == offsetof(VESK_BANDWIDTH_CONF, szSchedulePlan),
                   "limit records begin with a limit configuration");
    _Static_assert(offsetof(VESK_BANDWIDTH_STATUS, pNext) == 0, "status lists link through the first field");

    if (VESKBandwidthEnumToName(VESK_BW_PROTOCOL_TYPE_NAMES, VESK_BW_PROTOCOL_FTP, name, sizeof name) != 1 ||
        strcmp(name, "ftp") != 0) {
        fprintf(stderr, "protocol name lookup failed\n");
        return 1;
    }
    if (VESKBandwidthEnumToValue(VESK_BW_OCCUPY_POLICY_NAMES, "weighted") != VESK_BW_OCCUPY_WEIGHTED) {
        fprintf(stderr, "occupy policy lookup failed\n");
        return 1;
    }
    if (VESKBandwidthSum(3, 4) != 7 || VESKBandwidthIsLessThan(5, 0) != 1) {
        fprintf(stderr, "arithmetic failed\n");
        return 1;
    }
    if (VESKBandwidthConfigGet(UID_ERR, VESK_BW_PROTOCOL_FTP, &config) != -1 ||
        VLIBCErrGet() != BW_ERR_BAD_PARAMETERS) {
        fprintf(stderr, "argument check failed\n");
        return 1;
    }
    VESKBandwidthConfigFree(&config);
    puts("c11 ok");
    return 0;
}
