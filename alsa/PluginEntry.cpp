// alsa-lib's entry point of the "mixer" PCM type: reads the PCM's arguments from its
// configuration and makes the PCM (alsa/MixerPcm).

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <cstring>

#include "alsa/MixerPcm.h"

namespace {

// One string argument; false after a line on alsa-lib's error output.
bool StringArg(snd_config_t* n, const char* id, std::string& to) {
    const char* s = nullptr;
    if (snd_config_get_string(n, &s) < 0) {
        SNDERR("mixer: argument %s must be a string", id);
        return false;
    }
    to = s;
    return true;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) SND_PCM_PLUGIN_DEFINE_FUNC(mixer) {
    (void)root;
    mixer::alsa::MixerPcm::Args args;
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf) {
        snd_config_t* n = snd_config_iterator_entry(i);
        const char* id = nullptr;
        if (snd_config_get_id(n, &id) < 0) continue;
        if (!std::strcmp(id, "comment") || !std::strcmp(id, "type") || !std::strcmp(id, "hint")) continue;
        if (!std::strcmp(id, "meta")) {
            if (!StringArg(n, id, args.meta)) return -EINVAL;
        } else if (!std::strcmp(id, "name")) {
            if (!StringArg(n, id, args.name)) return -EINVAL;
        } else if (!std::strcmp(id, "socket")) {
            if (!StringArg(n, id, args.socket)) return -EINVAL;
        } else if (!std::strcmp(id, "blocks")) {
            long v = 0;
            if (snd_config_get_integer(n, &v) < 0 || v < 0 || v > long(mixer::client::ClientStream::kMaxBlocks)) {
                SNDERR("mixer: argument blocks must be a queue length from 2 to 256 blocks (0: from the buffer)");
                return -EINVAL;
            }
            args.blocks = static_cast<unsigned>(v);
        } else {
            SNDERR("mixer: unknown argument %s (meta, name, blocks, socket)", id);
            return -EINVAL;
        }
    }
    return mixer::alsa::MixerPcm::Create(pcmp, name, stream, mode, args);
}

__attribute__((visibility("default"))) SND_PCM_PLUGIN_SYMBOL(mixer)

}  // extern "C"
