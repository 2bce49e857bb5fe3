#include "mixer/notify/NexoSendStringEvent.h"

#include "mixer/core/Log.h"
#include "nexo.h"

namespace mixer {
namespace nexo {

int32_t NexoSendStringEvent(NexoHandleStruct* handle, const char* event, const char* param) {
    // A missing parameter goes out as empty text rather than through "%s" as null.
    const char* text = param != nullptr ? param : "";
    // Through "%s", so the parameter travels as it is.
    if (NexoCreateAndSendEventWithParameters(handle, event, "%s", text) == 0) return 0;
    MIXER_LOG_E("def:MixerNexo:Failed to send string event:event = %s, param = %s",
                event != nullptr ? event : "", text);
    return 1;
}

}  // namespace nexo
}  // namespace mixer
