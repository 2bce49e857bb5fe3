// The description-file reader on whatever a client can leave in the stream directory:
// the first byte picks what the name denotes (a regular file with the remaining bytes,
// a symbolic link to a file outside, a FIFO, a device node, a directory, or a name that
// tries to leave the directory); UtilReadFile must read a regular file exactly by the
// line rules and refuse everything else without blocking or touching the outside.
//
// The stream directory is a fixed path: the target first moves itself into a private
// mount namespace with an empty tmpfs on /run, so the machine's directory is never
// touched (it needs root, and refuses to run otherwise).

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzInput.h"
#include "mixer/discovery/StreamFiles.h"

namespace mixer {
namespace fuzz {
namespace {

const std::string kDir = "/var/run/mixer";
const std::string kOutside = "/run/outside";
const char kOutsideText[] = "outside\nshmQ\n1\n48000\n2\n2\nnot yours\n";
const size_t kLineMax = 199;

void PrivateRun() {
    // Private propagation first: otherwise the tmpfs would show in the machine's /run.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) {
        std::perror("fuzz_stream_file: needs root for a private /run (unshare, mount)");
        std::exit(1);
    }
}

std::string ReadAll(const std::string& path) {
    std::string out;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return out;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

bool WriteAll(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && ok;
}

// The line rules written out plainly: each of the seven lines is what precedes its
// line feed, at most 199 characters, cut at a NUL; a longer line keeps 199 characters
// and, like the end of the data, blanks every later line.
sStreamInfo Expected(const std::string& text) {
    std::string lines[7];
    size_t pos = 0;
    bool failed = false;
    for (std::string& line : lines) {
        if (failed) break;
        const size_t end = text.find('\n', pos);
        const size_t len = (end == std::string::npos ? text.size() : end) - pos;
        line = text.substr(pos, len < kLineMax ? len : kLineMax);
        line = line.substr(0, std::strlen(line.c_str()));
        if (len > kLineMax || end == std::string::npos) {
            failed = true;
        } else {
            pos = end + 1;
        }
    }
    sStreamInfo info;
    info.name = lines[0];
    info.type = lines[1];
    info.id = std::atoi(lines[2].c_str());
    info.rate = static_cast<uint32_t>(std::atoi(lines[3].c_str()));
    info.numCh = static_cast<uint32_t>(std::atoi(lines[4].c_str()));
    info.sampleSize = static_cast<uint32_t>(std::atoi(lines[5].c_str()));
    info.meta = lines[6];
    return info;
}

enum Kind { kRegular, kSymlink, kFifo, kDevice, kDirectory, kEscape, kKinds };

}  // namespace
}  // namespace fuzz
}  // namespace mixer

using namespace mixer;
using namespace mixer::fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrivateRun();
    DropLogLines();
    if (!UtilCheckDir() || !WriteAll(kOutside, kOutsideText)) std::exit(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int kind = in.Byte() % kKinds;
    const std::string content = in.Rest();
    const std::string name = "stream";
    const std::string path = kDir + "/" + name;
    std::string readName = name;
    bool made = true;
    switch (kind) {
        case kRegular:
            made = WriteAll(path, content);
            break;
        case kSymlink:
            made = symlink(kOutside.c_str(), path.c_str()) == 0;
            break;
        case kFifo:
            made = mkfifo(path.c_str(), 0600) == 0;
            break;
        case kDevice:  // an endless source of bytes
            made = mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 5)) == 0;
            break;
        case kDirectory:
            made = mkdir(path.c_str(), 0755) == 0;
            break;
        case kEscape:  // the name itself climbs out, with fuzzed bytes after it
            readName = "../outside" + content.substr(0, content.find('\0'));
            break;
    }
    FUZZ_CHECK(made);

    sStreamInfo info;
    info.name = "untouched";
    const int rc = UtilReadFile(readName, info);
    if (kind == kRegular) {
        FUZZ_CHECK(rc == 0);
        const sStreamInfo want = Expected(content);
        FUZZ_CHECK(info.name == want.name && info.type == want.type && info.meta == want.meta);
        FUZZ_CHECK(info.id == want.id && info.rate == want.rate && info.numCh == want.numCh &&
                   info.sampleSize == want.sampleSize);
    } else {
        FUZZ_CHECK(rc == -1);
        FUZZ_CHECK(info.name == "untouched");
    }
    UtilRemoveFile(readName);
    if (kind == kDirectory) rmdir(path.c_str());
    struct stat st;
    FUZZ_CHECK(lstat(path.c_str(), &st) != 0);  // whatever it was, it is gone
    FUZZ_CHECK(ReadAll(kOutside) == kOutsideText);
    return 0;
}
