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

# 32-bit builds (the board's) reach files and directories through the 64-bit interfaces. A
# 32-bit readdir fails with EOVERFLOW on a directory cookie beyond 32 bits, which ext4 hands out
# when the kernel takes the caller for a 64-bit process, as under qemu-arm on the build machine.
# It is a no-op on 64-bit builds, and nothing of it shows in the public header.
add_compile_definitions(_FILE_OFFSET_BITS=64)

function(fsu_target_flags target)
  target_compile_options(${target} PRIVATE ${FSU_WARNINGS})
endfunction()
