// A temporary directory for tests that write files; removed with its contents at the end.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/trovtest.XXXXXX";
        if (mkdtemp(templ.data())) path_ = templ;
    }
    ~TempDir() { Remove(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

    static void Write(const std::string& file, const std::string& content) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << content;
    }
    static std::string Read(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    static long long Size(const std::string& file) {
        struct stat st;
        return ::stat(file.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    }

private:
    static void Remove(const std::string& path) {
        if (path.empty()) return;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) return;
        if (S_ISDIR(st.st_mode)) {
            if (DIR* d = ::opendir(path.c_str())) {
                while (dirent* e = ::readdir(d)) {
                    std::string name = e->d_name;
                    if (name != "." && name != "..") Remove(path + "/" + name);
                }
                ::closedir(d);
            }
            ::rmdir(path.c_str());
        } else {
            ::unlink(path.c_str());
        }
    }

    std::string path_;
};
