#include "host/TrustBoundary.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

bool Number(const std::string& text, unsigned long& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    value = std::strtoul(text.c_str(), nullptr, 10);
    return errno == 0 && value < 0xFFFFFFFFul;  // (uid_t)-1 means "no change" to chown
}

// /dev/shm is sticky: only a queue's owner may remove it, yet the daemon, the last to
// close a stream's queue, is the one that removes it. CAP_FOWNER lets it; it grants no
// read or write access to anything.
const int kKeptCapability = CAP_FOWNER;

std::string Why(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

bool TrustBoundary::Resolve(const std::string& user, const std::string& group, uid_t& uid, gid_t& gid,
                            bool& switchUser, std::string& error) {
    std::vector<char> buf(16384);
    unsigned long n = 0;
    switchUser = !user.empty();
    uid = geteuid();
    if (switchUser && Number(user, n)) {
        uid = static_cast<uid_t>(n);
    } else if (switchUser) {
        passwd pw, *found = nullptr;
        if (getpwnam_r(user.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || !found) {
            error = "no user '" + user + "' (see --user)";
            return false;
        }
        uid = pw.pw_uid;
    }
    if (Number(group, n)) {
        gid = static_cast<gid_t>(n);
        return true;
    }
    struct group gr, *found = nullptr;
    if (getgrnam_r(group.c_str(), &gr, buf.data(), buf.size(), &found) != 0 || !found) {
        error = "no group '" + group + "' (see --group)";
        return false;
    }
    gid = gr.gr_gid;
    return true;
}

bool TrustBoundary::PrepareDir(const std::string& dir, mode_t mode, uid_t uid, gid_t gid, std::string& error) {
    if (mkdir(dir.c_str(), mode) != 0 && errno != EEXIST) return error = Why("cannot make " + dir), false;
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) return error = Why(dir), false;
    if (!S_ISDIR(st.st_mode)) return error = dir + " is not a directory", false;
    // Only what differs is changed: a daemon that is not root may not call chown at all.
    const uid_t owner = geteuid() == 0 ? uid : st.st_uid;
    if ((st.st_uid != owner || st.st_gid != gid) && chown(dir.c_str(), owner, gid) != 0)
        return error = Why("cannot give " + dir + " to its group"), false;
    if ((st.st_mode & 07777) != mode && chmod(dir.c_str(), mode) != 0)
        return error = Why("cannot set the mode of " + dir), false;
    if (lstat(dir.c_str(), &st) != 0 || (st.st_mode & S_IRWXO) || st.st_gid != gid || st.st_uid != owner)
        return error = dir + " stays reachable by others", false;
    return true;
}

bool TrustBoundary::Drop(uid_t uid, gid_t gid, int rtPrio, std::string& error) {
    // RLIMIT_RTPRIO lets an unprivileged process take SCHED_FIFO up to the limit: the
    // engines keep their priority without CAP_SYS_NICE.
    rlimit rt;
    const rlim_t want = static_cast<rlim_t>(rtPrio);
    if (getrlimit(RLIMIT_RTPRIO, &rt) == 0 && rt.rlim_cur < want) {
        const rlimit raised = {want, rt.rlim_max < want ? want : rt.rlim_max};
        // Without CAP_SYS_RESOURCE (a container) the engines run at normal priority, as
        // they would have as root without CAP_SYS_NICE.
        if (setrlimit(RLIMIT_RTPRIO, &raised) != 0)
            MIXER_LOG_W("Mixerd_TrustBoundary:Drop:RLIMIT_RTPRIO stays %lu: %s: no real-time priority:",
                        static_cast<unsigned long>(rt.rlim_cur), std::strerror(errno));
    }
    // CAP_FOWNER alone survives the switch (see kKeptCapability).
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2] = {};
    caps[0].effective = caps[0].permitted = 1u << kKeptCapability;
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || setgroups(1, &gid) != 0 || setresgid(gid, gid, gid) != 0 ||
        setresuid(uid, uid, uid) != 0 || syscall(SYS_capset, &header, caps) != 0 ||
        prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0) != 0)
        return error = Why("cannot become user " + std::to_string(uid) + " group " + std::to_string(gid)), false;
    uid_t r, e, s;
    gid_t rg, eg, sg, groups[2];
    const int ngroups = getgroups(2, groups);
    __user_cap_data_struct now[2] = {};
    if (getresuid(&r, &e, &s) != 0 || getresgid(&rg, &eg, &sg) != 0 || r != uid || e != uid || s != uid ||
        rg != gid || eg != gid || sg != gid || ngroups != 1 || groups[0] != gid || (uid != 0 && setuid(0) == 0) ||
        syscall(SYS_capget, &header, now) != 0 || now[0].permitted != caps[0].permitted || now[1].permitted != 0)
        return error = "the user switch did not take", false;
    return true;
}

}  // namespace host
}  // namespace mixer
