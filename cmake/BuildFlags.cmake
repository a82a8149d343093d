# Flags that every target of this tree is built with.
add_library(tarn_build_flags INTERFACE)
target_compile_options(tarn_build_flags INTERFACE -Wall -Wextra -Wshadow)

if(TARN_WARNINGS_ARE_ERRORS)
  target_compile_options(tarn_build_flags INTERFACE -Werror)
endif()

if(TARN_SANITIZE)
  # -D_FORTIFY_SOURCE would hide libc calls from the sanitizer.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TARN_HARDEN)
  add_compile_options(-D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection)
  add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 sees overlapping copies in std::string's own assignment when it optimises (GCC bug 105651).
  target_compile_options(tarn_build_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
