// mixerctl: sends one control request to mixerd and prints the reply.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/ControlClient.h"
#include "client/ControlProtocol.h"

namespace {

const char* const kHelp =
"NAME\n"
"    mixerctl - control the audio mixer daemon\n"
"\n"
"SYNOPSIS\n"
"    mixerctl [--socket PATH] [--timeout MS] REQUEST [ARGUMENT...]\n"
"    mixerctl -h | --help | -V | --version\n"
"\n"
"DESCRIPTION\n"
"    Sends REQUEST to mixerd(8) over its control socket and prints the reply.\n"
"    A request that is not well formed, and \"help\", are answered here, without\n"
"    the daemon.\n"
"\n"
"REQUESTS\n"
"%s"
"\n"
"OPTIONS\n"
"    --socket PATH   the daemon's control socket (default /run/mixerd/mixerd.sock)\n"
"    --timeout MS    how long to wait for the reply, 1 to 3600000 (default\n"
"                    10000)\n"
"    -h, --help      this text\n"
"    -V, --version   the version\n"
"\n"
"EXAMPLES\n"
"    mixerctl focus prompt     prompts duck everything else while they speak\n"
"    mixerctl volume music 30\n"
"    mixerctl status          the engines' report, then the daemon's view\n"
"    mixerctl get volume music\n"
"\n"
"EXIT STATUS\n"
"    0 when the daemon carried the request out (or for help and version), 1 when\n"
"    it refused it (the reason is printed), 2 when it is not running or does not\n"
"    answer in time, or for a bad command line or request.\n";

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath = "/run/mixerd/mixerd.sock";
    int timeoutMs = 10000;
    std::string line;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (line.empty() && (a == "-h" || a == "--help")) {
            std::string requests;
            for (const char* p = mixer::client::ControlProtocol::Usage(); *p; ++p) {
                if (p == mixer::client::ControlProtocol::Usage() || p[-1] == '\n') requests += "    ";
                requests += *p;
            }
            std::printf(kHelp, requests.c_str());
            return 0;
        }
        if (line.empty() && (a == "-V" || a == "--version")) {
            std::printf("mixerctl %s\n", MIXER_VERSION);
            return 0;
        }
        if (line.empty() && (a == "--socket" || a == "--timeout")) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "mixerctl: option %s needs a value\n", a.c_str());
                return 2;
            }
            std::string v = argv[++i];
            if (a == "--socket") {
                socketPath = v;
            } else {
                char* end = nullptr;
                long t = std::strtol(v.c_str(), &end, 10);
                if (v.empty() || *end || t <= 0 || t > 3600000) {
                    std::fprintf(stderr, "mixerctl: bad value '%s' for --timeout: 1 to 3600000 ms\n", v.c_str());
                    return 2;
                }
                timeoutMs = static_cast<int>(t);
            }
            continue;
        }
        if (line.empty() && a.compare(0, 1, "-") == 0) {
            std::fprintf(stderr, "mixerctl: unknown option %s (see --help)\n", a.c_str());
            return 2;
        }
        line += (line.empty() ? "" : " ") + a;
    }
    if (line.empty()) {
        std::fprintf(stderr, "mixerctl: no request given (see --help)\n");
        return 2;
    }
    mixer::client::ControlCommand cmd;
    std::string error;
    if (!mixer::client::ControlProtocol::Parse(line, cmd, error)) {
        std::fprintf(stderr, "mixerctl: %s\n", error.c_str());
        return 2;
    }
    if (cmd.kind == mixer::client::ControlCommand::kHelp) {
        std::fputs(mixer::client::ControlProtocol::Usage(), stdout);
        return 0;
    }
    mixer::client::ControlReply reply;
    bool gone = false;
    if (!mixer::client::ControlClient::Request(socketPath, line, reply, error, timeoutMs, &gone)) {
        if (gone)
            error = "mixerd is not running (nothing answers on " + socketPath + ")";
        std::fprintf(stderr, "mixerctl: %s\n", error.c_str());
        return 2;
    }
    if (!reply.ok) {
        std::fprintf(stderr, "mixerctl: %s\n", reply.text.c_str());
        return 1;
    }
    std::fputs(reply.text.c_str(), stdout);
    return 0;
}
