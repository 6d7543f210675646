/* Symbol visibility of the platform and bandwidth libraries: everything is
 * built hidden by default, and only declarations marked VESK_API are exported. */
#ifndef VESK_EXPORT_H
#define VESK_EXPORT_H

#if defined(__GNUC__)
#define VESK_API __attribute__((visibility("default")))
#else
#define VESK_API
#endif

#endif
