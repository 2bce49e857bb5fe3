/*
 * Device metrics: counters that a program reports to the device's metrics service,
 * identified by program, source and metric name.
 *
 * record_device_metric() records count occurrences of metric `name`, raised by
 * `source` inside `program`. The three trailing integers are reserved for the
 * platform's own use; callers pass 0. Returns 0 when the metric was recorded.
 * Safe to call from any thread; it does not block for long.
 *
 * This stand-in writes one syslog line per call (priority notice):
 *   "metric program=<program> source=<source> name=<name> count=<count>"
 * On the device the platform's own metrics library replaces it.
 */
#ifndef DEVICE_METRICS_H
#define DEVICE_METRICS_H

#ifdef __cplusplus
extern "C" {
#endif

int record_device_metric(const char* program, const char* source, const char* name,
                         int count, int reserved1, int reserved2, int reserved3);

#ifdef __cplusplus
}
#endif

#endif
