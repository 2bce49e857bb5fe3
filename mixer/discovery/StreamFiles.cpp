#include "mixer/discovery/StreamFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "mixer/core/Log.h"

namespace mixer {

const char* const kStreamDir = "/var/run/mixer";
const char* const kPingFileName = "Ping";

namespace {

const mode_t kDirMode = 0755;
const std::streamsize kLineBuf = 200;  // 199 characters and the terminator

// The file of a stream name: a name that already starts with "/" gets no second one.
std::string StreamPath(const std::string& name) {
    std::string path(kStreamDir);
    if (name.empty() || name[0] != '/') path += '/';
    return path + name;
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
    std::ifstream in(path.c_str());
    if (!in.is_open()) {
        MIXER_LOG_E("Mixer_Utils:AddStream:Failed to open %s:", path.c_str());
        return -1;
    }
    // One fixed line buffer: a line over 199 characters leaves the stream failed, and
    // every later getline stores an empty string, which the fields then take.
    char line[kLineBuf];
    auto text = [&]() -> std::string {
        in.getline(line, kLineBuf);
        return std::string(line);
    };
    auto number = [&]() -> int {
        std::memset(line, 0, 4);  // a line that cannot be read parses as 0
        in.getline(line, kLineBuf);
        return std::atoi(line);
    };
    info.name = text();
    info.type = text();
    info.id = number();
    info.rate = static_cast<uint32_t>(number());
    info.numCh = static_cast<uint32_t>(number());
    info.sampleSize = static_cast<uint32_t>(number());
    info.meta = text();
    in.close();
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
    unlink(path.c_str());
}

void UtilPing() {
    UtilCheckDir();
    std::ofstream out((std::string(kStreamDir) + "/" + kPingFileName).c_str(),
                      std::ios::out | std::ios::trunc);
    out.flush();
    out.close();
}

}  // namespace mixer
