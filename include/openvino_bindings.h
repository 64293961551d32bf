/*
 * Tarvik.Velmora.Framework.OpenVINOBindings: local text generation and speech
 * transcription through the OpenVINO GenAI runtime, behind a plain C ABI.
 *
 * The library exports two functions, GetLlmApiBase() and GetWhisperApiBase().
 * Each returns the address of a constant table of function pointers (the same
 * address on every call). A host speaks to the library only through these
 * tables, with scalars, NUL-terminated byte strings and flat arrays.
 *
 * Conventions shared by every slot
 * --------------------------------
 * - Status: every slot returns int32_t, 0 on success and 1 on failure. Only
 *   the LLM QueryModel also returns 2 to 5 (see there).
 * - Reporting: a failure produces at most one call of the `error` function
 *   that the most recent InitModel of the same family stored. The message is
 *   owned by the library and valid only during the call. Until a family's
 *   first InitModel there is no `error` function, and failures are silent.
 * - Null handles: a slot that takes a handle reports "Model handle is null
 *   when ..." and returns 1 (DestroyModel(NULL) silently returns 0).
 * - Out-parameters are written only on success.
 * - Inputs (strings, arrays) are only read and are copied before a slot
 *   returns; the host may release them at once.
 * - Buffers handed out belong to the host until it gives them back through
 *   the release slot named in each comment; they are independent copies and
 *   stay valid after DestroyModel. Never free them with your own allocator.
 *   A getter of an empty list writes 0 to the count, leaves the array
 *   out-parameter untouched and allocates nothing.
 * - Threads: every slot runs on the caller's thread (StreamModel's onText
 *   excepted, see there). Slots of one handle must
 *   not overlap, with one exception: CancelModel may be called from any
 *   thread at any time, also while QueryModel or StreamModel of that handle
 *   runs; it only raises an atomic flag and never blocks. Distinct handles
 *   may work on distinct threads at once. InitModel of a family must not run
 *   concurrently with other slots of that family (it replaces the family's
 *   callback pair).
 */
#ifndef TARVIK_VELMORA_OPENVINO_BINDINGS_H
#define TARVIK_VELMORA_OPENVINO_BINDINGS_H

#include <stddef.h>
#include <stdint.h>

/* The library's version; the build, the Python package and the release
 * archive all take theirs from these lines. */
#define VELMORA_VERSION_MAJOR 0
#define VELMORA_VERSION_MINOR 1
#define VELMORA_VERSION_PATCH 0
#define VELMORA_VERSION "0.1.0"

/* The context length the project's own hosts pass to InitModel and
 * CompileModel when the user names none. A blob compiled for the NPU holds
 * one prompt length, so hosts that agree on it load each other's blobs. */
#define VELMORA_DEFAULT_CONTEXT_LENGTH 256

#ifdef __cplusplus
extern "C" {
#endif

/* The statuses slots return. Every slot returns STATUS_OK or STATUS_FAILED;
 * only the LLM QueryModel also returns the four others. */
enum {
    STATUS_OK = 0,
    STATUS_FAILED = 1,
    STATUS_CONFIG_ASSERTION = 2, /* the settings failed validation: a runtime assertion */
    STATUS_CONFIG_ERROR = 3,     /* the settings failed validation: any other error */
    STATUS_QUERY_ASSERTION = 4,  /* generation failed: a runtime assertion */
    STATUS_QUERY_ERROR = 5       /* generation failed: any other error */
};

/* Device selector passed to InitModel and CompileModel. Any other value is
 * refused with "<value>device type is not supported". */
typedef int32_t DeviceType;
enum { DEVICE_CPU = 0, DEVICE_GPU = 1, DEVICE_NPU = 2 };

/* The host's pair of message functions, copied by value at every InitModel
 * into one process-wide pair per family. `log` is called once by each
 * InitModel; `error` once per failure. A NULL `log` is skipped; InitModel
 * with a NULL pointer or a NULL `error` fails with status 1. */
typedef struct HostCallbacks {
    void (*log)(const char* message);
    void (*error)(const char* message);
} HostCallbacks;

/* One entry of the Whisper language map (16 bytes). In arrays returned by
 * GetLangToId, `language` is its own Text buffer: release each with
 * FreeQueryResult before releasing the array with FreeLangToId. */
typedef struct LangIdPair {
    char* language;
    int64_t id;
} LangIdPair;

/* Returns 0 to let generation go on, non-zero to stop it. The piece is owned
 * by the library and valid only during the call; a piece holding a NUL byte
 * arrives cut at that byte. */
typedef int (*TextCallback)(char* piece);

typedef struct LlmApiBase {
    /* 0: Loads the model directory on the device. contextLength (> 0) becomes
     * max_new_tokens and, for the NPU, the maximum prompt length; the NPU also
     * needs a compiled ".blob" below the directory (see CompileModel).
     * Writes the handle on success. 0 / 1. */
    int32_t (*InitModel)(const char* modelPath, DeviceType device, int32_t contextLength,
                         void** outHandle, const HostCallbacks* callbacks);
    /* 1: Destroys the handle; NULL is allowed. Always 0. */
    int32_t (*DestroyModel)(void* handle);
    /* 2: Generates from one prompt and writes the first text as a Text buffer
     * (release: FreeQueryResult). A cancelled query returns 0 with the text so
     * far. STATUS_FAILED for a null handle, else STATUS_CONFIG_* or
     * STATUS_QUERY_* (see the status enum). */
    int32_t (*QueryModel)(void* handle, const char* prompt, char** outText);
    /* 3: Generates from one prompt, handing each piece to onText. The runtime
     * may call onText on a streaming thread of its own rather than the calling
     * thread; the calls never overlap and all end before StreamModel returns.
     * Returns 0 also when onText or CancelModel stopped it; 1 on a null
     * handle, invalid settings or a generation failure. */
    int32_t (*StreamModel)(void* handle, char* prompt, TextCallback onText);
    /* 4: Releases a Text from QueryModel; NULL allowed. Always 0. Slots 4 and
     * 7 here and Whisper slots 3 and 6 are one function: any Text the
     * library hands out may go to any of them. */
    int32_t (*FreeQueryResult)(char* text);
    /* 5: Sets one generation setting by name from its text form. 0 / 1 (an
     * unrecognised "stop_criteria" text fails without a message). */
    int32_t (*SetConfigProperty)(void* handle, const char* name, const char* value);
    /* 6: Writes the text form of one setting as a Text (release:
     * FreeConfigProperty). 0 / 1. */
    int32_t (*GetConfigProperty)(void* handle, const char* name, char** outValue);
    /* 7: Releases a Text from GetConfigProperty; NULL allowed. Always 0. */
    int32_t (*FreeConfigProperty)(char* text);
    /* 8: Replaces the stop strings (a sorted set; count 0 empties it and
     * `strings` is not read). 0 / 1. */
    int32_t (*SetStopStrings)(void* handle, const char** strings, size_t count);
    /* 9: Copies the stop strings out in byte order as an array of Text buffers
     * (release: FreeStopStrings with the same count). 0 / 1. */
    int32_t (*GetStopStrings)(void* handle, char*** outStrings, size_t* outCount);
    /* 10: Releases the array of GetStopStrings and each string in it; count 0
     * releases nothing. Always 0. */
    int32_t (*FreeStopStrings)(char** strings, size_t count);
    /* 11: Replaces the stop token ids (a sorted set). 0 / 1. */
    int32_t (*SetStopTokens)(void* handle, const int64_t* ids, size_t count);
    /* 12: Copies the stop token ids out in ascending order (release:
     * FreeStopTokens). 0 / 1. */
    int32_t (*GetStopTokens)(void* handle, int64_t** outIds, size_t* outCount);
    /* 13: Releases an id array; NULL allowed. Always 0. This is the one
     * FreeBuffer function that also fills Whisper slots 9, 12 and 15. */
    int32_t (*FreeStopTokens)(void* ids);
    /* 14: Tokenizes text with the model's tokenizer. Always writes an array
     * pointer, even for zero ids (release: FreeTokens). 0 / 1. */
    int32_t (*Tokenize)(void* handle, const char* text, int64_t** outIds, size_t* outCount);
    /* 15: Releases an array from Tokenize; NULL allowed. Always 0. */
    int32_t (*FreeTokens)(int64_t* ids);
    /* 16: Asks a running query or stream of the handle to stop at its next
     * piece. Any thread; never blocks. A cancel between generations is
     * forgotten by the next one. 0 / 1. */
    int32_t (*CancelModel)(void* handle);
    /* 17: For the NPU, compiles the model into a ".blob" beside its files
     * (the directory must hold none yet); for CPU and GPU it builds and drops
     * a pipeline. Needs no handle; reports through the LLM `error`. 0 / 1. */
    int32_t (*CompileModel)(const char* modelPath, DeviceType device, int32_t contextLength);
} LlmApiBase;

typedef struct WhisperApiBase {
    /* 0: Loads a Whisper model directory on the device. 0 / 1. */
    int32_t (*InitModel)(const char* modelPath, DeviceType device, void** outHandle,
                         const HostCallbacks* callbacks);
    /* 1: Destroys the handle; NULL is allowed. Always 0. */
    int32_t (*DestroyModel)(void* handle);
    /* 2: Transcribes `sampleCount` 16 kHz mono float samples into one Text
     * (release: FreeQueryResult). A count of 0 does not read `samples`.
     * A cancelled transcription returns 0 with the text so far. 0 / 1. */
    int32_t (*QueryModel)(void* handle, const float* samples, int32_t sampleCount, char** outText);
    /* 3: Releases a Text from QueryModel; NULL allowed. Always 0. */
    int32_t (*FreeQueryResult)(char* text);
    /* 4: Sets one transcription setting by name from its text form. 0 / 1. */
    int32_t (*SetConfigProperty)(void* handle, const char* name, const char* value);
    /* 5: Writes the text form of one setting as a Text (release:
     * FreeConfigProperty). 0 / 1. */
    int32_t (*GetConfigProperty)(void* handle, const char* name, char** outValue);
    /* 6: Releases a Text from GetConfigProperty; NULL allowed. Always 0. */
    int32_t (*FreeConfigProperty)(char* text);
    /* 7: Copies the language map out in key order (release: each `language`
     * with FreeQueryResult, then the array with FreeLangToId). 0 / 1. */
    int32_t (*GetLangToId)(void* handle, LangIdPair** outPairs, size_t* outCount);
    /* 8: Replaces the language map; a repeated key keeps its first id. 0 / 1. */
    int32_t (*SetLangToId)(void* handle, const LangIdPair* pairs, size_t count);
    /* 9: Releases the array of GetLangToId only, not its keys. Always 0. */
    int32_t (*FreeLangToId)(void* pairs);
    /* 10: Copies begin_suppress_tokens out in order (release:
     * FreeBeginSuppressTokens). 0 / 1. */
    int32_t (*GetBeginSuppressTokens)(void* handle, int64_t** outIds, size_t* outCount);
    /* 11: Replaces begin_suppress_tokens, keeping order and duplicates. 0 / 1. */
    int32_t (*SetBeginSuppressTokens)(void* handle, const int64_t* ids, size_t count);
    /* 12: Releases an id array; NULL allowed. Always 0. */
    int32_t (*FreeBeginSuppressTokens)(void* ids);
    /* 13: Copies suppress_tokens out in order (release: FreeSuppressTokens). 0 / 1. */
    int32_t (*GetSuppressTokens)(void* handle, int64_t** outIds, size_t* outCount);
    /* 14: Replaces suppress_tokens, keeping order and duplicates. 0 / 1. */
    int32_t (*SetSuppressTokens)(void* handle, const int64_t* ids, size_t count);
    /* 15: Releases an id array; NULL allowed. Always 0. */
    int32_t (*FreeSuppressTokens)(void* ids);
    /* 16: Asks a running transcription of the handle to stop. Any thread;
     * never blocks. 0 / 1. */
    int32_t (*CancelModel)(void* handle);
} WhisperApiBase;

const LlmApiBase* GetLlmApiBase(void);
const WhisperApiBase* GetWhisperApiBase(void);

#ifdef __cplusplus
}
#endif

#endif
