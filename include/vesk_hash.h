/* String hash (text to text, insertion order kept) and string list. */
#ifndef VESK_HASH_H
#define VESK_HASH_H

#include "vesk_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _VLIBC_SZHASH VLIBC_SZHASH;

/* A new empty hash; iSize is a hint of the number of pairs to come. NULL on failure. */
VESK_API VLIBC_SZHASH *VLIBCSzHashAlloc(int iSize);
VESK_API void VLIBCSzHashFree(VLIBC_SZHASH *pHash); /* NULL accepted */
/* Stores copies of both texts; a new value for a key keeps the key's place.
 * The handle may be replaced, so its address is passed. <0 on failure. */
VESK_API int VLIBCSzHashSetValue(VLIBC_SZHASH **ppHash, const char *szKey, const char *szValue);
VESK_API const char *VLIBCSzHashGetValue(const VLIBC_SZHASH *pHash, const char *szKey); /* NULL when absent */
VESK_API int VLIBCHashRemoveAll(VLIBC_SZHASH *pHash);
VESK_API int VLIBCSzHashCount(const VLIBC_SZHASH *pHash);
VESK_API const char *VLIBCSzHashKeyAt(const VLIBC_SZHASH *pHash, int i); /* insertion order */
VESK_API const char *VLIBCSzHashValueAt(const VLIBC_SZHASH *pHash, int i);

typedef struct _VLIBC_SZLIST VLIBC_SZLIST;

VESK_API VLIBC_SZLIST *VLIBCSzListAlloc(int iSize);
VESK_API void VLIBCSzListFree(VLIBC_SZLIST *pList);                  /* NULL accepted */
VESK_API int VLIBCSzListPush(VLIBC_SZLIST **ppList, const char *sz); /* <0 failure */
VESK_API int VLIBCSzListCount(const VLIBC_SZLIST *pList);
VESK_API const char *VLIBCSzListGet(const VLIBC_SZLIST *pList, int i); /* NULL out of range */

#ifdef __cplusplus
}
#endif

#endif
