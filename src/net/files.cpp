#include "net/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int WriteTextFile(const char* path, const char* text)
{
    char temporary[kSmallFilePathCapacity];
    if (snprintf(temporary, sizeof temporary, "%s%s", path, kTemporarySuffix) >= static_cast<int>(sizeof temporary))
        return -1;
    int fd = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    size_t length = strlen(text);
    bool written = write(fd, text, length) == static_cast<ssize_t>(length);
    if (close(fd) != 0 || !written || rename(temporary, path) != 0) {
        unlink(temporary);
        return -1;
    }
    return 0;
}

size_t ReadSmallFile(const char* path, char* buffer, size_t capacity)
{
    memset(buffer, 0, capacity);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
        return 0;
    size_t count = fread(buffer, 1, capacity - 1, file);
    fclose(file);
    return count;
}
