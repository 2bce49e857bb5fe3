#include "mixer/discovery/StreamFiles.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/discovery/PrivateRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::LogCapture;
using test::PathExists;
using test::PathIsDir;

const std::string kDir = "/var/run/mixer";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteRaw(const std::string& name, const std::string& content) {
    ASSERT_TRUE(PathIsDir(kDir) || mkdir(kDir.c_str(), 0755) == 0);
    std::ofstream out((kDir + "/" + name).c_str(), std::ios::binary | std::ios::trunc);
    out << content;
}

// Makes the private /run read-only, so nothing can be created or removed in it.
void MakeRunReadOnly() {
    ASSERT_EQ(0, mount("tmpfs", "/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
}

sStreamInfo Info(const std::string& name) {
    sStreamInfo info;
    info.id = 3;
    info.type = "shmQ";
    info.name = name;
    info.rate = 48000;
    info.numCh = 2;
    info.sampleSize = 2;
    info.meta = "media player";
    return info;
}

class StreamFilesTest : public ::testing::Test {
protected:
    void SetUp() override { MIXER_REQUIRE_PRIVATE_RUN(); }
};

TEST_F(StreamFilesTest, CheckDirCreatesTwiceOnFirstUse) {
    LogCapture log;
    ASSERT_FALSE(PathExists(kDir));
    EXPECT_TRUE(UtilCheckDir());
    EXPECT_TRUE(PathIsDir(kDir));
    const std::vector<std::string> expected = {
        "E Mixer_Utils:UtilCheckDir:mixer directory doesn't exist so create it:",
        "I Mixer_Utils:UtilCheckDir:Deleted mixer directory and created back:",
    };
    EXPECT_EQ(expected, log.Lines());

    struct stat st;
    ASSERT_EQ(0, stat(kDir.c_str(), &st));
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(0755u & ~mask, st.st_mode & 0777u);

    // An existing directory is left alone, silently.
    log.Clear();
    EXPECT_TRUE(UtilCheckDir());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(StreamFilesTest, CheckDirReplacesPlainFile) {
    { std::ofstream(kDir.c_str()) << "not a directory"; }
    LogCapture log;
    EXPECT_TRUE(UtilCheckDir());
    EXPECT_TRUE(PathIsDir(kDir));
    const std::vector<std::string> expected = {
        "I Mixer_Utils:UtilCheckDir:Deleted mixer directory and created back:",
    };
    EXPECT_EQ(expected, log.Lines());
}

TEST_F(StreamFilesTest, CheckDirFailsWhenDirectoryCannotBeMade) {
    MakeRunReadOnly();
    LogCapture log;
    EXPECT_FALSE(UtilCheckDir());
    EXPECT_TRUE(log.Has("E Mixer_Utils:UtilCheckDir:failed to create mixer directory:")) << log.Dump();
    EXPECT_FALSE(PathExists(kDir));
}

TEST_F(StreamFilesTest, CheckDirFailsWhenPlainFileCannotBeRemoved) {
    { std::ofstream(kDir.c_str()) << "x"; }
    MakeRunReadOnly();
    LogCapture log;
    EXPECT_FALSE(UtilCheckDir());
    EXPECT_TRUE(log.Has("E Mixer_Utils:UtilCheckDir:failed to remove mixer directory:")) << log.Dump();
    EXPECT_FALSE(PathIsDir(kDir));
}

TEST_F(StreamFilesTest, WriteThenReadGivesTheSameRecord) {
    sStreamInfo in = Info("music1");
    in.id = -42;
    ASSERT_EQ(0, UtilWriteFile(in));
    EXPECT_EQ("music1\nshmQ\n-42\n48000\n2\n2\nmedia player\n", ReadAll(kDir + "/music1"));

    sStreamInfo out;
    LogCapture log;
    ASSERT_EQ(0, UtilReadFile("music1", out));
    EXPECT_EQ(in.id, out.id);
    EXPECT_EQ(in.type, out.type);
    EXPECT_EQ(in.name, out.name);
    EXPECT_EQ(in.rate, out.rate);
    EXPECT_EQ(in.numCh, out.numCh);
    EXPECT_EQ(in.sampleSize, out.sampleSize);
    EXPECT_EQ(in.meta, out.meta);
    EXPECT_TRUE(log.Has("D Mixer_Utils:ReadFile:music1:")) << log.Dump();

    // An empty meta still ends in a line feed.
    sStreamInfo quiet = Info("quiet");
    quiet.meta.clear();
    quiet.id = 0;
    ASSERT_EQ(0, UtilWriteFile(quiet));
    EXPECT_EQ("quiet\nshmQ\n0\n48000\n2\n2\n\n", ReadAll(kDir + "/quiet"));
}

TEST_F(StreamFilesTest, LeadingSlashNamesTheSameFile) {
    sStreamInfo a = Info("/alarm");
    a.meta = "first";
    ASSERT_EQ(0, UtilWriteFile(a));
    sStreamInfo b = Info("alarm");
    b.meta = "second";
    ASSERT_EQ(0, UtilWriteFile(b));

    EXPECT_EQ("alarm\nshmQ\n3\n48000\n2\n2\nsecond\n", ReadAll(kDir + "/alarm"));
    EXPECT_EQ(std::vector<std::string>{"alarm"}, test::DirEntries(kDir));

    // Removing by either spelling deletes it.
    UtilRemoveFile("/alarm");
    EXPECT_FALSE(PathExists(kDir + "/alarm"));
}

TEST_F(StreamFilesTest, ShortFileGivesEmptyAndZeroFields) {
    WriteRaw("three", "three\nshmB\n-7\n");
    sStreamInfo out = Info("junk");  // every field must be overwritten
    ASSERT_EQ(0, UtilReadFile("three", out));
    EXPECT_EQ("three", out.name);
    EXPECT_EQ("shmB", out.type);
    EXPECT_EQ(-7, out.id);
    EXPECT_EQ(0u, out.rate);
    EXPECT_EQ(0u, out.numCh);
    EXPECT_EQ(0u, out.sampleSize);
    EXPECT_EQ("", out.meta);
}

TEST_F(StreamFilesTest, LineOf199CharactersIsReadALongerOneBlanksEveryLaterField) {
    const std::string edge(199, 't');
    WriteRaw("edge", "edge\n" + edge + "\n5\n8000\n1\n2\nm\n");
    sStreamInfo in;
    ASSERT_EQ(0, UtilReadFile("edge", in));
    EXPECT_EQ(edge, in.type);
    EXPECT_EQ(5, in.id);
    EXPECT_EQ(8000u, in.rate);
    EXPECT_EQ("m", in.meta);

    const std::string type(250, 't');
    WriteRaw("long", "long\n" + type + "\n5\n8000\n1\n2\nmeta\n");
    sStreamInfo out = Info("junk");
    ASSERT_EQ(0, UtilReadFile("long", out));
    EXPECT_EQ("long", out.name);
    EXPECT_EQ(type.substr(0, 199), out.type);
    EXPECT_EQ(0, out.id);
    EXPECT_EQ(0u, out.rate);
    EXPECT_EQ(0u, out.numCh);
    EXPECT_EQ(0u, out.sampleSize);
    EXPECT_EQ("", out.meta);
}

TEST_F(StreamFilesTest, MissingFileLeavesRecordUntouched) {
    ASSERT_TRUE(UtilCheckDir());
    sStreamInfo out = Info("keep");
    LogCapture log;
    EXPECT_EQ(-1, UtilReadFile("nope", out));
    EXPECT_EQ("keep", out.name);
    EXPECT_EQ(3, out.id);
    EXPECT_TRUE(log.Has("E Mixer_Utils:AddStream:Failed to open /var/run/mixer/nope:")) << log.Dump();
}

TEST_F(StreamFilesTest, UnwritableFileFailsSilently) {
    ASSERT_TRUE(UtilCheckDir());
    LogCapture log;
    EXPECT_EQ(-1, UtilWriteFile(Info("no/such/dir")));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(StreamFilesTest, RemoveFileLogsPathAndIgnoresMissingFile) {
    ASSERT_EQ(0, UtilWriteFile(Info("gone")));
    LogCapture log;
    UtilRemoveFile("gone");
    EXPECT_FALSE(PathExists(kDir + "/gone"));
    EXPECT_TRUE(log.Has("D Mixer_Utils:file being removed /var/run/mixer/gone::")) << log.Dump();
    UtilRemoveFile("gone");  // nothing left to remove: no crash, no error line
    EXPECT_EQ(0, log.CountPrefix("E "));
}

TEST_F(StreamFilesTest, PingLeavesAnEmptyFile) {
    UtilPing();
    ASSERT_TRUE(PathIsDir(kDir));
    ASSERT_TRUE(PathExists(kDir + "/Ping"));
    EXPECT_EQ("", ReadAll(kDir + "/Ping"));
    { std::ofstream(kDir + "/Ping") << "stale"; }
    UtilPing();  // truncates
    EXPECT_EQ("", ReadAll(kDir + "/Ping"));
}

// Clients share the directory: what they put there under a stream file's name must not
// lead the reader elsewhere, stall it or make it read without bound.
const std::string kOutside = "/run/outside";
const std::string kOutsideText = "outside\nshmQ\n1\n48000\n2\n2\nsecret\n";

TEST_F(StreamFilesTest, ReadFileRefusesWhatIsNotARegularFileInTheDirectory) {
    ASSERT_TRUE(UtilCheckDir());
    { std::ofstream(kOutside.c_str()) << kOutsideText; }
    ASSERT_EQ(0, symlink(kOutside.c_str(), (kDir + "/link").c_str()));
    ASSERT_EQ(0, mknod((kDir + "/zero").c_str(), S_IFCHR | 0600, makedev(1, 5)));
    ASSERT_EQ(0, mkdir((kDir + "/sub").c_str(), 0755));
    LogCapture log;
    for (const char* name : {"link", "zero", "sub", "../outside", "", "."}) {
        sStreamInfo out = Info("keep");
        EXPECT_EQ(-1, UtilReadFile(name, out)) << name;
        EXPECT_EQ("keep", out.name) << name;
        EXPECT_TRUE(log.Has("E Mixer_Utils:AddStream:Failed to open " + kDir + "/" + name + ":")) << log.Dump();
    }
    // Removal takes the link, never its target, and nothing outside by a crafted name.
    UtilRemoveFile("link");
    UtilRemoveFile("../outside");
    EXPECT_FALSE(PathExists(kDir + "/link"));
    EXPECT_EQ(kOutsideText, ReadAll(kOutside));
}

TEST_F(StreamFilesTest, ReadFileOfAFifoReturnsAtOnce) {
    ASSERT_TRUE(UtilCheckDir());
    ASSERT_EQ(0, mkfifo((kDir + "/pipe").c_str(), 0600));
    // In a child: an open that waited for a writer would never return, and is killed.
    test::ChildProcess child([] {
        sStreamInfo out;
        CHILD_CHECK(UtilReadFile("pipe", out) == -1);
        return 0;
    });
    EXPECT_EQ(0, child.Wait(20000));
}

TEST_F(StreamFilesTest, ReadFileOfJunkAndHugeFilesKeepsToTheLineRules) {
    // Binary junk without a line feed: the first line takes 199 bytes (cut at the first
    // NUL) and fails the stream, so the rest reads empty.
    std::string junk(4096, '\0');
    // Bytes 11 to 250: never a line feed.
    for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(i % 240 + 11);
    junk[5] = '\0';
    WriteRaw("junk", junk);
    sStreamInfo out = Info("keep");
    ASSERT_EQ(0, UtilReadFile("junk", out));
    EXPECT_EQ(std::string(junk.c_str()), out.name);
    EXPECT_EQ("", out.type);
    EXPECT_EQ(0, out.id);
    EXPECT_EQ(0u, out.rate);
    EXPECT_EQ("", out.meta);

    // Seven good lines and then megabytes: the tail changes nothing.
    WriteRaw("huge", "huge\nshmB\n9\n16000\n1\n2\nlast\n" + std::string(8 << 20, 'z'));
    ASSERT_EQ(0, UtilReadFile("huge", out));
    EXPECT_EQ("huge", out.name);
    EXPECT_EQ("shmB", out.type);
    EXPECT_EQ(9, out.id);
    EXPECT_EQ(16000u, out.rate);
    EXPECT_EQ(1u, out.numCh);
    EXPECT_EQ(2u, out.sampleSize);
    EXPECT_EQ("last", out.meta);

    // Seven lines of 199 characters each: the most the reader takes, all of it kept.
    std::string full;
    for (char c = 'a'; c < 'a' + 7; ++c) full += std::string(199, c) + "\n";
    WriteRaw("full", full + "tail");
    ASSERT_EQ(0, UtilReadFile("full", out));
    EXPECT_EQ(std::string(199, 'a'), out.name);
    EXPECT_EQ(std::string(199, 'g'), out.meta);
}

}  // namespace
}  // namespace mixer
