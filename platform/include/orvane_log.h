/*
 * Platform log mask: one 32-bit global that every process on the device shares through
 * the platform's logging library. Each diagnostic level has one bit; a line is emitted
 * only when its bit is set. Any process (the daemon, a test, a client) may change it.
 *
 * This stand-in provides the global with the platform's default (error, warning and
 * information enabled). On the device the platform's own library replaces it.
 */
#ifndef ORVANE_LOG_H
#define ORVANE_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ORVANE_LOG_ERROR   0x2000000u
#define ORVANE_LOG_WARNING 0x1000000u
#define ORVANE_LOG_INFO    0x0800000u
#define ORVANE_LOG_DEBUG   0x0008000u
#define ORVANE_LOG_PERF    0x0000020u

extern uint32_t g_orvane_log_mask;

#ifdef __cplusplus
}
#endif

#endif
