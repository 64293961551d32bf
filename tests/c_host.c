/* A plain C host: the header compiles as C99, and both tables work from C
 * without a model: their shape, failing inits and the null-handle rule. */
#include <dlfcn.h>
#include <stdio.h>

#include "openvino_bindings.h"

static int errors;
static char lastError[256];

static void OnError(const char* message) {
    ++errors;
    snprintf(lastError, sizeof lastError, "%s", message);
}

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
    const LlmApiBase* llm;
    const WhisperApiBase* whisper;
    HostCallbacks callbacks = {NULL, OnError};
    void* handle = (void*)&errors;

    EXPECT(argc == 2 && (lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL)) != NULL);
    *(void**)&getLlm = dlsym(lib, "GetLlmApiBase");
    *(void**)&getWhisper = dlsym(lib, "GetWhisperApiBase");
    EXPECT(getLlm != NULL && getWhisper != NULL);
    llm = getLlm();
    whisper = getWhisper();
    EXPECT(sizeof(LlmApiBase) == 18 * sizeof(void*) && sizeof(WhisperApiBase) == 17 * sizeof(void*));
    EXPECT(sizeof(LangIdPair) == 16 && sizeof(HostCallbacks) == 2 * sizeof(void*));

    /* A failing init stores the pair, and the failure reaches it. */
    EXPECT(llm->InitModel("/nonexistent", DEVICE_CPU, 16, &handle, &callbacks) == 1 && handle == (void*)&errors);
    EXPECT(errors == 1 && lastError[0] != '\0');
    EXPECT(whisper->InitModel("/nonexistent", 9, &handle, &callbacks) == 1 && handle == (void*)&errors);
    EXPECT(errors == 2);

    EXPECT(llm->QueryModel(NULL, "x", NULL) == STATUS_FAILED && errors == 3);
    EXPECT(whisper->CancelModel(NULL) == STATUS_FAILED && errors == 4);
    EXPECT(llm->FreeQueryResult(NULL) == 0 && whisper->DestroyModel(NULL) == 0 && errors == 4);
    puts("c_host: ok");
    return 0;
}
