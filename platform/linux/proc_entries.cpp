#include <dirent.h>

#include "platform/process.h"
#include "platform/roots.h"

namespace platform {

int count_proc_entries() {
    DIR* dir = opendir(roots().proc.c_str());
    if (!dir) return -1;
    int count = 0;
    while (readdir(dir)) ++count;
    closedir(dir);
    return count;
}

}  // namespace platform
