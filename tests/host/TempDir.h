#pragma once
#include <cstdlib>
#include <string>
namespace mixer::test {
// A fresh directory under /tmp, removed with its contents when the object goes.
class TempDir {
public:
    TempDir() { char t[] = "/tmp/mixerd-test-XXXXXX"; path_ = mkdtemp(t) ? t : "/tmp"; }
    ~TempDir() { if (path_ != "/tmp" && std::system(("rm -rf '" + path_ + "'").c_str()) != 0) {} }
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }
private:
    std::string path_;
};
}  // namespace mixer::test
