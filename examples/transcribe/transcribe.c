/* Transcribes a WAV file with a Whisper model directory and the installed
 * library; Ctrl-C stops the transcription early and prints the text so far.
 *   velmora-transcribe MODEL_DIR AUDIO.wav [LANGUAGE [LIBRARY]]
 * The WAV must be 16 kHz mono 16-bit PCM (sox in.wav -r 16000 -c 1 -b 16 out.wav);
 * LANGUAGE is a code such as "en", looked up in the model's language map. */
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "openvino_bindings.h"

static void OnError(const char* message) { fprintf(stderr, "error: %s\n", message); }

static uint32_t Little(const unsigned char* bytes, int size) {
    uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

/* The samples of a 16 kHz mono 16-bit PCM WAV as floats in [-1, 1); NULL
 * (after saying why) for anything else. */
static float* ReadWav(const char* path, int32_t* count) {
    unsigned char header[12], chunk[8], format[16] = {0}, *pcm;
    float* samples = NULL;
    uint32_t size;
    FILE* file = fopen(path, "rb");
    if (file == NULL || fread(header, 1, 12, file) != 12 || memcmp(header, "RIFF", 4) || memcmp(header + 8, "WAVE", 4)) {
        fprintf(stderr, "%s: not a WAV file\n", path);
        if (file != NULL) fclose(file);
        return NULL;
    }
    /* Chunks until the samples, each padded to an even size. */
    while (fread(chunk, 1, 8, file) == 8 && memcmp(chunk, "data", 4) != 0) {
        size = Little(chunk + 4, 4);
        if (memcmp(chunk, "fmt ", 4) == 0 && size >= 16 && fread(format, 1, 16, file) == 16) size -= 16;
        fseek(file, (long)(size + (size & 1)), SEEK_CUR);
    }
    if (memcmp(chunk, "data", 4) != 0 || Little(format, 2) != 1 || Little(format + 2, 2) != 1 ||
        Little(format + 4, 4) != 16000 || Little(format + 14, 2) != 16) {
        fprintf(stderr, "%s: not 16 kHz mono 16-bit PCM\n", path);
        fclose(file);
        return NULL;
    }
    size = Little(chunk + 4, 4);
    pcm = malloc(size);
    *count = pcm == NULL ? 0 : (int32_t)(fread(pcm, 1, size, file) / 2);
    samples = malloc((size_t)*count * sizeof(float) + 1);
    for (int32_t i = 0; pcm != NULL && samples != NULL && i < *count; ++i)
        samples[i] = (float)(int16_t)Little(pcm + 2 * i, 2) / 32768.0f;
    free(pcm);
    fclose(file);
    return samples;
}

/* CancelModel may be called from any thread: this one waits for Ctrl-C. */
static const WhisperApiBase* whisper;
static void* model;

static void* CancelOnInterrupt(void* signals) {
    int signal;
    while (sigwait(signals, &signal) == 0) whisper->CancelModel(model);
    return NULL;
}

/* The id the model's language map gives a language token, or -1. */
static int64_t LanguageId(const char* token) {
    LangIdPair* pairs;
    size_t count, i;
    int64_t id = -1;
    if (whisper->GetLangToId(model, &pairs, &count) != 0) return -1;
    for (i = 0; i < count; ++i) {
        if (strcmp(pairs[i].language, token) == 0) id = pairs[i].id;
        whisper->FreeQueryResult(pairs[i].language); /* each key, then the array */
    }
    if (count > 0) whisper->FreeLangToId(pairs);
    return id;
}

int main(int argc, char** argv) {
    const char* path = argc > 4 ? argv[4] : VELMORA_LIBRARY;
    HostCallbacks callbacks = {NULL, OnError};
    const WhisperApiBase* (*getWhisper)(void);
    void* library;
    sigset_t signals;
    pthread_t canceller;
    float* samples;
    int32_t count = 0;
    char* text;
    int status;

    if (argc < 3) {
        fprintf(stderr, "usage: %s MODEL_DIR AUDIO.wav [LANGUAGE [LIBRARY]]\n", argv[0]);
        return 2;
    }
    if ((samples = ReadWav(argv[2], &count)) == NULL) return 2;
    /* Before the library starts any thread: all of them inherit the block, so
     * only the canceller's sigwait takes Ctrl-C. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    if ((library = dlopen(path, RTLD_NOW | RTLD_LOCAL)) == NULL ||
        (*(void**)&getWhisper = dlsym(library, "GetWhisperApiBase")) == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    whisper = getWhisper();
    if (whisper->InitModel(argv[1], DEVICE_CPU, &model, &callbacks) != 0) return 1;
    if (argc > 3) {
        char token[32];
        snprintf(token, sizeof token, "<|%s|>", argv[3]);
        if (LanguageId(token) < 0) {
            fprintf(stderr, "the model has no language '%s'\n", argv[3]);
            return 2;
        }
        if (whisper->SetConfigProperty(model, "language", token) != 0) return 1;
    }
    pthread_create(&canceller, NULL, CancelOnInterrupt, &signals);

    status = whisper->QueryModel(model, samples, count, &text);
    /* No cancel may reach the handle once it is destroyed. */
    pthread_cancel(canceller);
    pthread_join(canceller, NULL);
    if (status == 0) {
        puts(text);
        whisper->FreeQueryResult(text);
    }
    whisper->DestroyModel(model);
    free(samples);
    return status;
}
