/* One-shot timers. What an expiry does is between the platform and its host. */
#ifndef PLATFORM_MGD_TIMER_H
#define PLATFORM_MGD_TIMER_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct mgd_timer mgd_timer_t; /* opaque; global slots 0, 2 and 3 */
typedef struct mgd_timer_duration {
    uint32_t seconds;
    uint32_t fraction; /* of a second, in units of 2^-32; the library passes 0 */
} mgd_timer_duration_t;

/* A timer under parent (slot 0 of the global block) that does not run yet; context (slot 1) comes
   back when it expires. The library never frees one. Null = failure. */
mgd_timer_t *mgd_timer_leaf_new(mgd_timer_t *parent, uint64_t context, uint32_t zero1,
                                uint32_t zero2);

/* Lets the timer run for the duration from now; anew when it is running. */
void mgd_timer_leaf_start(mgd_timer_t *timer, mgd_timer_duration_t duration);

/* Ends the run without an expiry; harmless when the timer does not run. */
void mgd_timer_leaf_stop(mgd_timer_t *timer);

/* Non-zero from start to stop or to the end of the expiry. Never called with null. */
int mgd_timer_leaf_running(mgd_timer_t *timer);
#ifdef __cplusplus
}
#endif
#endif
