// Buffers handed to the host: allocated here with array new, released only by
// the release slots below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace velmora {

// A Text: exactly size + 1 bytes, zero-filled, then the bytes copied.
char* NewText(const std::string& text);

// A zero-filled block of `ids.size()` ids in the container's order,
// allocated even when empty.
template <class Container>
int64_t* NewTokenArray(const Container& ids) {
    int64_t* block = new int64_t[ids.size()]();
    std::size_t i = 0;
    for (int64_t id : ids) block[i++] = id;
    return block;
}

int32_t FreeString(char* text);
int32_t FreeBuffer(void* block);
int32_t FreeStringArray(char** strings, std::size_t count);

}  // namespace velmora
