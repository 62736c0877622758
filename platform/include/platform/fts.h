#ifndef PLATFORM_FTS_H
#define PLATFORM_FTS_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
/* The time now as a stamp that never goes back. The library stores and compares stamps and does not
   know their unit; the default platform's are nanoseconds of the monotonic clock. */
uint64_t fts_get_stamp_fast(void);
#ifdef __cplusplus
}
#endif
#endif
