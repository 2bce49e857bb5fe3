#pragma once

#include <sys/types.h>

#include <string>

namespace mixer {
namespace host {

// Who the daemon runs as, and who may reach it. Clients are the members of one group:
// the stream directory, the control socket's directory and the socket are the daemon
// user's and that group's alone, and the daemon leaves root before any client can reach
// it. Started as root with a user to become, it prepares the directories, lets itself
// keep real-time priority through RLIMIT_RTPRIO (not CAP_SYS_NICE), and drops to the user
// and the group with no other groups, keeping CAP_FOWNER alone: the last to close a
// client's queue removes it, and /dev/shm lets only a queue's owner do that. Started as
// that user already (the service manager switched and granted CAP_FOWNER), it only
// checks and tightens what it owns.
//
// Threading: the main thread, before any other thread starts (setuid applies to the
// calling process; umask is process-wide). No state; allocates.
class TrustBoundary {
public:
    // user: empty to stay who started the daemon, else a name or a number; group: a name or
    // a number. False with a one-line reason when one is unknown.
    static bool Resolve(const std::string& user, const std::string& group, uid_t& uid, gid_t& gid,
                        bool& switchUser, std::string& error);
    // Makes dir (one level) if missing, owned by uid (only when root) and group gid, with
    // mode; false with the reason when it ends up reachable by others or by another group.
    static bool PrepareDir(const std::string& dir, mode_t mode, uid_t uid, gid_t gid, std::string& error);
    // Becomes uid and gid with no supplementary group but gid and no capability but
    // CAP_FOWNER, keeping real-time priority up to rtPrio (a warning when it cannot); false
    // with the reason unless every id changed and root cannot come back.
    static bool Drop(uid_t uid, gid_t gid, int rtPrio, std::string& error);
};

}  // namespace host
}  // namespace mixer
