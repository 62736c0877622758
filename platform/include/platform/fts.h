#ifndef PLATFORM_FTS_H
#define PLATFORM_FTS_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
uint64_t fts_get_stamp_fast(void);                 /* current time stamp */
#ifdef __cplusplus
}
#endif
#endif
