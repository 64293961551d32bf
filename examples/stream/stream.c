/* Streams one prompt through an LLM model directory with the installed
 * library: load it, create a model, print the pieces as they come, destroy.
 *   velmora-stream MODEL_DIR [PROMPT [LIBRARY]]
 * Built as velmora-stream-linked, it links the library instead of loading it
 * (the LIBRARY argument is then ignored). */
#include <stdio.h>

#include "openvino_bindings.h"

#ifndef VELMORA_LINKED
#include <dlfcn.h>
#endif

static void OnLog(const char* message) { fprintf(stderr, "log: %s\n", message); }
static void OnError(const char* message) { fprintf(stderr, "error: %s\n", message); }

static int OnText(char* piece) {
    fputs(piece, stdout);
    fflush(stdout);
    return 0; /* non-zero would stop the generation */
}

static const LlmApiBase* LoadLlmTable(const char* path) {
#ifdef VELMORA_LINKED
    (void)path;
    return GetLlmApiBase();
#else
    const LlmApiBase* (*getLlm)(void);
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return NULL;
    }
    *(void**)&getLlm = dlsym(library, "GetLlmApiBase");
    if (getLlm == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return NULL;
    }
    /* The library stays loaded: it joins or starts an interpreter that is
     * never finalized, so unloading it is not supported. */
    return getLlm();
#endif
}

int main(int argc, char** argv) {
    const char* prompt = argc > 2 ? argv[2] : "Once upon a time";
    const char* path = argc > 3 ? argv[3] : VELMORA_LIBRARY;
    HostCallbacks callbacks = {OnLog, OnError};
    const LlmApiBase* llm;
    void* model = NULL;
    int status;

    if (argc < 2) {
        fprintf(stderr, "usage: %s MODEL_DIR [PROMPT [LIBRARY]]\n", argv[0]);
        return 2;
    }
    llm = LoadLlmTable(path);
    if (llm == NULL) return 1;
    if (llm->InitModel(argv[1], DEVICE_CPU, 32, &model, &callbacks) != 0) return 1;
    status = llm->StreamModel(model, (char*)prompt, OnText);
    putchar('\n');
    llm->DestroyModel(model);
    return status;
}
