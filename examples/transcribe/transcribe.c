/* Transcribes a WAV file with a Whisper model directory and the installed
 * library; Ctrl-C stops the transcription early and prints the text so far.
 *   velmora-transcribe MODEL_DIR AUDIO.wav [LANGUAGE [LIBRARY]]
 * The WAV must be 16 kHz mono 16-bit PCM (sox in.wav -r 16000 -c 1 -b 16 out.wav);
 * LANGUAGE is a code such as "en", looked up in the model's language map. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "openvino_bindings.h"

static void OnError(const char* message) { fprintf(stderr, "error: %s\n", message); }

static uint32_t Little(const unsigned char* bytes, int size) {
    uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

/* Moves on `n` bytes: a seek in a file, reading through a pipe. 0 at the end. */
static int Skip(FILE* file, uint64_t n) {
    char scrap[4096];
    if (n <= 0x7fffffff && fseek(file, (long)n, SEEK_CUR) == 0) return 1;
    for (size_t got; n > 0; n -= got)
        if ((got = fread(scrap, 1, n < sizeof scrap ? (size_t)n : sizeof scrap, file)) == 0) return 0;
    return 1;
}

/* Up to `size` bytes of 16-bit samples as floats in [-1, 1), fewer where the
 * file ends first: streaming tools write a size they cannot know. */
static float* ReadSamples(FILE* file, uint32_t size, int32_t* count) {
    float* samples = NULL;
    size_t held = 0, room = 0;
    unsigned char pair[2];
    for (uint32_t left = size / 2; left > 0 && fread(pair, 1, 2, file) == 2; --left) {
        if (held == room) {
            float* grown = realloc(samples, (room = room ? 2 * room : 65536) * sizeof(float));
            if (grown == NULL || room > INT32_MAX) {
                fprintf(stderr, "out of memory for the samples\n");
                free(grown != NULL ? grown : samples);
                return NULL;
            }
            samples = grown;
        }
        samples[held++] = (float)(int16_t)Little(pair, 2) / 32768.0f;
    }
    *count = (int32_t)held;
    return samples != NULL ? samples : malloc(1);
}

/* The samples of a 16 kHz mono 16-bit PCM WAV; NULL (after saying why) for
 * anything else. */
static float* ReadWav(const char* path, int32_t* count) {
    unsigned char header[12], chunk[8], format[26] = {0};
    uint32_t size = 0, tag;
    float* samples = NULL;
    int found = 0;
    FILE* file = fopen(path, "rb");
    if (file == NULL) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        return NULL;
    }
    if (fread(header, 1, 12, file) != 12 || memcmp(header, "RIFF", 4) || memcmp(header + 8, "WAVE", 4)) {
        fprintf(stderr, "%s: %s\n", path, ferror(file) ? strerror(errno) : "not a WAV file");
        fclose(file);
        return NULL;
    }
    /* Chunks until the samples, each padded to an even size. */
    while (!found && fread(chunk, 1, 8, file) == 8) {
        size = Little(chunk + 4, 4);
        uint64_t rest = (uint64_t)size + (size & 1);
        size_t take = size < sizeof format ? size : sizeof format;
        found = memcmp(chunk, "data", 4) == 0;
        if (!found && memcmp(chunk, "fmt ", 4) == 0) {
            if (size < 16 || fread(format, 1, take, file) != take) break;
            rest -= take;
        }
        if (!found && !Skip(file, rest)) break;
    }
    /* The extensible layout names its sample format in a sub-format. */
    tag = Little(format, 2) == 0xFFFE ? Little(format + 24, 2) : Little(format, 2);
    if (!found || tag != 1 || Little(format + 2, 2) != 1 || Little(format + 4, 4) != 16000 ||
        Little(format + 14, 2) != 16)
        fprintf(stderr, "%s: %s\n", path, found ? "not 16 kHz mono 16-bit PCM" : "no audio data: damaged or cut short");
    else
        samples = ReadSamples(file, size, count);
    fclose(file);
    return samples;
}

/* CancelModel may be called from any thread: this one waits for Ctrl-C, then
 * cancels until the main thread ends it, as a cancel that lands before the
 * transcription has begun is forgotten. Before the model is ready, Ctrl-C is
 * only noted, and the transcription is not started. */
static const WhisperApiBase* whisper;
static void* model;
static pthread_mutex_t state = PTHREAD_MUTEX_INITIALIZER;
static int ready, interrupted;

static void* CancelOnInterrupt(void* signals) {
    const struct timespec pause = {0, 50 * 1000 * 1000};
    int signal;
    if (sigwait(signals, &signal) != 0) return NULL;
    for (;;) {
        pthread_mutex_lock(&state);
        interrupted = 1;
        if (ready) whisper->CancelModel(model);
        pthread_mutex_unlock(&state);
        nanosleep(&pause, NULL); /* where pthread_cancel ends this thread */
    }
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
     * only the canceller's sigwait takes Ctrl-C, from the start. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    pthread_create(&canceller, NULL, CancelOnInterrupt, &signals);
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
    pthread_mutex_lock(&state);
    ready = 1;
    status = interrupted ? 130 : 0; /* while loading: nothing to transcribe yet */
    pthread_mutex_unlock(&state);

    if (status == 0) status = whisper->QueryModel(model, samples, count, &text);
    /* No cancel may reach the handle once it is destroyed. */
    pthread_cancel(canceller);
    pthread_join(canceller, NULL);
    if (status == 0) {
        puts(text);
        whisper->FreeQueryResult(text);
    } else if (status == 130) {
        fprintf(stderr, "interrupted while loading\n");
    }
    whisper->DestroyModel(model);
    free(samples);
    return status;
}
