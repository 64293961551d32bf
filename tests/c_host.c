/* A plain C host: the header compiles as C99, and both tables are reachable
 * from C with the shapes C sees. */
#include <dlfcn.h>
#include <stdio.h>

#include "openvino_bindings.h"

#define EXPECT(cond)                                                   \
    do {                                                               \
        if (!(cond)) {                                                 \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                  \
        }                                                              \
    } while (0)

int main(int argc, char** argv) {
    void* lib;
    const LlmApiBase* (*getLlm)(void);
    const WhisperApiBase* (*getWhisper)(void);

    EXPECT(argc == 2 && (lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL)) != NULL);
    *(void**)&getLlm = dlsym(lib, "GetLlmApiBase");
    *(void**)&getWhisper = dlsym(lib, "GetWhisperApiBase");
    EXPECT(getLlm != NULL && getWhisper != NULL);
    EXPECT(sizeof(LlmApiBase) == 18 * sizeof(void*) && sizeof(WhisperApiBase) == 17 * sizeof(void*));
    EXPECT(sizeof(LangIdPair) == 16 && sizeof(HostCallbacks) == 2 * sizeof(void*));
    /* Slots called through the tables as C sees them. */
    EXPECT(getLlm()->FreeQueryResult(NULL) == 0 && getWhisper()->DestroyModel(NULL) == 0);
    EXPECT(getLlm()->CancelModel(NULL) == STATUS_FAILED);
    puts("c_host: ok");
    return 0;
}
