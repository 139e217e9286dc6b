// A directory of the test's own under /tmp, removed with everything in it when
// the object ends; path is "" when it cannot be made.
#ifndef AVQVL_TESTS_SUPPORT_TEMPDIR_H
#define AVQVL_TESTS_SUPPORT_TEMPDIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

struct TempDir {
    TempDir() {
        char pattern[] = "/tmp/quorvel-test-XXXXXX";
        path = ::mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    // The path of name in the directory, written with content when content is given.
    std::string file(const std::string& name, const char* content = nullptr) const {
        if (content != nullptr) {
            std::ofstream(path + "/" + name) << content;
        }
        return path + "/" + name;
    }
    std::string path;
};

#endif  // AVQVL_TESTS_SUPPORT_TEMPDIR_H
