/*
 * Event bus: processes announce named events, each with a parameter text, to whoever
 * listens on the bus.
 *
 * This is the development stand-in with the device platform's calling interface; on
 * the device the platform's own event-bus library replaces it.
 *
 * Behaviour of this stand-in: an event is a D-Bus signal, sent on the session or the
 * system bus, so that any bus monitor can watch it, e.g.
 *     busctl --user monitor --match "interface='com.orvane.Nexo1'"
 * Every event is the same signal:
 *     object path  /com/orvane/Nexo1
 *     interface    com.orvane.Nexo1
 *     member       Event
 *     arguments    (ss): the event name, then the parameter text
 * (event names are free text, so they travel as an argument rather than as the
 * member name). The signal is a broadcast; it has no destination.
 *
 * A handle is one bus connection. Calls on one handle may come from several threads
 * (they take the handle's lock in turn).
 */
#ifndef NEXO_H
#define NEXO_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NexoHandleStruct NexoHandleStruct;

#define NEXO_OBJECT_PATH "/com/orvane/Nexo1"
#define NEXO_INTERFACE "com.orvane.Nexo1"
#define NEXO_MEMBER "Event"

typedef enum {
    /* The session bus when DBUS_SESSION_BUS_ADDRESS is set, the system bus otherwise. */
    NEXO_BUS_DEFAULT = 0,
    NEXO_BUS_SESSION = 1,
    NEXO_BUS_SYSTEM = 2,
} NexoBus;

/* Connects to the bus; NULL when it cannot be reached (errno holds the reason). */
NexoHandleStruct* NexoOpen(NexoBus bus);

/* Disconnects and frees the handle; NULL is ignored. */
void NexoClose(NexoHandleStruct* handle);

/* Sends the event named event whose parameter text is format and the arguments that
   follow, formatted as by printf, and returns once the signal has left for the bus.
   Returns 0 when it was sent, otherwise the (positive) errno-style code of the
   failure: EINVAL for a null handle, event or format or a text the bus refuses
   (e.g. not UTF-8), ECONNRESET or ENOTCONN when the bus connection is gone. */
int NexoCreateAndSendEventWithParameters(NexoHandleStruct* handle, const char* event,
                                         const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
