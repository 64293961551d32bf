# Which tests a sanitizer build runs, and with what options. Included by
# tests/CMakeLists.txt when VELMORA_SANITIZE is set.
set(supp ${CMAKE_CURRENT_LIST_DIR})
# The runtime's TBB loads its topology helper with RTLD_DEEPBIND, which the
# sanitizer runtimes refuse; this variable makes TBB load it without.
set(tbb "TBB_ENABLE_SANITIZERS=1")
# Every other test runs an uninstrumented program (an interpreter, the
# command-line host, an installed copy): those are judged by the plain build.
get_property(velmora_plain_tests DIRECTORY PROPERTY TESTS)

if(VELMORA_SANITIZE STREQUAL "address")
  list(REMOVE_ITEM velmora_plain_tests unit_tests)
  set_tests_properties(${velmora_plain_tests} PROPERTIES DISABLED TRUE)
  set(ubsan "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
  set(asan "strict_string_checks=1:check_initialization_order=1")
  set_tests_properties(unit_tests PROPERTIES ENVIRONMENT
    "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=1;LSAN_OPTIONS=suppressions=${supp}/lsan.supp;${ubsan}")
  # Full unwinding, so that the suppressions can name the third-party library
  # behind an allocation: the injected failures must leak nothing of ours.
  # InitModel's faults (a model load each) are left to the plain build: under
  # full unwinding they take tens of minutes.
  add_test(NAME alloc_failures_asan COMMAND alloc_failures --gtest_filter=*Slots*)
  set_tests_properties(alloc_failures_asan PROPERTIES ENVIRONMENT
    "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=1:fast_unwind_on_malloc=0;LSAN_OPTIONS=suppressions=${supp}/lsan.supp;${ubsan}")
  # Leaks of the host tests are judged by the leak cycle (scripts/leak.sh
  # --lsan), which unwinds fully: the fast unwinder loses the frames that name
  # the runtime's libraries. Left out: the settings and list cases, whose
  # slots the fuzzers drive under the same sanitizers; and the handles coming and going on several threads, which are TSan's: the runtime
  # starts threads for every compiled model, and ASan's own thread registry
  # faulted and then deadlocked reporting it, after a few hundred of them.
  add_test(NAME host_tests_asan
    COMMAND host_tests --gtest_filter=-WhisperLists.*:WhisperSettings.*:LlmSettings.*:Concurrency.*)
  set_tests_properties(host_tests_asan PROPERTIES TIMEOUT 900 ENVIRONMENT "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=0;${ubsan}")
elseif(VELMORA_SANITIZE STREQUAL "thread")
  # Only the tests where threads meet: cancels during generation, handles
  # working side by side. The rest is single-threaded and covered by ASan.
  set_tests_properties(${velmora_plain_tests} PROPERTIES DISABLED TRUE)
  add_test(NAME host_concurrency COMMAND host_tests --gtest_filter=LlmStream.*:Concurrency*)
  set_tests_properties(host_concurrency PROPERTIES ENVIRONMENT
    "${tbb};TSAN_OPTIONS=suppressions=${supp}/tsan.supp:halt_on_error=0:second_deadlock_stack=1:report_signal_unsafe=0")
endif()
