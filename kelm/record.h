// SPDX-License-Identifier: GPL-2.0
//
// Records on the heap of the host. What they held is wiped when they go.
#pragma once

#include <new>

#include "kelm/wipe.h"
#include "platform/memory.h"

// A value-initialised T in zeroed memory, or null.
template<class T>
[[nodiscard]] T *new_record(gfp_t gfp)
{
    void *memory = kzalloc(sizeof(T), gfp);
    return memory != nullptr ? new (memory) T() : nullptr;
}

template<class T>
void delete_record(T *record)
{
    record->~T();
    wipe(record, sizeof(T));
    kfree(record);
}
