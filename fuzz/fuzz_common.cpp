#include "fuzz_common.h"
#include <fcntl.h>
#include <unistd.h>
#include <filesystem>

namespace {
std::string temp_dir;
void remove_temp_dir() {
    std::error_code ec;
    if (!temp_dir.empty()) std::filesystem::remove_all(temp_dir, ec);
}
}  // namespace

std::string fuzz_temp_dir() {
    if (temp_dir.empty()) {
        char name[] = "/tmp/vestra_fuzz_XXXXXX";
        FUZZ_CHECK(mkdtemp(name) != nullptr);
        temp_dir = name;
        std::atexit(remove_temp_dir);
    }
    return temp_dir;
}

void fuzz_write_file(const std::string& path, const unsigned char* data, size_t size) {
    // A new file under a new name, then renamed over the old one, so that a mapping of
    // the old file that someone forgot to release would still see the old bytes.
    std::string fresh = path + ".new";
    int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    FUZZ_CHECK(fd >= 0);
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        FUZZ_CHECK(n > 0);
        done += size_t(n);
    }
    close(fd);
    FUZZ_CHECK(std::rename(fresh.c_str(), path.c_str()) == 0);
}
