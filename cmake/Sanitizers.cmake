# Sanitizer builds (see CMakePresets.json). Our library, its object files and
# every test host are instrumented; the runtime, CPython and its extension
# modules are not. The host executables carry the sanitizer runtime, so it is
# loaded before the library and no LD_PRELOAD is needed.
set(VELMORA_SANITIZE "" CACHE STRING "Sanitizer build: address (ASan + UBSan), thread (TSan) or empty")
set_property(CACHE VELMORA_SANITIZE PROPERTY STRINGS "" address thread)

if(VELMORA_SANITIZE STREQUAL "address")
  set(velmora_sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined)
elseif(VELMORA_SANITIZE STREQUAL "thread")
  set(velmora_sanitize_flags -fsanitize=thread)
elseif(NOT VELMORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VELMORA_SANITIZE must be address, thread or empty, not ${VELMORA_SANITIZE}")
endif()

if(velmora_sanitize_flags)
  add_compile_options(${velmora_sanitize_flags} -fno-omit-frame-pointer)
  add_link_options(${velmora_sanitize_flags})
endif()
