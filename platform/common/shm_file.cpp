/* Shared file mappings (see shm_file.h). */
#include "shm_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tbdl::plat {

void *ShmMap(const std::string &path, size_t size, bool create)
{
    int fd = open(path.c_str(), create ? (O_RDWR | O_CREAT | O_CLOEXEC) : (O_RDWR | O_CLOEXEC), 0660);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st{};
    bool ok = fstat(fd, &st) == 0 &&
              (create ? (fchmod(fd, 0660) == 0 && ftruncate(fd, static_cast<off_t>(size)) == 0)
                      : static_cast<size_t>(st.st_size) >= size);
    void *p = ok ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    return p == MAP_FAILED ? nullptr : p;
}

void ShmUnmap(void *p, size_t size)
{
    if (p != nullptr) {
        munmap(p, size);
    }
}

} // namespace tbdl::plat
