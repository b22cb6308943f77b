#include "items/item_file.h"

#include <unistd.h>

const char* read_item_file(int fd)
{
    static char buffer[ITEM_FILE_MAX_BYTES + 1];
    size_t have = 0;
    if (lseek(fd, 0, SEEK_SET) == 0) {
        while (have < ITEM_FILE_MAX_BYTES) {
            const ssize_t n = read(fd, buffer + have, ITEM_FILE_MAX_BYTES - have);
            if (n <= 0)
                break;
            have += size_t(n);
        }
    }
    buffer[have] = '\0';
    return buffer;
}
