# Flags that every target of the project shares, gathered in one interface
# target so that projects which build the library as a part keep their own.

add_library(tzregister_settings INTERFACE)

target_compile_options(tzregister_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast
  # Macros of libraries put a file's name in; the clone's place does not belong there.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(TZREGISTER_WARNINGS_AS_ERRORS)
  target_compile_options(tzregister_settings INTERFACE -Werror)
endif()

if(TZREGISTER_HARDENING)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported()
  target_compile_options(tzregister_settings INTERFACE -fstack-protector-strong)
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-fcf-protection=full TZREGISTER_HAS_CET)
  if(TZREGISTER_HAS_CET)
    target_compile_options(tzregister_settings INTERFACE -fcf-protection=full)
  endif()
  check_cxx_compiler_flag(-fstack-clash-protection TZREGISTER_HAS_STACK_CLASH)
  if(TZREGISTER_HAS_STACK_CLASH)
    target_compile_options(tzregister_settings INTERFACE -fstack-clash-protection)
  endif()
  # Fortified functions need optimisation; distributions may have set a level.
  target_compile_options(tzregister_settings INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>
    -D_GLIBCXX_ASSERTIONS)
  target_link_options(tzregister_settings INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

if(TZREGISTER_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TZREGISTER_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

if(TZREGISTER_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
