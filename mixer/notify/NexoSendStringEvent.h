#pragma once

#include <cstdint>

#include "mixer/core/Api.h"

// The platform's event-bus handle; opaque here (the host owns it).
struct NexoHandleStruct;

namespace mixer {
namespace nexo {

// Sends the event named event with the single parameter param, taken literally (a
// '%' in it is not a format). Returns 0 when sent, 1 when not (logged; the bus's
// own error code is not passed on).
//
// Threading: no state of its own; as safe as the bus handle it is given.
MIXER_API int32_t NexoSendStringEvent(NexoHandleStruct* handle, const char* event,
                                      const char* param);

}  // namespace nexo
}  // namespace mixer
