/* nubcl_ev.h - the product's event loop: each thread has its own loop, which ends with it and needs no descriptor.
 *
 * Loop and timer functions act on the calling thread's loop; a timer belongs to the thread that started it.
 */
#ifndef TARN_PLATFORM_NUBCL_EV_H
#define TARN_PLATFORM_NUBCL_EV_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts a joinable thread in which every signal is blocked, so that no handler of the host runs on it. flags is
 * reserved (0). Returns 0 or an errno value (*thread is then undefined). An exception that leaves entry ends the
 * process. */
int cl_ev_create_isolated_thread(pthread_t *thread, int flags, void *(*entry)(void *), void *arg);

/* on != 0: the next turns of this thread's loop do not wait; 0 (as at first): a turn waits for the next timer. */
void cl_ev_loop_nowait(int on);

/* Runs one turn of this thread's loop; due timer callbacks run inside it. Returns at once when there is no timer, and
 * does nothing inside a callback. */
void cl_event_loop_once(void);

/* The number of callbacks due now on this thread's loop. */
int cl_ev_cb_count(void);

/* The public head of the timer record; the rest belongs to the library. */
typedef struct cl_timerplus {
    void *userData;
} cl_timerplus;

typedef void (*cl_timerplus_cb)(cl_timerplus *timer);

/* Starts a repeating timer; its first callback comes after periodMs milliseconds (1 or more). Callbacks that were
 * missed while no turn ran are not made up for. Returns NULL on failure. flags and the reserved arguments are 0. */
cl_timerplus *cl_timerplus_start(int flags, uint64_t periodMs, cl_timerplus_cb callback, void *userData, int reserved0,
                                 int reserved1);

/* Stops the timer; its callback does not run any more. Null, and a timer of another thread, is ignored. */
void cl_timerplus_stop(cl_timerplus *timer);

/* Stops and frees a timer, from its own callback too. Null, and a timer of another thread, is ignored. Timers that are
 * still there when their thread ends are freed with its loop. */
void cl_timerplus_close(cl_timerplus *timer);

#ifdef __cplusplus
}
#endif

#endif
