#include "buffers.h"

#include <cstring>

namespace velmora {

char* NewText(const std::string& text) {
    char* buffer = new char[text.size() + 1]();
    std::memcpy(buffer, text.data(), text.size());
    return buffer;
}

int32_t FreeString(char* text) {
    delete[] text;
    return 0;
}

// Every block handed out is an array of trivially destructible elements, so
// releasing it as bytes is what array delete of its own type would do.
int32_t FreeBuffer(void* block) {
    delete[] static_cast<char*>(block);
    return 0;
}

int32_t FreeStringArray(char** strings, std::size_t count) {
    if (count == 0) return 0;
    for (std::size_t i = 0; i < count; ++i) delete[] strings[i];
    delete[] strings;
    return 0;
}

}  // namespace velmora
