/* A host text function that does nothing, for Python hosts that must not put
 * a Python callback (and its interpreter cost) on the path being measured. */
#include <stdint.h>

static volatile int64_t pieceCount;

__attribute__((visibility("default"))) int velmora_bench_noop_piece(char* piece) {
    (void)piece;
    ++pieceCount;
    return 0;
}

__attribute__((visibility("default"))) int64_t velmora_bench_piece_count(void) { return pieceCount; }
__attribute__((visibility("default"))) void velmora_bench_reset_count(void) { pieceCount = 0; }
