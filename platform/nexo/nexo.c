/* Event bus stand-in over D-Bus: see nexo.h for the behaviour. */
#define _GNU_SOURCE
#include "nexo.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <systemd/sd-bus.h>

struct NexoHandleStruct {
    pthread_mutex_t lock; /* sd-bus connections are not thread-safe */
    sd_bus* bus;          /* GUARDED_BY(lock) */
};

NexoHandleStruct* NexoOpen(NexoBus which) {
    if (which == NEXO_BUS_DEFAULT)
        which = getenv("DBUS_SESSION_BUS_ADDRESS") != NULL ? NEXO_BUS_SESSION : NEXO_BUS_SYSTEM;
    if (which != NEXO_BUS_SESSION && which != NEXO_BUS_SYSTEM) {
        errno = EINVAL;
        return NULL;
    }
    sd_bus* bus = NULL;
    const int r = which == NEXO_BUS_SESSION ? sd_bus_open_user(&bus) : sd_bus_open_system(&bus);
    if (r < 0) {
        errno = -r;
        return NULL;
    }
    NexoHandleStruct* h = calloc(1, sizeof(*h));
    if (h == NULL) {
        sd_bus_unref(bus);
        errno = ENOMEM;
        return NULL;
    }
    pthread_mutex_init(&h->lock, NULL);
    h->bus = bus;
    return h;
}

void NexoClose(NexoHandleStruct* h) {
    if (h == NULL) return;
    /* Whatever is still queued goes out before the connection closes. */
    sd_bus_flush_close_unref(h->bus);
    pthread_mutex_destroy(&h->lock);
    free(h);
}

int NexoCreateAndSendEventWithParameters(NexoHandleStruct* h, const char* event,
                                         const char* format, ...) {
    if (h == NULL || event == NULL || format == NULL) return EINVAL;
    char* params = NULL;
    va_list ap;
    va_start(ap, format);
    const int len = vasprintf(&params, format, ap);
    va_end(ap);
    if (len < 0) return ENOMEM;

    pthread_mutex_lock(&h->lock);
    sd_bus_message* m = NULL;
    int r = sd_bus_message_new_signal(h->bus, &m, NEXO_OBJECT_PATH, NEXO_INTERFACE, NEXO_MEMBER);
    if (r >= 0) r = sd_bus_message_append(m, "ss", event, params);
    if (r >= 0) r = sd_bus_send(h->bus, m, NULL);
    /* Nothing else drives this connection: push the signal out now. */
    if (r >= 0) r = sd_bus_flush(h->bus);
    pthread_mutex_unlock(&h->lock);

    sd_bus_message_unref(m);
    free(params);
    return r < 0 ? -r : 0;
}
