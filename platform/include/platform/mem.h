#ifndef PLATFORM_MEM_H
#define PLATFORM_MEM_H
#include <stddef.h>
#ifdef __cplusplus
extern "C" {
#endif
/* A heap copy of length bytes, to be released with free(). The library never asks for 0 bytes.
   Null = out of memory. */
void *memdup(const void *bytes, size_t length);
#ifdef __cplusplus
}
#endif
#endif
