/* A fixed-size file in the chassis directory mapped shared, the way
 * chassisd and the boards' libraries share state without a round trip
 * (fault plans, the interface table, each board's kernel table). */
#ifndef TBDL_PLAT_SHM_FILE_H
#define TBDL_PLAT_SHM_FILE_H

#include <cstddef>
#include <string>

namespace tbdl::plat {

/* Maps path read-write and shared. With create, the file is made (or
 * kept) and sized to size bytes, mode 0660; without it, a file shorter
 * than size is refused. Returns nullptr on any failure. The mapping lives
 * until ShmUnmap. */
void *ShmMap(const std::string &path, size_t size, bool create);
void ShmUnmap(void *p, size_t size);

} // namespace tbdl::plat

#endif
