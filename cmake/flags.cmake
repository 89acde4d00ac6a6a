# One interface library carries what every target is compiled and linked with; a second one adds
# what the tool's own code may do without.

add_library(wmbusctl_flags INTERFACE)
# A 32-bit machine, too, can look at a file of any size and inode number, and lives on after 2038.
# Debian 12's libcoap is built with a time_t of 32 bits there: none of its calls that take one may be
# used. Its clock is ours (tst/coap_clock.cpp).
target_compile_definitions(wmbusctl_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(wmbusctl_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2
  -Wcast-align$<$<CXX_COMPILER_ID:GNU>:=strict> # as on a processor that is particular about it
  $<$<BOOL:${WMBUSCTL_WERROR}>:-Werror>
  -fstack-protector-strong
  -fPIE) # the libraries, too, only go into programs
target_link_options(wmbusctl_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)
target_link_libraries(wmbusctl_flags INTERFACE Threads::Threads)

if(WMBUSCTL_SANITIZE STREQUAL "")
  # FORTIFY needs optimization and does not go together with the sanitizers' interceptors.
  target_compile_options(wmbusctl_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
elseif(WMBUSCTL_SANITIZE STREQUAL "address")
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(WMBUSCTL_SANITIZE STREQUAL "thread")
  set(sanitizers -fsanitize=thread -fno-omit-frame-pointer)
else()
  message(FATAL_ERROR "WMBUSCTL_SANITIZE must be empty, address or thread")
endif()
if(WMBUSCTL_FUZZ)
  list(APPEND sanitizers -fsanitize=fuzzer-no-link) # tells libFuzzer which way the code went
endif()
target_compile_options(wmbusctl_flags INTERFACE ${sanitizers})
target_link_options(wmbusctl_flags INTERFACE ${sanitizers})

# The tool and its runtime layer throw nothing and inherit nothing, and drop what is not called. A
# program whose property WMBUSCTL_LTO is set is optimized as a whole; the others, such as tests that
# replace functions, take the same objects as they are.
set(whole $<BOOL:$<TARGET_PROPERTY:WMBUSCTL_LTO>>)
set(optimized $<AND:$<CXX_COMPILER_ID:GNU>,$<NOT:$<CONFIG:Debug,RelWithDebInfo>>>)
add_library(wmbusctl_plain INTERFACE)
target_compile_options(wmbusctl_plain INTERFACE
  -fno-exceptions -fno-rtti -ffunction-sections -fdata-sections
  $<${optimized}:-flto=auto$<SEMICOLON>-ffat-lto-objects>)
target_link_options(wmbusctl_plain INTERFACE -Wl,--gc-sections
  $<$<AND:${optimized},${whole}>:-flto=auto> $<$<AND:${optimized},$<NOT:${whole}>>:-fno-lto>)
target_link_libraries(wmbusctl_plain INTERFACE wmbusctl_flags)

if(WMBUSCTL_COVERAGE) # of the plain code only; whoever links it writes the counts down
  target_compile_options(wmbusctl_plain INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(wmbusctl_flags INTERFACE --coverage)
endif()

add_library(wmbusctl_coap INTERFACE)
target_include_directories(wmbusctl_coap SYSTEM INTERFACE ${COAP_INCLUDE_DIRS})
if(WMBUSCTL_STATIC_COAP)
  find_library(COAP_ARCHIVE NAMES libcoap-3-notls.a HINTS ${COAP_LIBRARY_DIRS} REQUIRED)
  target_link_libraries(wmbusctl_coap INTERFACE ${COAP_ARCHIVE})
else()
  target_link_libraries(wmbusctl_coap INTERFACE ${COAP_LINK_LIBRARIES})
endif()
