# Common settings applied per target, never through global flags.

# Warnings that every target of the project compiles with; all are fatal.
function(loreg_target_warnings target)
  if(LOREG_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wshadow -Wpointer-arith -Wformat=2
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)
endfunction()

# Instruments a target for the sanitizer chosen by LOREG_SANITIZE.
function(loreg_target_sanitize target)
  if(LOREG_SANITIZE STREQUAL "address" OR LOREG_SANITIZE STREQUAL "fuzz")
    # A fuzz build adds libFuzzer's coverage; only fuzz/ links the fuzzer.
    set(coverage "")
    if(LOREG_SANITIZE STREQUAL "fuzz")
      set(coverage "fuzzer-no-link,")
    endif()
    target_compile_options(${target} PRIVATE -fsanitize=${coverage}address,undefined
      -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(LOREG_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  elseif(NOT LOREG_SANITIZE STREQUAL "")
    message(FATAL_ERROR "LOREG_SANITIZE must be '', 'address', 'thread' or 'fuzz'")
  endif()
endfunction()

# Library objects: hidden symbols unless exported by the API macro.
function(loreg_library_defaults target)
  loreg_target_warnings(${target})
  loreg_target_sanitize(${target})
  set_target_properties(${target} PROPERTIES
    C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
