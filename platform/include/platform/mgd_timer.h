#ifndef PLATFORM_MGD_TIMER_H
#define PLATFORM_MGD_TIMER_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct mgd_timer mgd_timer_t;              /* opaque; slots 0, 2 and 3 of the global block hold such pointers */
typedef struct mgd_timer_duration { uint32_t seconds; uint32_t fraction; } mgd_timer_duration_t;   /* the library always passes fraction 0 */
mgd_timer_t *mgd_timer_leaf_new(mgd_timer_t *parent, uint64_t context, uint32_t zero1, uint32_t zero2);   /* null = failure */
void mgd_timer_leaf_start(mgd_timer_t *timer, mgd_timer_duration_t duration);   /* duration by value */
void mgd_timer_leaf_stop(mgd_timer_t *timer);
int  mgd_timer_leaf_running(mgd_timer_t *timer);   /* non-zero = running; never called with null */
#ifdef __cplusplus
}
#endif
#endif
