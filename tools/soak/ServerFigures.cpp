#include "ServerFigures.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>

namespace velacam::soak {

size_t openDescriptorCount() {
    DIR* listing = ::opendir("/proc/self/fd");
    if (listing == nullptr) {
        return 0;
    }
    size_t count = 0;
    while (const dirent* entry = ::readdir(listing)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(listing);
    return count - 1;
}

size_t residentBytes() {
    ::malloc_trim(0);
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) {
        return 0;
    }
    unsigned long size = 0;
    unsigned long resident = 0;
    const int read = std::fscanf(statm, "%lu %lu", &size, &resident);
    std::fclose(statm);
    return read == 2 ? resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace velacam::soak
