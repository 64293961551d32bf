/* A host text function that does nothing but count and stamp the first piece,
 * for Python hosts that must not put a Python callback (and its interpreter
 * cost) on the path being measured. */
#include <stdint.h>
#include <time.h>

static volatile int64_t pieceCount;
static volatile int64_t firstPieceNs;

__attribute__((visibility("default"))) int velmora_bench_noop_piece(char* piece) {
    (void)piece;
    if (pieceCount++ == 0) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now); /* the clock of Python's time.perf_counter */
        firstPieceNs = (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
    }
    return 0;
}

__attribute__((visibility("default"))) int64_t velmora_bench_piece_count(void) { return pieceCount; }
__attribute__((visibility("default"))) int64_t velmora_bench_first_piece_ns(void) { return firstPieceNs; }
__attribute__((visibility("default"))) void velmora_bench_reset_count(void) { pieceCount = 0; }
