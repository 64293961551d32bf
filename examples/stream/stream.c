/* Streams one prompt through an LLM model directory with the installed
 * library: load it, create a model, print the pieces as they come, destroy.
 *   velmora-stream MODEL_DIR [PROMPT [LIBRARY]] */
#include <dlfcn.h>
#include <stdio.h>

#include "openvino_bindings.h"

static void OnLog(const char* message) { fprintf(stderr, "log: %s\n", message); }
static void OnError(const char* message) { fprintf(stderr, "error: %s\n", message); }

static int OnText(char* piece) {
    fputs(piece, stdout);
    fflush(stdout);
    return 0; /* non-zero would stop the generation */
}

int main(int argc, char** argv) {
    const char* prompt = argc > 2 ? argv[2] : "Once upon a time";
    const char* path = argc > 3 ? argv[3] : VELMORA_LIBRARY;
    HostCallbacks callbacks = {OnLog, OnError};
    const LlmApiBase* (*getLlm)(void);
    const LlmApiBase* llm;
    void* library;
    void* model = NULL;
    int status;

    if (argc < 2) {
        fprintf(stderr, "usage: %s MODEL_DIR [PROMPT [LIBRARY]]\n", argv[0]);
        return 2;
    }
    library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    *(void**)&getLlm = dlsym(library, "GetLlmApiBase");
    llm = getLlm();
    if (llm->InitModel(argv[1], DEVICE_CPU, 32, &model, &callbacks) != 0) return 1;
    status = llm->StreamModel(model, (char*)prompt, OnText);
    putchar('\n');
    llm->DestroyModel(model);
    /* The library stays loaded: it joins or starts an interpreter that is
     * never finalized, so unloading it is not supported. */
    return status;
}
