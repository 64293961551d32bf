/* Brackets for a process running under valgrind's callgrind: what lies between
 * a start and a stop is counted in instructions and dumped under the stop's
 * name, everything else runs uninstrumented. Outside valgrind they do nothing. */
#include <valgrind/callgrind.h>

__attribute__((visibility("default"))) void velmora_bench_count_start(void) {
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
}

__attribute__((visibility("default"))) void velmora_bench_count_stop(const char* name) {
    CALLGRIND_DUMP_STATS_AT(name);
    CALLGRIND_STOP_INSTRUMENTATION;
}
