#include "app/files.h"

#include <cstdio>
#include <cstring>

int WriteTextFile(const char* path, const char* text)
{
    FILE* file = fopen(path, "w");
    if (file == nullptr)
        return -1;
    fputs(text, file);
    fclose(file);
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
