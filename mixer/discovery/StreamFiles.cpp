#include "mixer/discovery/StreamFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "mixer/core/Log.h"

namespace mixer {

const char* const kStreamDir = "/var/run/mixer";
const char* const kPingFileName = "Ping";

namespace {

const mode_t kDirMode = 0755;
const std::streamsize kLineBuf = 200;  // 199 characters and the terminator
const size_t kFileLines = 7;
// The most the parser can consume: each line takes at most 199 characters and its line
// feed (or fails the stream), so bytes beyond this never change the record.
const size_t kMaxParsedBytes = kFileLines * kLineBuf;

// The file of a stream name: a name that already starts with "/" gets no second one.
std::string StreamPath(const std::string& name) {
    std::string path(kStreamDir);
    if (name.empty() || name[0] != '/') path += '/';
    return path + name;
}

// A name that stays inside the stream directory: leading slashes aside, a single
// component that is not "." or "..". The watcher's names always are; anything else comes
// from a careless caller and must not reach a path outside.
bool IsPlainName(const std::string& name) {
    const size_t start = name.find_first_not_of('/');
    if (start == std::string::npos) return false;
    const std::string base = name.substr(start);
    return base.find('/') == std::string::npos && base != "." && base != "..";
}

// Reads up to max bytes of the regular file at path into out. Clients share the
// directory and may be hostile: a symbolic link is not followed (it could lead out of
// the directory), and a FIFO or device node is opened without blocking and then refused,
// so nothing can stall the watcher. False when the file cannot be opened or is not a
// regular file.
bool ReadRegularFileHead(const std::string& path, size_t max, std::string& out) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return false;
    }
    out.assign(max, '\0');
    size_t got = 0;
    while (got < max) {
        const ssize_t n = read(fd, &out[got], max - got);
        if (n < 0 && errno == EINTR) continue;
        // A read error ends the data like the end of the file: missing lines read empty.
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    close(fd);
    return true;
}

// Parses the seven lines. One fixed line buffer: a line over 199 characters leaves the
// stream failed, and every later getline stores an empty string, which the fields then
// take.
void ParseStreamInfo(const std::string& text, sStreamInfo& info) {
    std::istringstream in(text);
    char line[kLineBuf];
    auto str = [&]() -> std::string {
        in.getline(line, kLineBuf);
        return std::string(line);
    };
    auto number = [&]() -> int {
        std::memset(line, 0, 4);  // a line that cannot be read parses as 0
        in.getline(line, kLineBuf);
        return std::atoi(line);
    };
    info.name = str();
    info.type = str();
    info.id = number();
    info.rate = static_cast<uint32_t>(number());
    info.numCh = static_cast<uint32_t>(number());
    info.sampleSize = static_cast<uint32_t>(number());
    info.meta = str();
}

}  // namespace

bool UtilCheckDir() {
    struct stat st;
    std::memset(&st, 0, sizeof(st));
    if (stat(kStreamDir, &st) != 0) {
        MIXER_LOG_E("Mixer_Utils:UtilCheckDir:mixer directory doesn't exist so create it:");
        if (mkdir(kStreamDir, kDirMode) != 0) {
            MIXER_LOG_E("Mixer_Utils:UtilCheckDir:failed to create mixer directory:");
            return false;
        }
    }
    // Kept so: after a fresh creation st is still the cleared record, so the new empty
    // directory is removed and made once more (harmless, and what clients' logs show).
    if (S_ISDIR(st.st_mode)) return true;
    if (remove(kStreamDir) == 0 && mkdir(kStreamDir, kDirMode) == 0) {
        MIXER_LOG_I("Mixer_Utils:UtilCheckDir:Deleted mixer directory and created back:");
        return true;
    }
    MIXER_LOG_E("Mixer_Utils:UtilCheckDir:failed to remove mixer directory:");
    return false;
}

int UtilReadFile(const std::string& fileName, sStreamInfo& info) {
    MIXER_LOG_D("Mixer_Utils:ReadFile:%s:", fileName.c_str());
    const std::string path = std::string(kStreamDir) + "/" + fileName;
    std::string head;
    if (!IsPlainName(fileName) || !ReadRegularFileHead(path, kMaxParsedBytes, head)) {
        MIXER_LOG_E("Mixer_Utils:AddStream:Failed to open %s:", path.c_str());
        return -1;
    }
    ParseStreamInfo(head, info);
    return 0;
}

int UtilWriteFile(const sStreamInfo& info) {
    UtilCheckDir();
    std::ofstream out(StreamPath(info.name).c_str(), std::ios::out | std::ios::trunc);
    if (!out.is_open()) return -1;
    out << info.name << std::endl;
    out << info.type << std::endl;
    out << info.id << std::endl;
    out << info.rate << std::endl;
    out << info.numCh << std::endl;
    out << info.sampleSize << std::endl;
    out << info.meta << std::endl;
    out.close();
    return 0;
}

void UtilRemoveFile(const std::string& fileName) {
    const std::string path = StreamPath(fileName);
    MIXER_LOG_D("Mixer_Utils:file being removed %s::", path.c_str());
    // unlink removes a symbolic link itself, never what it points to.
    if (IsPlainName(fileName)) unlink(path.c_str());
}

void UtilPing() {
    UtilCheckDir();
    std::ofstream out((std::string(kStreamDir) + "/" + kPingFileName).c_str(),
                      std::ios::out | std::ios::trunc);
    out.flush();
    out.close();
}

}  // namespace mixer
