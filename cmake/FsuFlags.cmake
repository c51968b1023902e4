# Warning and sanitizer settings shared by every target of the project.
set(FSU_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wno-format-nonliteral)
if(FSU_WERROR)
  list(APPEND FSU_WARNINGS -Werror)
endif()

if(FSU_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(FSU_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT FSU_SANITIZE STREQUAL "")
  message(FATAL_ERROR "FSU_SANITIZE must be empty, 'address' or 'thread'")
endif()

function(fsu_target_flags target)
  target_compile_options(${target} PRIVATE ${FSU_WARNINGS})
endfunction()
