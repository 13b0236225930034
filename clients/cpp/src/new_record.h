#pragma once
// The C handles are allocated with calloc, not operator new, so that a C
// program links the library without the C++ runtime.
#include <cstdlib>
#include <new>

template <typename Record>
Record* NewRecord()
{
    void* memory = calloc(1, sizeof(Record));
    return memory != nullptr ? new (memory) Record : nullptr;
}
