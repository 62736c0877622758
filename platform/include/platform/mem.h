#ifndef PLATFORM_MEM_H
#define PLATFORM_MEM_H
#include <stddef.h>
#ifdef __cplusplus
extern "C" {
#endif
void *memdup(const void *bytes, size_t length);    /* malloc'd copy (free with free()); null = out of memory; the library never calls it with length 0 */
#ifdef __cplusplus
}
#endif
#endif
